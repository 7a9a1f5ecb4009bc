# shellcheck shell=bash
# Memory mode raises the version to 1, unless it is set behind; files that are no images have no start
# function, which version 1 asks for at the end and version 0 does not.
old_and_new
run kelvane -ram old new
stat -c '%s bytes are left' diff.out
run kelvane -version 0 -ram -o other old new
run kelvane -ram -version 0 old new
hex diff.out
