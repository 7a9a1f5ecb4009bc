# shellcheck shell=bash
# Every option is accepted, also where it has no effect in file mode, and changes nothing there.
old_and_new
run kelvane -t 3 -o plain old new
run kelvane -b 8 -s 50 -t 3 -o full -version 0 -alias 1000:ffff -alias 0x2000:0xFF -inc -memmove \
  -memmove_block -memmove_block_minsize 4 -memmove_maxtrees 2 -substitution_splicing \
  -relative_substitutions -compressed_substitutions -fill -min_compression_percent 5 \
  -min_compression_length 20 -noopt -nocolor -d 0 old new
cmp plain full
