# shellcheck shell=bash
# A patch that is right is said to be, and status 1 comes with what doesn't match.
worked_patch
run kelpatch verify old.bin new.bin diff.out
run kelpatch verify --quiet old.bin new.bin diff.out
run kelpatch verify old.bin new.bin diff.out -q
run kelpatch verify old.bin new.bin diff.out >/dev/full
run kelpatch verify <(cat old.bin) <(cat new.bin) <(cat diff.out)
{ head -c 63 old.bin; printf x; } >other.bin
run kelpatch verify other.bin new.bin diff.out
run kelpatch verify old.bin old.bin diff.out
# Bytes 32 apart weigh the same in the checksum: the sixth line's goes up, and then the one 32 behind down.
{ head -c 32 new.bin; printf N; tail -c 35 new.bin; } >wrong.bin
run kelpatch verify old.bin wrong.bin diff.out
{ head -c 64 wrong.bin; printf a; tail -c 3 wrong.bin; } >wrong2.bin
run kelpatch verify old.bin wrong2.bin diff.out
