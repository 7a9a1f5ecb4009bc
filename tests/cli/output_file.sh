# shellcheck shell=bash
# The patch goes to diff.out, or to the file named last; an old one is overwritten.
old_and_new
printf '%s' a longer text that stands in the way >diff.out
run kelvane old new
run kelvane -o one -o two old new
stat -c '%s %n' diff.out two
ls
mkdir folder
run kelvane -o folder old new
run kelvane -o nowhere/patch old new
run kelvane -version 1 -o nowhere/patch old new
run kelvane -o /dev/full old new
