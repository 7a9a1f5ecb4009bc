# shellcheck shell=bash
# Two files are needed; more than two are passed over; options may stand anywhere.
run kelvane
run kelvane -nocolor -inc one
old_and_new
run kelvane old new third
run kelvane old -b 8 new -nocolor -s 20
run kelvane old new -bad
ls
