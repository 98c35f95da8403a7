#!/usr/bin/env bash
# The bash completion, driven as bash drives it: commands, a command's options, table
# names. Usage: completion_test.sh <completion script> <vesktap>
set -euo pipefail
source "$1"
vesktap=$2
offered() {  # what completing the last of the words offers, one per line
  COMP_WORDS=("$vesktap" "$@")
  COMP_CWORD=${#@}
  _vesktap
  printf '%s\n' "${COMPREPLY[@]}"
}
expect() {  # expect WORD WORDS...: completing WORDS offers WORD
  local word=$1
  shift
  # Whole list first: grep -q stops reading at its match, and under pipefail the writer's
  # SIGPIPE would fail the check whenever the word is not the last one offered.
  local list
  list=$(offered "$@")
  grep -qx -- "$word" <<<"$list" || { echo "completing '$*' does not offer '$word'"; exit 1; }
}
expect agent ag
expect metrics me
expect --listen metrics --li
expect --units agent --un
expect --rate hw --
expect DefaultFwdTcamEntry show --table Def
echo "completion: ok"
