# shellcheck shell=bash
# A block size or a scan limit of 0 is asked for in vain. Of a block size the low 16 bits count, and a
# text that is no number counts as 0.
old_and_new
kelvane -h 2>usage
for numbers in "-b 0" "-b 65536" "-b -65536" "-b abc" "-b " "-s 0" "-s abc"; do
  run quietly kelvane "${numbers% *}" "${numbers#* }" old new
  cmp words usage
done
for numbers in "-b 65537" "-b -1" "-b 8x" "-s -5" "-s 1"; do
  run kelvane "${numbers% *}" "${numbers#* }" old new
done
# Block size 1, so that a search is made and fails; block size 65535, so that none is made.
printf abcdefgh >old
printf 12345678 >new
run kelvane -s 2 -b 65537 old new
run kelvane -s 2 -b 131071 old new
