# shellcheck shell=bash
# Colours are for terminals; a file of colours with faults is told line by line, and not read with
# -nocolor.
mkdir "$HOME/.qvr"
run kelvane missing new
printf '%s\n' '[error]' 'foreground = 2' >"$HOME/.qvr/colors.ini"
run kelvane missing new
printf '%s\n' '# colours' 'attribute = 1' '' '[BLUE]' ' [Info] ' 'attribute' 'foreground = 1 2' \
  'colour = 1' 'background = 2' >"$HOME/.qvr/colors.ini"
run kelvane missing new
run kelvane -nocolor missing new
