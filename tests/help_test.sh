#!/usr/bin/env bash
# The manual pages have no warnings and name every option, command and function. The completion of
# bhctl offers exactly what its help names. Takes the path of bhctl.
set -euo pipefail
cd "$(dirname "$0")/.."
bhctl=$1
status=0
source packaging/bash-completion/bhctl

fail() {
  echo "$1"
  status=1
}

commands() {
  "$bhctl" --help |
    sed -nE '/^Commands:/,/^$/ s/^  ([a-z-]+) .*/\1/p'
}

options() {  # of a command, or the global ones
  "$bhctl" "$@" --help |
    sed -nE 's/^  (-.,)?(--?[a-z-]+) .*/\1\2/p' |
    tr , '\n'
}

choices() {  # the words for each argument of a command, one argument per line
  "$bhctl" "$1" --help |
    sed -nE '/^Positionals:/,/^$/ s/^ +[A-Z]+( REQUIRED)? +(.*)/\2/p' |
    sed -E '
      s/^(create), for.*/\1/
      s/^of array: //
      s/,? or |, / /g
      /[^a-z0-9 ]|^(path|device|the) /s/.*//'
}

expect_manual() {  # a page that has the words of standard input
  local name names text page=packaging/man/$1
  ! groff -mandoc -Kutf8 -Tascii -ww -z "$page" |& grep . || status=1
  text=$(groff -mandoc -Kutf8 -Tascii -P-cbou -rLL=500n "$page" 2>/dev/null)
  mapfile -t names
  for name in "${names[@]:-name to look for}"; do
    grep -qE -- "(^|[^a-z-])$name([^a-z-]|$)" <<<"$text" ||
      fail "$1: no $name"
  done
}

expect_completion() {  # of a line: the words of standard input
  COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
  _bhctl
  diff <(tr ' ' '\n' | grep . | sort -u) \
    <(printf '%s\n' "${COMPREPLY[@]}" | grep . | sort) ||
    fail "$1: wanted <, completed >"
}

takes_value() {  # whether an option of a command does
  [[ $("$bhctl" "$1" --no-such "$2" 2>&1) == *'1 required'* ]]
}

expect_manual bh_servd.8 < <(
  sed -nE 's/^    \{"([a-z]+)", [a-z]+_argument,.*/--\1/p' daemon/options.cpp)
expect_manual libbh.3 < <(
  grep -oE '\blibbh_\w+\(' lib/libbh.h | tr -d '(')
expect_manual bhctl.1 < <(
  commands
  options
  for command in $(commands); do
    options "$command"
  done)

expect_completion 'bhctl ' < <(commands)
expect_completion 'bhctl exec --type ' <<<'0 1 2 3'
for command in $(commands); do
  expect_completion "bhctl $command -" < <(options; options "$command")
  line="bhctl --mac 02:0b:4a:00:00:10 $command"
  while read -r words; do
    expect_completion "$line " <<<"$words"
    line+=' word'
  done < <(choices "$command"; echo)
  for option in $(options "$command"); do
    ! takes_value "$command" "$option" ||
      expect_completion "bhctl $command $option -" </dev/null
  done
done
for option in $(options); do
  ! takes_value ping "$option" ||
    expect_completion "bhctl ping $option -" </dev/null
done
exit $status
