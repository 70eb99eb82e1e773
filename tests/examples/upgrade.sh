#!/bin/sh
# shellcheck disable=SC2154 # variables of http_servers.sh
# The example upgrades from a server and from a file, and tells failures.
#   upgrade.sh PROGRAM [ARGUMENT]...
set -eu
here=${0%/*}/../support
# shellcheck source=/dev/null
. "$here/http_servers.sh"
upgrade() { # END PROGRAM-WITH-ARGUMENTS...: it prints that it is updating, and then how that ends
  tavrik-sim call state "{\"ota_end\": \"$1\"}" >/dev/null
  end=$1
  shift
  : >"$servers/output"
  "$@" >"$servers/output" &
  until grep -q updating "$servers/output"; do sleep 0.05; done
  tavrik-sim call advance '{"ms": 600000}' >/dev/null
  status=0
  wait $! || status=$?
  [ "$(cat "$servers/output")" = "updating
$end" ]
  return $status
}
upgrade success "$@" "https://localhost:$https/200"
tavrik-sim call state '{"ota_reply_ms": 0}' >/dev/null
if upgrade failed "$@" "$0"; then exit 1; fi
if "$@" "http://localhost:$http/404" 2>/dev/null; then exit 1; fi
tavrik-sim call record '{"kind": "ota"}' | grep -q "download {.*\"url.*$0"
