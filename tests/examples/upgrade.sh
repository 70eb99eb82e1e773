#!/bin/sh
# shellcheck disable=SC2154 # variables of http_servers.sh
# The example upgrades from a server and from a file, and tells failures.
#   upgrade.sh PROGRAM [ARGUMENT]...
here=${0%/*}/../support
# shellcheck source=/dev/null
. "$here/http_servers.sh"
upgrade() { # PROGRAM-WITH-ARGUMENTS...: it says that it is updating, and then how that ends
  : >"$servers/output"
  "$@" >"$servers/output" &
  until grep -q updating "$servers/output"; do sleep 0.05; done
  tavrik-sim call advance '{"ms": 600000}' >/dev/null
  wait $!
}
upgrade "$@" "https://localhost:$https/200"
[ "$(xargs <"$servers/output")" = 'updating success' ]
tavrik-sim call state '{"ota_reply_ms": 0, "ota_end": "failed"}' >/dev/null
if upgrade "$@" "$0"; then exit 1; fi
[ "$(xargs <"$servers/output")" = 'updating failed' ]
if "$@" "http://localhost:$http/404" 2>/dev/null; then exit 1; fi
tavrik-sim call record '{"kind": "ota"}' | grep -q "download {.*\"url.*$0"
