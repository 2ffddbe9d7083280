#!/usr/bin/env bash
# On a processor of 32 bits the C library has calls of two kinds: with times and file offsets of 32
# bits, and with those of 64 bits, which have 64 in their second names. Programs call the latter
# only. Wants readelf, the C compiler, and the programs.
set -euo pipefail
readelf=$1 library=$("$2" -print-file-name=libc.so.6) status=0
names() {  # of the dynamic symbols of a file
  "$readelf" -W --dyn-syms "$1" | awk '$1 ~ /:$/ { sub(/@.*/, "", $8); print $8 }'
}
first_names=$(names "$library" | sed -nE '/^__.*64/ { s/^__//; s/_time64//p; s/64//p }' | sort -u)
grep -qx ppoll <<<"$first_names" || { echo "$library: no calls of two kinds"; exit 1; }
for program in "${@:3}"; do
  ! names "$program" | grep -Fx "$first_names" || { echo "$program: calls these"; status=1; }
done
exit $status
