# shellcheck shell=bash
# Images are compared like any other file in file mode, but the patch is in their byte order: both must
# be in the same one, and a file that is none has that of the image before it.

# image FILE DATA CLASS NUMBER: a file header without sections, and a number behind it.
image() {
  printf '\x7fELF'"\\x$3\\x$2"'\x01\0\0\0\0\0\0\0\0\0\0\x02' >"$1"
  head -c 34 /dev/zero >>"$1"
  printf '%s' "$4" >>"$1"
}

image old.big 2 1 one
image new.big 2 1 two
image old.little 1 1 one
printf one >plain

run kelvane -b 1 old.big new.big
hex diff.out
run kelpatch verify old.big new.big diff.out
run kelvane -b 1 -o little old.little new.big
run kelvane -b 1 -o little plain new.big
ls little 2>&1
run kelvane -b 1 -o plain.out old.big plain
run kelvane -version 1 -b 1 -d 5 -o names old.little old.little

# A damaged image ends the run, unless it says that it is a 64-bit one.
image old.wide 1 2 one
printf '\x02\0' | dd of=old.wide bs=1 seek=48 conv=notrunc status=none
cp old.wide old.damaged
printf '\x01' | dd of=old.damaged bs=1 seek=4 conv=notrunc status=none
run kelvane -b 1 old.damaged old.little
run kelvane -b 1 old.wide old.little
head -c 9 old.big >old.short
run kelvane -b 1 old.short new.big
