# shellcheck shell=bash disable=SC2034,SC2154
# Firmware upgrade; sourced by tavrikctl.sh inside a module.
here=${0%/*}/../support
# shellcheck source=/dev/null
. "$here/http_servers.sh"
states() { # EXIT-CODE STATES ARGUMENT...: states that are printed, while the module's time passes once one is "updating"
  local code=$1 wanted=$2 printed status
  shift 2
  : >"$servers/output"
  "$build/tavrikctl" "$@" >"$servers/output" 2>"$errors" &
  until grep -q updating "$servers/output" || ! kill -0 $! 2>/dev/null; do sleep 0.05; done
  sim advance "{\"ms\": $passes}" >/dev/null
  wait $!
  status=$?
  printed=$(sed -n 's/^State: //p; s/.*"state":"\([^"]*\)","elapsed":[0-9]*}$/\1/p' "$servers/output" | paste -sd ' ')
  if [ $status != "$code" ] || [ "$printed" != "$wanted" ]; then
    echo "tavrikctl $*: $status, not $code; '$printed', not '$wanted'" && cat "$errors" && failed=1
  fi
}
state() { sim state "$1" >/dev/null; }
url=http://127.0.0.1:$http

expect 0 'State: not start' upgrade status
state '{"ota_ms": 600000}'
passes=600000
states 0 'updating success' upgrade http "$url/200"
sim record '{"kind": "ota"}' | grep -q "download {.*$url/200" || { echo 'not asked for' && failed=1; }
states 0 'updating success' --json upgrade http "https://localhost:$https/200"
states 0 'updating success' upgrade file "$0"
expect 1 '' upgrade http "$url/404"
errors_match "This url can't get upgrde package\|tavrikctl: upgrade http: it cannot be started\|$"
expect 1 '' upgrade http "https://127.0.0.1:$expired/200"
expect 1 '' upgrade file /tmp/none
errors_match 'get pkg size failed!\|tavrikctl: upgrade file: it cannot be started\|$'

# A service that answers at once.
state '{"ota_reply_ms": 0}'
passes=0
states 0 updating upgrade file "$0"
passes=600000
states 0 'updating success' upgrade status --wait
state '{"ota_end": "failed: checksum"}'
states 1 'updating failed: checksum' upgrade http "$url/200" --wait
errors_match 'tavrikctl: upgrade http: failed: checksum\|$'
states 1 'failed: checksum' upgrade status --wait
expect 0 'State: failed: checksum' upgrade status

# A percentage, on the way and alone.
state '{"ota": "updating 45%"}'
expect 0 $'State: updating 45%\nPercent: 45  #########...........' upgrade status
expect 0 '{"state":"updating 45%","percent":45}' --json upgrade status
state '{"ota": "flashing"}'
expect 1 'State: flashing' upgrade status
errors_match 'tavrikctl: upgrade status: the service does not tell a state that is known\|$'
sim fault '{"service": "ota", "stop": true}' >/dev/null
expect 1 '' upgrade status
expect 1 '' upgrade file "$0"
