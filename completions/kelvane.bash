# Completion of kelvane's command line for bash.
# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash

_kelvane() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} candidates=""
  case $before in
    -version) candidates="0 1" ;;
    -d) candidates="1 2 3 4 5 6 7 8" ;;
    # A number, or an address.
    -b | -s | -t | -alias | -memmove_block_minsize | -memmove_maxtrees | -min_compression_percent | \
      -min_compression_length)
      COMPREPLY=()
      return
      ;;
    -o | -exclude) ;;
    *)
      if [[ $word == -* ]]; then
        candidates="-b -s -t -o -ram -version -exclude -alias -inc -memmove -memmove_block
          -memmove_block_minsize -memmove_maxtrees -substitution_splicing -relative_substitutions
          -compressed_substitutions -fill -min_compression_percent -min_compression_length -noopt
          -nocolor -d -h"
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
complete -F _kelvane kelvane
