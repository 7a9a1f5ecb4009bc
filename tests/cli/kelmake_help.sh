# shellcheck shell=bash
kelmake --help
kelmake --version | sed 's/[0-9.]*$/N/'
# A full disk is told of, here as everywhere.
run kelmake --help >/dev/full
