#!/usr/bin/env bash
# The manual pages have no warnings and name every option, command and function. bhctl's help fits a
# terminal, and the completion offers exactly what it names. Takes the path of bhctl.
set -euo pipefail
cd "$(dirname "$0")/.."
status=0
PATH=$(dirname "$1"):$PATH
source packaging/bash-completion/bhctl

fail() {
  echo "$1"
  status=1
}

commands() {
  bhctl --help | sed -nE '/^Commands:/,/^$/ s/^  ([a-z-]+) .*/\1/p'
}

options() {  # of a command, or the global ones
  bhctl help "$@" | sed -nE 's/^  (--[a-z-]+) .*/\1/p'
}

choices() {  # the words for the arguments of a command
  bhctl complete words "$1"
}

expect_manual() {  # a page that has the words of standard input
  local name names text page=packaging/man/$1
  ! groff -mandoc -Kutf8 -Tascii -ww -z "$page" |& grep . || status=1
  text=$(groff -mandoc -Kutf8 -Tascii -P-cbou -rLL=500n "$page" 2>/dev/null)
  mapfile -t names
  for name in "${names[@]:-name to look for}"; do
    grep -qE -- "(^|[^a-z-])$name([^a-z-]|$)" <<<"$text" || fail "$1: no $name"
  done
}

expect_completion() {  # of a line: the words of standard input
  COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
  _bhctl
  diff <(tr ' ' '\n' | grep . | sort -u) \
    <(printf '%s\n' "${COMPREPLY[@]}" | grep . | sort) || fail "$1: wanted <, completed >"
}

expect_manual bh_servd.8 < <(
  sed -nE 's/^    \{"([a-z]+)", [a-z]+_argument,.*/--\1/p' daemon/options.cpp)
expect_manual libbh.3 < <(grep -oE '\blibbh_\w+\(' lib/libbh.h | tr -d '(')
expect_manual acp_client.3 < <(
  sed -nE 's/^[A-Za-z].*[ &*>]([A-Z][A-Za-z]+)\(.*/\1/p' $(ls client/*.h | grep -v hints))
expect_manual bhctl.1 < <(
  commands
  options
  for command in $(commands); do
    options "$command"
    choices "$command"
  done)

expect_completion 'bhctl ' < <(commands)
expect_completion 'bhctl exec --type ' <<<'0 1 2 3 4 5 6'
expect_completion 'bhctl --color ' <<<'auto always never'
for command in $(commands); do
  help=$(bhctl help "$command")
  [ "$help" = "$(bhctl "$command" --help)" ] || fail "$command: another help"
  ! grep -nE '.{81}' <<<"$help" || fail "$command: too wide"
  [ "$command" = help ] && continue
  grep -q "^  bhctl $command" <<<"$help" || fail "$command: no example"
  expect_completion "bhctl --json $command -" < <(options; options "$command")
  [ "$command" = upgrade ] || expect_completion "bhctl -i lo $command " < <(choices "$command")
done

# Other shells' completions, where there are such shells.
! command -v zsh >/dev/null || zsh -n packaging/zsh/_bhctl || fail 'zsh: cannot read it'
if command -v fish >/dev/null; then
  complete_in_fish() {
    fish --no-config -c "source packaging/fish/bhctl.fish; complete -C 'bhctl $1'" | cut -f 1 | sort
  }
  diff <(commands | sort) <(complete_in_fish '') || fail 'fish: wanted <, completed >'
  diff <(choices boot | sort) <(complete_in_fish 'boot ') || fail 'fish: wanted <, completed >'
fi
exit $status
