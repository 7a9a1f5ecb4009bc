# shellcheck shell=bash
# An option is a whole word, its letters as they are; a lone minus is none.
old_and_new
for option in - -- -bfoo -b8 -H --help -RAM -rams -x -memmove_; do
  run quietly kelvane "$option" old new
  head -n 2 words
done
ls
