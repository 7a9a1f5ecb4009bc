# shellcheck shell=bash
# A search that finds no match ends a run of file mode with status 1 and no words, below debug level 1.
printf aaaaaaaaaaaaaaaaaaaa >old
printf bbbbbbbbbbbbbbbbbbbb >new
run kelvane -b 4 -s 5 old new
run kelvane -b 4 -s 5 -d 1 old new
run kelvane -b 4 -s -5 -d 1 old new
printf abcdefghaaaaaaaaaaaa >old
printf abcdefghbbbbbbbbbbbbbbbb >new
run kelvane -b 4 -s 5 -d 1 -version 1 old new
ls
# Blocks no longer than the block size are one change, without a search.
run kelvane -b 24 -s -5 old new
