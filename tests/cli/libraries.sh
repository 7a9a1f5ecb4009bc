# shellcheck shell=bash
# Libraries of all kinds are compared byte for byte as long as their members can be walked; one that
# is broken ends the run.
header() {
  printf '%-16s%-12d%-6d%-6d%-8o%-10d%b' "$1" 0 0 0 0644 "$2" "${3:-\`\n}"
}
old_and_new
{ printf '!<arch>\n' && header '//' 24 && printf 'a_name_of_seventeen.o/\n\n' && header '/0' 3 &&
  printf 'abc\n'; } >good.a
run kelvane -o patch good.a good.a
{ cat good.a && header 'b.o/' 0 '`X'; } >mark.a
run kelvane -o patch mark.a old
{ cat good.a && header 'b.o/' -5; } >negative.a
run kelvane -o patch old negative.a
{ printf '!<arch>\n' && header '//' 99999; } >table.a
run kelvane -o patch table.a old
printf '!<arch>\r\n' >returns.a
run kelvane -o patch returns.a old
printf '<aiaff>\n0' >aix.a
run kelvane -o patch aix.a old
printf '\0\0\2X' >oasys.lib
run kelvane -o patch oasys.lib old
printf 'MZ, and no signature' >broken.exe
run kelvane -o patch broken.exe broken.exe
ls
