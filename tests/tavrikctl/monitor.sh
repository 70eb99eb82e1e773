# shellcheck shell=bash disable=SC2034,SC2154
# Events as `tavrikctl monitor` prints them; sourced by tavrikctl.sh inside a module.
monitor() { # ARGUMENT...: starts one; its lines go to $printed
  sim record '{"clear": true}' >/dev/null
  "$build/tavrikctl" "$@" >"$output" 2>"$errors" &
  monitor=$!
  sim wait '{"kind": "connect", "text": "atind"}' >/dev/null || { echo "tavrikctl $*: no connection" && failed=1; }
}
ended() { # EXIT-CODE STDOUT
  local status
  wait "$monitor"
  status=$?
  if ! diff <(echo -n "$2") "$printed" || [ $status != "$1" ]; then
    echo "monitor: $status, not $1"
    cat "$errors"
    failed=1
  fi
}
line() { sim line "{\"text\": \"\\r\\n$1\\r\\n\"}" >/dev/null; }
printed=$(mktemp) output=$printed
trap 'rm -f "$errors" "$printed"' EXIT
