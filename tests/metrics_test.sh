#!/usr/bin/env bash
# promtool accepts the metrics of two appliances, the example of alert rules, and every name in the
# rules is one of the metrics. Wants the build folder.
set -euo pipefail
rules=$(realpath "$(dirname "$0")/../packaging/prometheus/bh.rules.yml")
build=$1
if [ $# -eq 1 ]; then
  exec "$build/boot" --boards 2 --run-daemon -- bash "$0" "$build" client
fi

PATH=$PATH:$(realpath "$(dirname "$0")/../build/tools")
metrics=$("$build/bhctl" -i bridge0 metrics --all --partition /)
promtool check metrics <<<"$metrics"
promtool check rules "$rules"
[ "$(grep -c '^bh_up{.*} 1$' <<<"$metrics")" -eq 2 ]
for name in $(grep -oE '\bbh_[a-z_]+' "$rules" | sort -u); do
  grep -q "^$name{" <<<"$metrics" || { echo "no metric $name"; exit 1; }
done
