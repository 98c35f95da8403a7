#!/usr/bin/env bash
# The systemd units as systemd reads them: `systemd-analyze verify` reports nothing (no
# unknown key, bad value or missing program; the man pages are not looked for, as they are
# not installed yet). Skipped (exit 77) without systemd-analyze.
# Usage: systemd_units_test.sh <directory of the units> <vesktap>
set -euo pipefail
command -v systemd-analyze >/dev/null || { echo "no systemd-analyze here: skipped"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The units run the installed /usr/bin/vesktap; here they run the one just built.
for unit in "$1"/*.service; do
  sed "s|/usr/bin/vesktap|$2|" "$unit" >"$work/${unit##*/}"
done
if ! output=$(systemd-analyze verify --man=no "$work"/*.service 2>&1) || [ -n "$output" ]; then
  echo "$output"
  exit 1
fi
