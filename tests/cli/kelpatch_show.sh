# shellcheck shell=bash
# Each command in words, and the table of what each kind takes.
worked_patch
run kelpatch show diff.out
run kelpatch show diff.out >/dev/full
