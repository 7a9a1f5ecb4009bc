# shellcheck shell=bash
# A full disk and a signal leave the older patch and nothing else. The disk is full behind 1024 bytes;
# for the signal one input is a pipe, so that the program waits in reading it. What runs in the
# background ignores SIGINT unless told not to.
seq 1 4000 >old
seq 9000 -7 1000 >new
printf older >'patch'
(
  ulimit -f 1
  run kelmake --quiet --effort quick old new -o patch
)
mkfifo pipe
for signal in HUP INT TERM; do
  env --default-signal kelmake --quiet pipe new -o patch &
  exec 3>pipe
  kill -s "$signal" $!
  { wait $!; } 2>/dev/null
  echo "$signal: $?"
  exec 3>&-
done
cat patch
echo
ls
