# shellcheck shell=bash
# What bash completes for kelvane and kelpatch: every option of the manual page, and the values that an
# option knows. kelmake has a case of its own.
folder=$(dirname "${BASH_SOURCE[0]}")/../../completions
manuals=$folder/../docs
# shellcheck source=/dev/null
source "$folder/kelvane.bash"
# shellcheck source=/dev/null
source "$folder/kelpatch.bash"

# offered WORD ...: what is offered for the last word of a command line, in one line.
offered() {
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  COMPREPLY=()
  "_$1"
  printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd ' '
}

# options_of TEXT: the options that it names.
options_of() {
  grep -oE '(^|[^[:alnum:]-])--?[[:alpha:]][[:alpha:]_-]*' | grep -oE -e '-.*' | sort -u
}

# Nothing is printed of what the manual pages, bash and zsh agree in.
sed 's/\\-/-/g' "$manuals/kelvane.1" | options_of >told
offered kelvane - | tr ' ' '\n' | comm -3 told -
options_of <"$folder/_kelvane" | comm -3 told -
sed 's/\\-/-/g' "$manuals/kelpatch.1" | options_of >told
for command in '' show apply verify plan bundle; do
  offered kelpatch "$command" -
done | tr ' ' '\n' | sort -u | comm -3 told -
options_of <"$folder/_kelpatch" | comm -3 told -
kelpatch --help | options_of | comm -3 told -

touch old.bin old.elf new.bin
offered kelvane -version ''
offered kelvane -version 1 -memm
offered kelvane -b ''
offered kelvane -o ol
offered kelvane old.bin n
offered kelpatch ''
offered kelpatch show --by
offered kelpatch show --byte-order = l
offered kelpatch show --byte-order =
offered kelpatch apply old.bin -o n
offered kelpatch apply --max-size ''
offered kelpatch bundle --unit ''
complete -p kelvane kelpatch
