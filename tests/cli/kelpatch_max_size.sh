# shellcheck shell=bash
# A patch may make 16 times the old file, and at least 16 MiB, unless the command line says otherwise.
printf abcd >old
head -c 256 /dev/zero >new
patch_by_hand 1 old new 06 0001 00000000 0100 00 >diff.out
run kelpatch apply old diff.out -o out --max-size 255
run kelpatch verify old new diff.out --max-size=255
run kelpatch apply old diff.out -o out --max-size 256
cmp new out

# The header states 16777216 bytes, and one more: with all bytes up to there 0 the checksums agree.
bytes "00000000 00000000 00000004 01000000 06 0001 00FFFFFF 0001 00" >most.out
bytes "00000000 00000000 00000004 01000001 06 0001 01000000 0001 00" >more.out
bytes 00000000 >old
run kelpatch apply old most.out -o out
stat -c '%s %n' out
run kelpatch apply old more.out -o out
run kelpatch apply old more.out -o out --max-size 16777217
stat -c '%s %n' out

# An old file of 1 MiB and a byte allows 16 bytes more than that.
head -c 1048577 /dev/zero >old
bytes "00000000 00000000 00100001 01000010 06 0001 0100000F 0001 00" >most.out
bytes "00000000 00000000 00100001 01000011 06 0001 01000010 0001 00" >more.out
run kelpatch apply old most.out -o out
run kelpatch apply old more.out -o out
