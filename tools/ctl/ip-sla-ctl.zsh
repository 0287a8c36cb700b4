#compdef ip-sla-ctl
# zsh completion for ip-sla-ctl. Commands, options and their values are those of its help texts, so
# that they never fall behind the program. Task ids come from a daemon that answers at once; without
# one there are none.

# The options in a help text.
_ip_sla_ctl_options() {
  sed -nE 's/^  (-[A-Za-z],)?(--[a-z][a-z-]*)( .*)?$/\2/p' <<<"$1"
}

# The sub-commands in a help text, as "name:description".
_ip_sla_ctl_commands() {
  sed -nE '/^Subcommands:$/,/^$/s/^  ([a-z][a-z-]*) +(.*)$/\1:\2/p' <<<"$1"
}

# Whether an option takes a value: its name is followed by a word in capitals.
_ip_sla_ctl_takes_value() {
  grep -qE -- "^  (-[A-Za-z],)?${2}(,--[a-z-]+)? [A-Z][A-Z]" <<<"$1"
}

# The values of an option or positional that are listed in a help text: "--sort KEY:{a,b}".
_ip_sla_ctl_values() {
  sed -nE "s/^  (-[A-Za-z],)?$2 [A-Z]*:?\{([^}]*)\}.*/\2/p" <<<"$1" | tr , '\n'
}

# The positionals of a help text, a line each: "ID ..." is one that may be repeated.
_ip_sla_ctl_positionals() {
  sed -nE '/^Positionals:$/,/^$/{
    s/^  ([A-Z][A-Z-]*) .*\.\.\..*$/\1 .../p
    t
    s/^  ([A-Z][A-Z-]*) .*$/\1/p
  }' <<<"$1"
}

_ip_sla_ctl_ids() {
  ip-sla-ctl --json "$@" --timeout 0.3 status 2>/dev/null | grep -o '"sla-id":[0-9]*' | cut -d: -f2
}

# The value of an option.
_ip_sla_ctl_complete_value() {
  local option=$1 help=$2
  local -a listed
  case $option in
    (--warning|-w|--critical|-c)
      compset -P '*,'
      compadd -S '' -- rtt= latency= jitter= loss= age=
      ;;
    (--tasks) _files ;;
    (--max-age) compadd -- auto ;;
    (*)
      listed=(${(f)"$(_ip_sla_ctl_values "$help" "$option")"})
      (( $#listed )) && compadd -- $listed
      ;;
  esac
}

_ip_sla_ctl() {
  local top help pending word positional
  local -a command_path given names listed source
  top=$(ip-sla-ctl --help 2>/dev/null)
  help=$top

  # The words before the cursor: the command, its arguments, and where the ids come from.
  for word in ${words[2,CURRENT-1]}; do
    if [[ -n $pending ]]; then
      if [[ $pending == --tasks || ( $pending == --port && ${command_path[1]} != template ) ]]; then
        source+=($pending $word)
      fi
      pending=""
    elif [[ $word == --*=* ]]; then
      [[ $word == --tasks=* || $word == --port=* ]] && source+=(${word%%=*} ${word#*=})
    elif [[ $word == -* ]]; then
      if _ip_sla_ctl_takes_value "$help" "$word" || _ip_sla_ctl_takes_value "$top" "$word"; then
        pending=$word
      fi
    elif _ip_sla_ctl_commands "$help" | cut -d: -f1 | grep -qxF -- "$word"; then
      command_path+=($word)
      help=$(ip-sla-ctl $command_path --help 2>/dev/null)
    else
      given+=($word)
    fi
  done

  word=${words[CURRENT]}
  if [[ -n $pending ]]; then
    _ip_sla_ctl_complete_value "$pending" "$help"
  elif [[ $word == --*=* ]]; then
    compset -P '*='
    _ip_sla_ctl_complete_value "${word%%=*}" "$help"
  elif [[ $word == -* ]]; then
    [[ $help == $top ]] || help+=$'\n'$(grep -v -e --version <<<"$top")
    listed=(${(f)"$(_ip_sla_ctl_options "$help")"})
    compadd -- ${(u)listed}
  elif [[ -n $(_ip_sla_ctl_commands "$help") ]]; then
    listed=(${(f)"$(_ip_sla_ctl_commands "$help")"})
    _describe command listed
  else
    names=(${(f)"$(_ip_sla_ctl_positionals "$help")"})
    positional=${names[$#given+1]}
    [[ -z $positional && ${names[-1]} == *' ...' ]] && positional=${names[-1]}
    case ${positional% ...} in
      ('') ;;
      (ID)
        listed=(${(f)"$(_ip_sla_ctl_ids $source)"})
        compadd -- ${listed:|given}
        ;;
      (*)
        listed=(${(f)"$(_ip_sla_ctl_values "$help" "${positional% ...}")"})
        if (( $#listed )); then
          compadd -- $listed
        else
          _files
        fi
        ;;
    esac
  fi
}

_ip_sla_ctl "$@"
