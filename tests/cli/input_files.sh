# shellcheck shell=bash
# An input that can't be loaded is named with the reason; the first one ends the run.
old_and_new
mkdir folder
: >empty
truncate -s 2147483648 huge
run kelvane missing new
run kelvane old missing
run kelvane missing1 missing2
run kelvane empty new
run kelvane old empty
run kelvane folder new
printf abc | run kelvane /dev/stdin new
run kelvane huge new
ls
