#!/bin/sh
# Every manual page in the given directory renders with groff without a
# warning. Usage: man_pages_test.sh <directory>
set -eu
pages=0
failed=0
for page in "$1"/*.[1-8]; do
  [ -e "$page" ] || continue
  pages=$((pages + 1))
  if ! warnings=$(groff -ww -z -man "$page" 2>&1) || [ -n "$warnings" ]; then
    echo "$page: ${warnings:-groff failed}" >&2
    failed=1
  fi
done
if [ "$pages" -eq 0 ]; then
  echo "no manual pages in $1" >&2
  exit 1
fi
exit "$failed"
