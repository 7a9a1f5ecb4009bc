# Completion of kelpatch's command line for bash.
# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash

_kelpatch() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} candidates="" command
  # bash takes the "=" of a long option for a word of its own.
  if [[ $before == "=" ]]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  elif [[ $word == "=" ]]; then
    before=${COMP_WORDS[COMP_CWORD - 1]}
    word=
  fi
  command=${COMP_WORDS[1]}
  case $before in
    --byte-order) candidates="big little" ;;
    --max-size | --base | --alias)
      COMPREPLY=()
      return
      ;;
    -o | --output | --exclude) ;;
    *)
      if [[ $word == -* ]]; then
        case $command in
          show) candidates="--byte-order --ram --exclude --alias --help --version" ;;
          apply)
            candidates="--byte-order -o --output --max-size -q --quiet"
            candidates+=" --ram --base --exclude --alias --help --version"
            ;;
          verify)
            candidates="--byte-order --max-size -q --quiet --ram --exclude --alias --help --version"
            ;;
          *) candidates="--help --version" ;;
        esac
      elif ((COMP_CWORD == 1)); then
        candidates="show apply verify"
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
complete -F _kelpatch kelpatch
