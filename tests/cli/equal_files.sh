# shellcheck shell=bash
# Two equal files: the header and a command without moves, byte by byte.
old_and_new
kelvane old new
hex diff.out
kelvane -version 1 old new
hex diff.out
