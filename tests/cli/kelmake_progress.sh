# shellcheck shell=bash
# On a terminal a line tells how far it is, and is wiped out in the end; elsewhere there is none.
seq 1 4000 >old
seq 3 5 4000 >new
script -qefc 'kelmake --jobs 1 old new -o patch' log </dev/null | tr '\r' '\n' |
  grep -oE 'plan [0-9] of [0-9], best so far [0-9]+ bytes|^patch: .*' | sed 's/ [0-9]* bytes/ N bytes/'
kelmake --jobs 1 old new -o patch | grep -c plan
