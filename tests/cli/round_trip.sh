# shellcheck shell=bash
# What kelvane finds, kelpatch carries out: both formats, with and without increments.
for number in $(seq 100 900); do echo "line $number of a text"; done >old
{ head -n 120 old; echo "a line that was not there"; tail -n +121 old; } |
  sed -e 's/line 555/LINE 555/' -e 's/line 7\(..\)/line 8\1/' -e '/line 333/d' >new
for options in "-version 0" "-version 1" "-version 1 -inc" "-version 1 -noopt"; do
  # shellcheck disable=SC2086
  run kelvane -b 20 $options old new
  run kelpatch apply old diff.out -o patched >shown
  cmp new patched
  run kelpatch verify old new diff.out >shown
  run kelpatch show diff.out >shown
  rm patched
done
printf '%s' something else >other
run quietly kelpatch verify other new diff.out
run quietly kelpatch apply missing diff.out -o patched
run quietly kelpatch
