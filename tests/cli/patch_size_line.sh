# shellcheck shell=bash
# At debug level 1 a version 1 patch tells its size and checksum, and a version 0 patch nothing.
old_and_new
run kelvane -version 1 -d 1 old new
run kelvane -version 1 old new
run kelvane -version 0 -d 1 old new
run kelvane -version 1 -d 2 -d -1 old new
