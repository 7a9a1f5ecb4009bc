# shellcheck shell=bash
# The report is JSON, and the same for any number of jobs, like the patch. With a limit of time the
# run says if it was reached; a patch is there in any case.
seq 1 4000 >old
{ echo 'something new'; seq 2 3 4000; seq 3 5 4000; } >'ne"w'
kelmake --quiet --jobs 1 --report 'report 1' old 'ne"w' -o patch
sed 's/"seconds": [0-9.]*/"seconds": S/' 'report 1'
mv patch patch1
kelmake --quiet --jobs 3 old 'ne"w' -o patch
cmp patch patch1
kelmake --time 1000 old 'ne"w' -o patch | head -n 3
cmp patch patch1
ls
