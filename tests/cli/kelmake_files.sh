# shellcheck shell=bash
# What can't be read or written is one message with the file and the reason, and an older patch stays.
old_and_new
printf older >'patch'
mkdir folder
run kelmake missing new -o patch
run kelmake old missing -o patch
run kelmake old folder -o patch
run kelmake old new -o nowhere/patch
run kelmake old new -o folder
run kelmake old new -o old
ln old hard
run kelmake old new -o hard
run kelmake old new -o patch --report new
run kelmake old new -o patch --report nowhere/report
run kelmake old new -o patch --report ./patch
run kelmake old new -o none --report folder/../none
run kelmake old new -o /dev/null
truncate -s 2147483648 large
run kelmake old large -o patch
cat patch
echo
ls
