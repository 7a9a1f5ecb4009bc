# shellcheck shell=bash
# The output must not be an input, by whatever name. Told before the exclude file is read.
old_and_new
ln old hard
ln -s new soft
printf xyz >diff.out
run kelvane -o old old new
run kelvane -o ./new old new
run kelvane -o hard old new
run kelvane -o soft old new
run kelvane diff.out new
run kelvane -exclude missing -o old old new
run kelvane -o old missing old
cat old new diff.out
