# bash completion for ip-sla-ctl. Commands, options and their values are those of its help texts, so
# that they never fall behind the program. Task ids come from a daemon that answers at once; without
# one there are none.

# The options in a help text.
_ip_sla_ctl_options() {
  sed -nE 's/^  (-[A-Za-z],)?(--[a-z][a-z-]*)( .*)?$/\2/p' <<<"$1"
}

# The sub-commands in a help text.
_ip_sla_ctl_commands() {
  sed -nE '/^Subcommands:$/,/^$/s/^  ([a-z][a-z-]*)( .*)?$/\1/p' <<<"$1"
}

# Whether an option takes a value: its name is followed by a word in capitals.
_ip_sla_ctl_takes_value() {
  grep -qE -- "^  (-[A-Za-z],)?${2}(,--[a-z-]+)? [A-Z][A-Z]" <<<"$1"
}

# The values of an option or positional that are listed in a help text: "--sort KEY:{a,b}".
_ip_sla_ctl_values() {
  sed -nE "s/^  (-[A-Za-z],)?$2 [A-Z]*:?\{([^}]*)\}.*/\2/p" <<<"$1" | tr , ' '
}

# The positionals of a help text, a line each: "ID ..." is one that may be repeated.
_ip_sla_ctl_positionals() {
  sed -nE '/^Positionals:$/,/^$/{
    s/^  ([A-Z][A-Z-]*) .*\.\.\..*$/\1 .../p
    t
    s/^  ([A-Z][A-Z-]*) .*$/\1/p
  }' <<<"$1"
}

# Task ids but those that were given already: PORT and TASKS options in $1, the given ones behind.
_ip_sla_ctl_ids() {
  local given=" ${*:2} " id
  # shellcheck disable=SC2086
  ip-sla-ctl --json $1 --timeout 0.3 status 2>/dev/null | grep -o '"sla-id":[0-9]*' | cut -d: -f2 |
    while read -r id; do
      [[ $given == *" $id "* ]] || echo "$id"
    done
}

# The value of an option.
_ip_sla_ctl_complete_value() {
  local option=$1 help=$2 cur=$3 listed
  case $option in
    --warning | -w | --critical | -c)
      compopt -o nospace
      local before=""
      [[ $cur == *,* ]] && before=${cur%,*},
      listed="rtt= latency= jitter= loss= age="
      mapfile -t COMPREPLY < <(compgen -P "$before" -W "$listed" -- "${cur##*,}")
      ;;
    --tasks)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      ;;
    --max-age) mapfile -t COMPREPLY < <(compgen -W "auto" -- "$cur") ;;
    *)
      listed=$(_ip_sla_ctl_values "$help" "$option")
      [[ -z $listed ]] || mapfile -t COMPREPLY < <(compgen -W "$listed" -- "$cur")
      ;;
  esac
}

# The next positional of a command.
_ip_sla_ctl_complete_positional() {
  local help=$1 source=$2 cur=$3 positional listed
  local -a given=("${@:4}") names
  mapfile -t names < <(_ip_sla_ctl_positionals "$help")
  positional=${names[${#given[@]}]:-}
  if [[ -z $positional && ${#names[@]} -gt 0 && ${names[-1]} == *" ..." ]]; then
    positional=${names[-1]}
  fi
  positional=${positional% ...}
  case $positional in
    "") ;;
    ID)
      listed=$(_ip_sla_ctl_ids "$source" "${given[@]}")
      mapfile -t COMPREPLY < <(compgen -W "$listed" -- "$cur")
      ;;
    *)
      listed=$(_ip_sla_ctl_values "$help" "$positional")
      if [[ -n $listed ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$listed" -- "$cur")
      else
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      fi
      ;;
  esac
}

_ip_sla_ctl() {
  local cur=${COMP_WORDS[COMP_CWORD]} top help pending="" source="" word
  local -a path=() given=()
  COMPREPLY=()
  [[ $cur == = ]] && cur=""
  top=$(ip-sla-ctl --help 2>/dev/null)
  help=$top

  # The words before the cursor: the command, its arguments, and where the ids come from. "--a=b"
  # stands there as three words.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [[ $word == = ]]; then
      continue
    elif [[ -n $pending ]]; then
      if [[ $pending == --tasks || $pending == --port && ${path[0]:-} != template ]]; then
        source+=" $pending $word"
      fi
      pending=""
    elif [[ $word == -* ]]; then
      if _ip_sla_ctl_takes_value "$help" "$word" || _ip_sla_ctl_takes_value "$top" "$word"; then
        pending=$word
      fi
    elif _ip_sla_ctl_commands "$help" | grep -qxF -- "$word"; then
      path+=("$word")
      help=$(ip-sla-ctl "${path[@]}" --help 2>/dev/null)
    else
      given+=("$word")
    fi
  done

  if [[ -n $pending ]]; then
    _ip_sla_ctl_complete_value "$pending" "$help" "$cur"
  elif [[ $cur == -* ]]; then
    [[ $help == "$top" ]] || help+=$'\n'$(grep -v -e --version <<<"$top")
    mapfile -t COMPREPLY < <(
      compgen -W "$(_ip_sla_ctl_options "$help" | sort -u)" -- "$cur"
    )
  elif [[ -n $(_ip_sla_ctl_commands "$help") ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_ip_sla_ctl_commands "$help")" -- "$cur")
  else
    _ip_sla_ctl_complete_positional "$help" "$source" "$cur" "${given[@]}"
  fi
}

complete -F _ip_sla_ctl ip-sla-ctl
