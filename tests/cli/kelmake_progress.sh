# shellcheck shell=bash
# On a terminal a line tells how far it is, and is wiped out in the end; elsewhere there is none.
seq 1 4000 >old
seq 3 5 4000 >new
# shown OPTION ...: what a terminal is shown, a line for each that was rewritten.
shown() {
  script -qefc "kelmake --jobs 1 $* old new -o made" log </dev/null | tr '\r' '\n' |
    sed -nE -e 's/ +$//' -e 's/[0-9]+ (of|bytes|s left|$)/N \1/g' -e 's/of [0-9]+/of N/; s/[0-9.]+ %/N %/; s/operation [0-9]+/operation N/' \
      -e '/^(making|looking|trying|cutting|patch:|update:)/p' | uniq
}
shown
shown --bundle --base 0 --simulate
shown --quiet
# It never takes more than a row of the terminal.
script -qefc 'stty cols 25; kelmake --jobs 1 old new -o made' log </dev/null | tr '\r' '\n' |
  sed -n 's/ *$//; /^making/p' | uniq
kelmake --jobs 1 old new -o made 2>&1 | grep -c making
