#!/usr/bin/env bash
# Products are position-independent programs with read-only tables and no executable stack, and with
# checks of the stack and, when $2 is ON, of buffers. Wants readelf, ON or OFF, and the programs.
set -euo pipefail
facts=('Type: +DYN' 'GNU_RELRO' 'GNU_STACK.* RW  ' 'FLAGS_1.*NOW.*PIE' ' UND __stack_chk_fail')
[ "$2" = OFF ] || facts+=(' UND __[a-z]*printf_chk')
status=0
for program in "${@:3}"; do
  shown=$("$1" -W --file-header --program-headers --dynamic --dyn-syms "$program")
  for fact in "${facts[@]}"; do
    grep -qE "$fact" <<<"$shown" || { echo "$program: no '$fact'"; status=1; }
  done
done
exit $status
