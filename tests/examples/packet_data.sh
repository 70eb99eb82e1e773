#!/bin/sh
# The example starts the call once the network lets it, makes it again when the network ends it, and takes it down.
#   packet_data.sh PROGRAM [ARGUMENT]...
tavrik-sim call fault '{"service": "at", "match": "AT+ZGACT=1,1", "error": "ERROR", "count": 1}' >/dev/null
out=$(mktemp)
trap 'rm -f "$out"' EXIT
"$@" internet 1 2>/dev/null >"$out" &
timeout 20 sh -c "until grep -q ^Up '$out'; do sleep 0.05; done"
[ "$(curl --silent --max-time 10 --interface ccinet0 http://192.0.2.1/)" = ccinet0 ]
tavrik-sim call context '{"cid": 1, "state": 0}' >/dev/null
wait $!
[ "$(tr '\n' ' ' <"$out")" = 'Not up yet Up Lost Up Down ' ]
[ "$(tavrik-sim call --print /state/contexts state)" = '' ]
