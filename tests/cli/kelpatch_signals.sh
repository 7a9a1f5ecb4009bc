# shellcheck shell=bash
# A signal ends kelpatch as it ends any program, and the half-written file goes away. The patch is a pipe,
# so that the program waits in reading it: the file is there once the pipe's other end opens.
worked_patch
mkfifo pipe
for signal in HUP INT TERM; do
  # Programs in the background ignore SIGINT unless they are told not to.
  env --default-signal=$signal kelpatch apply old.bin pipe -o out &
  exec 3>pipe
  find . -name 'out.??????' | wc -l
  kill -s $signal $!
  # bash tells of the end in words of its own.
  { wait $!; } 2>words || echo "SIG$signal: exit $?"
  exec 3>&-
  ls
done
# One that was ignored when it started stays ignored.
env --ignore-signal=TERM kelpatch apply old.bin pipe -o out &
exec 3>pipe
kill -s TERM $!
cat diff.out >&3
exec 3>&-
run wait $!
cmp new.bin out
