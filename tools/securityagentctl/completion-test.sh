#!/bin/bash
# Checks the bash completion of securityagentctl: it parses, completes command names and options,
# offers file names where a command takes a path, 0 and 1 for a yes/no argument, and nothing for a
# number. Usage: completion-test.sh COMPLETION-SCRIPT
set -u
script=$1
bash -n "$script" || { echo "the completion script does not parse"; exit 1; }
# shellcheck source=/dev/null
source "$script"

failures=0
# complete WORD... : the completions of the last word, sorted, one a line.
complete_words() {
  COMP_WORDS=(securityagentctl "$@")
  COMP_CWORD=$#
  COMPREPLY=()
  _securityagentctl
  printf '%s\n' "${COMPREPLY[@]}" | sort
}
expect() {
  local what=$1 expected=$2 actual=$3
  if [ "$expected" != "$actual" ]; then
    printf 'FAILED %s\n  expected: %s\n  actual:   %s\n' "$what" "$expected" "$actual"
    failures=$((failures + 1))
  fi
}
join() { tr '\n' ' ' | sed 's/ $//'; }

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkdir "$folder/sub" && touch "$folder/file one" "$folder/other"

expect "command names" "delete-file-objects delete-file-subtree delete-folder-contents delete-hibernation-file" \
  "$(complete_words delete- | join)"
expect "after options" "compare-folders count-file-objects create-file-object create-link" \
  "$(complete_words --json -q c | join)"
expect "options" "--save --show --socket" "$(complete_words --s | join)"
expect "help takes a command" "propagate-permissions" "$(complete_words help propag | join)"
expect "a path" "$folder/file one" "$(complete_words touch-file-object "$folder/fi")"
expect "paths repeat" "$folder/file one" \
  "$(complete_words delete-file-objects 1 "$folder/other" "$folder/fi")"
expect "a yes/no" "0 1" "$(complete_words modify-protect-attribute "$folder" 1 "" | join)"
expect "a number" "" "$(complete_words search-aged-files "$folder" "")"
expect "data from a file" "@$folder/file one" \
  "$(complete_words modify-file-content "$folder/other" "@$folder/fi")"
expect "the socket option" "$folder/sub" "$(complete_words --socket "$folder/su")"
expect "a program's arguments" "$folder/other" \
  "$(complete_words modify-posix-permissions 0644 "$folder/ot")"
expect "too many arguments" "" "$(complete_words inspect-file-object /tmp "$folder/fi")"

[ "$failures" -eq 0 ] && echo "all completions as expected"
exit $((failures > 0))
