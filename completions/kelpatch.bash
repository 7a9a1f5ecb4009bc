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
    --unit) candidates="4 8 16 32" ;;
    --max-size | --base | --alias | --page | --ring | --spare | --window | --classes | --erase-time | \
      --program-time | --signature)
      COMPREPLY=()
      return
      ;;
    -o | --output | --exclude | --rollback) ;;
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
          plan | bundle)
            candidates="--page --ring --spare --unit --window --classes --erase-time --program-time"
            candidates+=" --max-size --help --version"
            if [[ $command == bundle ]]; then
              candidates+=" -o --output --rollback --signature --simulate"
            fi
            ;;
          *) candidates="--help --version" ;;
        esac
      elif ((COMP_CWORD == 1)); then
        candidates="show apply verify plan bundle"
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
