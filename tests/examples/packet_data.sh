#!/bin/sh
# The example starts the call once the network lets it, makes it again when the network ends it, and takes it down.
#   packet_data.sh PROGRAM [ARGUMENT]...
set -eu
tavrik-sim call fault '{"service": "at", "match": "AT+ZGACT=1,1", "error": "ERROR", "count": 1}' >/dev/null
out=$(mktemp)
trap 'rm -f "$out"' EXIT
until_it_says() { # COUNT LINE
  n=0
  until [ "$(grep -c "^$2\$" "$out")" = "$1" ]; do [ $((n += 1)) -lt 400 ]; sleep 0.05; done
}
"$@" internet 1 2>/dev/null >"$out" &
until_it_says 1 Up
[ "$(curl --silent --max-time 10 --interface ccinet0 http://192.0.2.1/)" = ccinet0 ]
tavrik-sim call context '{"cid": 1, "state": 0}' >/dev/null
wait $!
diff "$out" - <<END
Not up yet
Up
Lost
Up
Down
END
[ "$(tavrik-sim call state | sed -n 's/.*"contexts": "\(.*\)".*/\1/p')" = '' ]
