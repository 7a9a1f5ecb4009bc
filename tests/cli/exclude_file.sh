# shellcheck shell=bash
# The exclude file is read after the options and before the inputs, in file mode too; the last one
# given counts.
old_and_new
mkdir folder
: >empty
printf '.text .data\n.bss' >names
run kelvane -exclude missing old new
run kelvane -exclude missing missing1 missing2
run kelvane -exclude folder old new
run kelvane -exclude names -exclude missing old new
ls
run kelvane -exclude missing -exclude names old new
run kelvane -exclude empty old new
