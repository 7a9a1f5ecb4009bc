# shellcheck shell=bash
# Trouble with an input is status 2.
worked_patch
run kelpatch apply old.bin missing -o out
run kelpatch show .
head -c 162 diff.out >cut.out
run kelpatch show cut.out
: >empty
run kelpatch show empty
truncate -s 2147483648 huge
run kelpatch show huge
printf abcd >four
patch_by_hand 1 four four 06 0001 00000003 0002 00 >outside
run kelpatch verify four four outside
{ head -c 36 diff.out; bytes 80; tail -c +38 diff.out; } >large
run kelpatch apply old.bin large -o out
# One bit of the new size is another, and 32 bytes of 0 leave a checksum as it is.
patch_by_hand 0 old.bin new.bin "$(od -An -v -tx1 -j 48 diff.out)" >unsigned
for patch in diff.out unsigned; do
  size_at=12
  [[ $patch == unsigned ]] || size_at=36
  { head -c $size_at $patch; bytes 10; tail -c +$((size_at + 2)) $patch; } >damaged
  run kelpatch apply old.bin damaged -o out
done
ls
