# Completion of kelmake's command line for bash.
# shellcheck shell=bash

_kelmake() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} candidates=""
  # bash takes the "=" of a long option for a word of its own.
  if [[ $before == "=" ]]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  elif [[ $word == "=" ]]; then
    before=${COMP_WORDS[COMP_CWORD - 1]}
    word=
  fi
  case $before in
    --effort) candidates="quick normal best" ;;
    --profile) candidates="any wide libapply" ;;
    --format) candidates="0 1" ;;
    --model) candidates="small large" ;;
    --machine) candidates="none thumb arm powerpc mips riscv" ;;
    --time | --jobs | --alias | --page | --ring | --spare | --checkpoint | --raise | --map | --base)
      COMPREPLY=()
      return
      ;;
    -o | --output | --report | --exclude) ;;
    *)
      if [[ $word == -* ]]; then
        candidates="-o --output --effort --time --jobs --profile --format --ram --exclude --alias
          --big-endian --little-endian --report --bundle --page --ring --spare --checkpoint --raise --rehearse --map
          --model --machine --base --simulate -q --quiet --help --version"
      fi
      ;;
  esac
  if [[ -n $candidates ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$word")
  else
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}
complete -F _kelmake kelmake
