# shellcheck shell=bash
# What bash completes: every option of the manual page, and the values that an option knows.
folder=$(dirname "${BASH_SOURCE[0]}")/../../completions
# shellcheck source=/dev/null
source "$folder/kelmake.bash"

# offered WORD ...: what is offered for the last word of a command line, in one line.
offered() {
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  COMPREPLY=()
  _kelmake
  printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd ' '
}

# options_of TEXT: the options that it names.
options_of() {
  grep -oE '(^|[^[:alnum:]-])--?[[:alpha:]][[:alpha:]_-]*' | grep -oE -e '-.*' | sort -u
}

# Nothing is printed of what the manual page, bash, zsh and the usage agree in.
sed 's/\\-/-/g' "$folder/../docs/kelmake.1" | options_of >told
offered kelmake - | tr ' ' '\n' | comm -3 told -
options_of <"$folder/_kelmake" | comm -3 told -
kelmake --help | options_of | comm -3 told -

touch old.bin old.elf new.bin
offered kelmake --effort ''
offered kelmake --profile = l
offered kelmake --format ''
offered kelmake --model ''
offered kelmake --machine m
offered kelmake --page ''
offered kelmake old.bin n
offered kelmake --jobs ''
complete -p kelmake
