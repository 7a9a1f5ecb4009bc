# shellcheck shell=bash
# Files of no byte, of one, equal ones and unlike ones: a patch each, which kelpatch finds right.
: >empty
printf a >one
printf b >other
seq 1 400 >numbers
seq 3000 -7 1000 >unlike
for old in empty one other numbers unlike; do
  for new in empty one other numbers unlike; do
    for format in 0 1; do
      kelmake -q --little-endian --format "$format" "$old" "$new" -o patch
      kelpatch verify --quiet "$old" "$new" patch
      echo "$old to $new, format $format: $(stat -c %s patch) bytes"
    done
  done
done
kelmake empty one -o patch
kelmake numbers numbers -o patch
kelmake --effort quick numbers unlike -o patch
kelmake --profile any numbers empty -o patch
