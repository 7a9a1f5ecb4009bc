# shellcheck shell=bash
# What kelpatch says of itself, and of a command line that it doesn't know.
run kelpatch --help
kelpatch apply --help | cmp - <(kelpatch --help)
kelpatch --version | sed 's/ [0-9]*\.[0-9]*\.[0-9]*$/ NUMBER/'
run kelpatch
run kelpatch merge
run kelpatch show
run kelpatch show a b
run kelpatch show a -o b
run kelpatch show a --quiet
run kelpatch show a --max-size 1
run kelpatch apply a -o b
run kelpatch apply a b
run kelpatch apply a b -o
run kelpatch verify a b
run kelpatch show a --byte-order
run kelpatch show a --byte-order=middle
run kelpatch apply a b -o c --max-size=2147483648
run kelpatch apply a b -o c --max-size 1k
run kelpatch apply a b -o c --max-size ''
run kelpatch show a --unknown
run kelpatch show a --help=b
run kelpatch show -- --quiet
