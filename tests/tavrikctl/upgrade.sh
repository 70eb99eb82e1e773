# shellcheck shell=bash disable=SC2034,SC2154
# Firmware upgrade; sourced by tavrikctl.sh inside a module.
here=${0%/*}/../support
# shellcheck source=/dev/null
. "$here/http_servers.sh"
url=http://127.0.0.1:$http passes=600000
states() { # EXIT-CODE STATES ARGUMENT...: states that are printed, while the module's time passes once one is "updating"
  : >"$printed"
  "$build/tavrikctl" "${@:3}" >"$printed" 2>"$errors" &
  until grep -q updating "$printed" || ! kill -0 $! 2>/dev/null; do sleep 0.05; done
  sim advance "{\"ms\": $passes}"
  wait $!
  is "${*:3}" "$1 $2" "$? $(sed -n 's/^State: //p; s/.*"state":"\([^"]*\)","elapsed":[0-9]*}$/\1/p' "$printed" | paste -sd ' ')"
}
expect 0 'State: not start' upgrade status
sim state '{"ota_ms": 600000}'
states 0 'updating success' --json upgrade http "https://localhost:$https/200"
why="This url can't get upgrde package\|tavrikctl: upgrade http: it cannot be started" expect 1 '' upgrade http "$url/404"
why='get pkg size failed!\|tavrikctl: upgrade file: it cannot be started' expect 1 '' upgrade file /tmp/none
sim state '{"ota_reply_ms": 0}' # a service that answers at once
passes=0 states 0 updating upgrade file "$0"
states 0 'updating success' upgrade status --wait
sim state '{"ota_end": "failed: checksum"}'
states 1 'updating failed: checksum' upgrade http "$url/200" --wait
states 1 'failed: checksum' upgrade status --wait
expect 0 'State: failed: checksum' upgrade status
sim state '{"ota": "updating 45%"}'
expect 0 $'State: updating 45%\nPercent: 45  #########...........' upgrade status
sim state '{"ota": "flashing"}'
why='upgrade status: the service does not tell a state that is known' expect 1 'State: flashing' upgrade status
sim fault '{"service": "ota", "stop": true}'
each 1 'upgrade status' "upgrade file '$0'"
