#!/usr/bin/env bash
# The manual pages are set without a warning and tell of every option, command and function; the
# completion offers what the help of bhctl tells of, and nothing else. Wants bhctl.
set -euo pipefail
cd "$(dirname "$0")/.."
bhctl=$1 status=0
source packaging/bash-completion/bhctl
commands() { "$bhctl" --help | sed -nE '/^Commands:/,/^$/ s/^  ([a-z-]+) .*/\1/p'; }
options() { "$bhctl" "$@" --help | sed -nE 's/^  (-.,)?(--?[a-z-]+) .*/\1\2/p' | tr , '\n'; }
choices() {  # the words that each positional argument of a command can be, a line each
  "$bhctl" "$1" --help | sed -nE '/^Positionals:/,/^$/ s/^ +[A-Z]+( REQUIRED)? +(.*)/\2/p' |
    sed -E 's/^(create), for.*/\1/; s/^of array: //; s/,? or |, / /g; /[^a-z0-9 ]|^(path|device|the) /s/.*//'
}
manual() {  # its page tells of the words of standard input
  local name names text page=packaging/man/$1
  ! groff -mandoc -Kutf8 -Tascii -ww -z "$page" |& grep . || status=1
  text=$(groff -mandoc -Kutf8 -Tascii -P-cbou -rLL=500n "$page" 2>/dev/null)
  mapfile -t names
  for name in "${names[@]:-name to look for}"; do
    grep -qE -- "(^|[^a-z-])$name([^a-z-]|$)" <<<"$text" || { echo "$1: no $name"; status=1; }
  done
}
complete_line() {  # the line goes on with the words of standard input
  COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
  _bhctl
  diff <(tr ' ' '\n' | grep . | sort -u) <(printf '%s\n' "${COMPREPLY[@]}" | grep . | sort) ||
    { echo "$1: wanted <, completed >"; status=1; }
}

manual bh_servd.8 < <(sed -nE 's/^    \{"([a-z]+)", [a-z]+_argument,.*/--\1/p' daemon/options.cpp)
manual bhctl.1 < <(commands; options; for command in $(commands); do options "$command"; done)
manual libbh.3 < <(grep -oE '\blibbh_\w+\(' lib/libbh.h | tr -d '(')
complete_line 'bhctl ' < <(commands)
complete_line 'bhctl --yes -' < <(options)
for command in $(commands); do
  complete_line "bhctl $command -" < <(options; options "$command")
  line="bhctl --mac 02:0b:4a:00:00:10 $command"
  while read -r words; do
    complete_line "$line " <<<"$words"
    line+=' word'
  done < <(choices "$command"; echo)
  for option in $([ "$command" != ping ] || options; options "$command"); do
    [[ $("$bhctl" "$command" --no-such "$option" 2>&1) != *'1 required'* ]] ||  # no value
      complete_line "bhctl $command $option -" </dev/null
  done
done
complete_line 'bhctl exec --type ' <<<'0 1 2 3'
exit $status
