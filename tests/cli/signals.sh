# shellcheck shell=bash
# A signal ends the run with status 2 and its words. The exclude file is a pipe, so that the program
# waits in reading it: it is there once the pipe's other end opens.
old_and_new
mkfifo names
for signal in HUP INT QUIT TERM PIPE XCPU; do
  echo "SIG$signal" >&2
  kelvane -exclude names old new &
  exec 3>names
  kill -s "$signal" $!
  run wait $!
  exec 3>&-
done
ls
