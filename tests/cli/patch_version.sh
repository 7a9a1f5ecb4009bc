# shellcheck shell=bash
# Two formats are known. Another one is refused behind the test for two file names and before
# anything is read or written; the last one given counts.
old_and_new
run kelvane -version 2 old new
run kelvane -version -1 old new
run kelvane -version 7 missing1 missing2
run kelvane -version 2 -exclude missing -o old old new
run quietly kelvane -version 2 old
head -n 1 words
ls
run kelvane -version 2 -version 1 -o one old new
run kelvane -version 1 -version abc -o zero old new
stat -c '%s %n' one zero
run kelvane -version 2 -ram old new
