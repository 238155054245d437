# Completion for vqtrace(1) in bash.

_vqtrace() {
  local word=${COMP_WORDS[COMP_CWORD]} command=${COMP_WORDS[1]} i
  local options='-q --quiet -h --help' values='' formats=''
  local read_formats='lackey drmemtrace champsim dramsim ramulator ramulator-rw ramulator-cpu stl gem5'
  local types='read write CDRD64B MEMRD64B RDINV64B IORD64B LNWR64B MEMWR64B WRINV64B IOWR64B'
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W \
      'info test split cat filter import export -h --help --version' -- "$word")
    return
  fi
  case $command in
    info) options+=' --json --line' ;;
    test) ;;
    split) options+=' -n --size -v' ;;
    cat) options+=' -v' ;;
    filter) options+=' --agent --type --address --from --to --every -v' ;;
    import)
      options+=' --cache --line --period --skip-bad -v'
      formats=$read_formats
      ;;
    export)
      options+=' --period'
      formats=${read_formats/drmemtrace /}
      ;;
    *) return ;;
  esac
  # The option that this word is the value of, and whether there is a format yet.
  local value_of='' format=''
  for ((i = 2; i < COMP_CWORD; ++i)); do
    if [[ $value_of ]]; then
      value_of=
      continue
    fi
    case ${COMP_WORDS[i]} in
      -n | --size | -v | --line | --agent | --type | --address | --from | --to | --every | \
        --cache | --period) value_of=${COMP_WORDS[i]} ;;
      :) value_of=: ;; # bash cuts words there
      -?*) ;;
      *) format=${COMP_WORDS[i]} ;;
    esac
  done
  case $value_of in
    -v)
      values='0 1 2 3 4 5'
      [[ $command = import ]] || values+=' text'
      ;;
    --type) # a list
      local before=
      [[ $word = *,* ]] && before=${word%,*},
      mapfile -t COMPREPLY < <(compgen -P "$before" -W "$types" -- "${word##*,}")
      return
      ;;
    --line) values='8 16 32 64 128' ;;
    --cache) values='none 32K:8,1M:16' ;;
    -*) return ;;
    *)
      if [[ ! $value_of && $word = -* ]]; then
        values=$options
      elif [[ ! $value_of && $formats && ! $format ]]; then
        values=$formats
      else
        compopt -o default
        return
      fi
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$values" -- "$word")
} && complete -F _vqtrace vqtrace
