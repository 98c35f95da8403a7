#!/usr/bin/env bash
# The systemd units as systemd reads them: `systemd-analyze verify` reports nothing (no
# unknown key, bad value or missing program; the man pages are not looked for, as they are
# not installed yet). Skipped (exit 77) without systemd-analyze.
# Usage: systemd_units_test.sh <directory of the units> <vesktap> [<vesktap-gnmi>] (without
# the gNMI target, its unit is left out)
set -euo pipefail
command -v systemd-analyze >/dev/null || { echo "no systemd-analyze here: skipped"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The units run the installed programs; here they run the ones just built.
gnmi=${3:-}
for unit in "$1"/*.service; do
  [[ -z $gnmi && $unit == *gnmi* ]] && continue
  sed "s|/usr/bin/vesktap-gnmi |$gnmi |;s|/usr/bin/vesktap |$2 |" "$unit" >"$work/${unit##*/}"
done
if ! output=$(systemd-analyze verify --man=no "$work"/*.service 2>&1) || [ -n "$output" ]; then
  echo "$output"
  exit 1
fi
