# bash completion for quarryctl: commands, process directories, buffers and handles (the
# handles from `quarryctl ls --json`).
_quarryctl() {
  local cur prev words cword
  _init_completion 2>/dev/null || {
    cur=${COMP_WORDS[COMP_CWORD]}
    words=("${COMP_WORDS[@]}")
    cword=$COMP_CWORD
  }
  local base="" i command="" args=()
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
      --base) base=${words[i + 1]}; ((i++)) ;;
      --base=*) base=${words[i]#--base=} ;;
      -*) ;;
      *) if [[ -z $command ]]; then command=${words[i]}; else args+=("${words[i]}"); fi ;;
    esac
  done
  [[ -z $base ]] && base=${QUARRY_PATH:-/dev/shm/quarry/}
  if [[ ${words[cword - 1]} == --base || ${words[cword - 1]} == -d || ${words[cword - 1]} == --decode-dir ]]; then
    COMPREPLY=($(compgen -d -- "$cur"))
    return
  fi
  if [[ -z $command ]]; then
    COMPREPLY=($(compgen -W "ls dump on off resize rotate stream show recover --base --help" -- "$cur"))
    return
  fi
  if [[ $cur == -* ]]; then
    local options="--help"
    case $command in
      ls) options+=" --json" ;;
      dump) options+=" --decode --decode= --timeout --decode-dir" ;;
      stream | show) options+=" --format=text --format=json --format=chrome --decode-dir" ;;
      recover) options+=" --decode-dir" ;;
    esac
    COMPREPLY=($(compgen -W "$options" -- "$cur"))
    return
  fi
  local processes
  processes=$(cd "$base" 2>/dev/null && ls -d -- */ 2>/dev/null | tr -d /)
  if ((${#args[@]} == 0)); then
    COMPREPLY=($(compgen -W "$processes" -- "$cur"))
    return
  fi
  case $command in
    dump | resize | rotate | show | recover)
      if [[ $command == dump ]] || ((${#args[@]} == 1)); then
        COMPREPLY=($(compgen -W "$(cd "$base/${args[0]}" 2>/dev/null && ls -d -- */ 2>/dev/null | tr -d /)" -- "$cur"))
      fi ;;
    on | off | stream)
      local handles
      handles=$(quarryctl --base "$base" ls "${args[0]}" --json 2>/dev/null |
        grep -o '{"name": "[^"]*", "trace"' | sed 's/{"name": "\(.*\)", "trace"/\1/')
      COMPREPLY=($(compgen -W "$handles" -- "$cur")) ;;
  esac
}
complete -F _quarryctl quarryctl
