# shellcheck shell=bash
# The usage text goes to standard error, and what comes first on the command line decides.
run kelvane -h
run kelvane -h -invalid
run kelvane -invalid -h
run kelvane -b 0 -h
run kelvane old -h new
