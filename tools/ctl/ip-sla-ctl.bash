# bash completion for ip-sla-ctl. Task ids come from a daemon that answers at once; without one
# there are none.

_ip_sla_ctl_ids() {
  ip-sla-ctl status --json --timeout 0.3 2>/dev/null | grep -o '"sla-id":[0-9]*' | cut -d: -f2
}

_ip_sla_ctl() {
  local commands="show watch status reload check probe"
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
  local command="" argument="" arguments=0 skip="" word
  COMPREPLY=()

  # The words before the cursor: the command, and how many arguments it has already.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [[ -n $skip ]]; then
      skip=""
      continue
    fi
    case $word in
      --timeout | --port | --interval | -n | --count | --warning | -w | --critical | -c) skip=yes ;;
      -*) ;;
      *)
        if [[ -z $command ]]; then
          command=$word
        else
          argument=$word
          arguments=$((arguments + 1))
        fi
        ;;
    esac
  done

  case $prev in
    --warning | -w | --critical | -c)
      compopt -o nospace
      mapfile -t COMPREPLY < <(compgen -W "rtt= latency= jitter= loss= age=" -- "$cur")
      return
      ;;
    --timeout | --port | --interval | -n | --count) return ;;
  esac

  if [[ $cur == -* ]]; then
    local options="--help --json --timeout --port"
    case $command in
      "") options="$options --version" ;;
      show) options="$options --all --metrics" ;;
      watch) options="$options --all --interval --count" ;;
      check) options="$options --no-host --start --strict" ;;
      probe) options="$options --warning --critical" ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
    return
  fi

  case $command in
    "") mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur") ;;
    reload)
      [[ -n $argument ]] || mapfile -t COMPREPLY < <(compgen -W "tasks keychain" -- "$cur")
      ;;
    check)
      if ((arguments < 2)); then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      fi
      ;;
    probe)
      ((arguments > 0)) || mapfile -t COMPREPLY < <(compgen -W "$(_ip_sla_ctl_ids)" -- "$cur")
      ;;
    show | watch | status) mapfile -t COMPREPLY < <(compgen -W "$(_ip_sla_ctl_ids)" -- "$cur") ;;
  esac
}

complete -F _ip_sla_ctl ip-sla-ctl
