# shellcheck shell=bash
# An option that takes an argument and stands last.
old_and_new
kelvane -h 2>usage
for option in -b -s -t -o -version -exclude -alias -memmove_block_minsize -memmove_maxtrees -min_compression_percent -min_compression_length -d; do
  run quietly kelvane old new "$option"
  head -n 1 words
  tail -n +2 words | cmp - usage
done
# What follows is the argument, whatever it looks like.
run kelvane -o -b old new
ls
