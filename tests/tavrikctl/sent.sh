# shellcheck shell=bash disable=SC2034,SC2154
# What the AT server got; sourced by the parts that look at it.
sent() { # COMMAND...: what the AT server got since the last look
  local got
  got=$(sim record '{"kind": "at", "clear": true}' | sed -n 's/^ *"text": "\(.*\)"$/\1/p' | sed 's/\\"/"/g')
  [ "$got" = "$(printf '%s\n' "$@")" ] || { echo "sent: $got, not $*" && failed=1; }
}
