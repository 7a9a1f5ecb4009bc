# shellcheck shell=bash
# Wrong usage ends with status 2, before any file is looked at.
run kelmake
run kelmake old
run kelmake old new
run kelmake old new third -o patch
run kelmake old new -o
run kelmake old new -o ''
run kelmake old new -o patch --report=
run kelmake --effort some old new -o patch
run kelmake --profile=none old new -o patch
run kelmake --format 2 old new -o patch
run kelmake --jobs 0 old new -o patch
run kelmake --jobs 2x old new -o patch
run kelmake --time -5 old new -o patch
run kelmake --exclude words old new -o patch
run kelmake --alias 1:2 old new -o patch
run kelmake --ram --big-endian old new -o patch
run kelmake -- --help new -o patch
ls
