# Completion for vqpack(1) in bash.

_vqpack() {
  local options='-v -c -nc -b -e -d -C -ma -mc -mi -ml -mr -ms -mt -p -np -t -nt -s -S -q -nq -h'
  local word=${COMP_WORDS[COMP_CWORD]} i
  COMPREPLY=()
  # Whether this word is the value of the one before it, which may be a value itself.
  local value_of=
  for ((i = 1; i < COMP_CWORD; ++i)); do
    if [[ $value_of ]]; then
      value_of=
    elif [[ ${COMP_WORDS[i]} == -[SstdvbeCm]* ]]; then
      value_of=${COMP_WORDS[i]:1:1}
    fi
  done
  case $value_of in
    v) mapfile -t COMPREPLY < <(compgen -W '0 1 2 3 4 5' -- "$word") ;;
    s | S) compopt -o default ;;
    ?) ;;
    *)
      if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
      else
        compopt -o default
      fi
      ;;
  esac
} && complete -F _vqpack vqpack
