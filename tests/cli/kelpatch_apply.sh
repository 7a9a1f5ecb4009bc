# shellcheck shell=bash
# The new file comes whole, and nothing stays beside it. What had its name goes only then, passing on its
# mode, and a link stays a link.
worked_patch
run kelpatch apply -o out.bin old.bin diff.out
cmp new.bin out.bin
echo before >kept.bin
chmod 700 kept.bin
ln -s kept.bin link.bin
run kelpatch apply old.bin diff.out -o link.bin
cmp new.bin kept.bin
stat -c '%a %F %n' kept.bin link.bin
umask 027
run kelpatch apply old.bin diff.out --output=masked.bin
stat -c '%a %n' masked.bin

# Where something doesn't match or can't be written, it stays as it was.
echo before >kept.bin
run kelpatch apply new.bin diff.out -o kept.bin
patch_by_hand 1 old.bin new.bin 06 0001 00000043 0001 61 >wrong
run kelpatch apply old.bin wrong -o kept.bin
for output in old.bin diff.out . missing/out; do
  run kelpatch apply old.bin diff.out -o "$output"
done
head -c 8192 /dev/zero >large
patch_by_hand 0 old.bin large 06 0002 00000000 1000 00 00001000 1000 00 >small.out
(
  ulimit -f 2
  run kelpatch apply old.bin small.out -o kept.bin
)
cat kept.bin
ls
