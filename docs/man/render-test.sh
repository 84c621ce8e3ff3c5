#!/bin/sh
# Renders each manual page given and fails when the formatter warns about anything: unknown
# macros, bad escapes, lines it cannot fill. Exit 77 (skipped) without groff.
command -v groff >/dev/null 2>&1 || { echo "groff is not installed"; exit 77; }
status=0
for page in "$@"; do
  warnings=$(groff -ww -z -man "$page" 2>&1)
  if [ -n "$warnings" ]; then
    printf '%s:\n%s\n' "$page" "$warnings"
    status=1
  fi
  if command -v man >/dev/null 2>&1; then
    warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    if [ -n "$warnings" ]; then
      printf '%s (man):\n%s\n' "$page" "$warnings"
      status=1
    fi
  fi
  # Each page names itself and has a synopsis.
  grep -q '^\.SH NAME' "$page" && grep -q '^\.SH SYNOPSIS' "$page" || {
    echo "$page: no NAME or SYNOPSIS section"
    status=1
  }
done
exit $status
