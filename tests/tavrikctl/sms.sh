# shellcheck shell=bash disable=SC1003,SC2034,SC2154
# Messages; sourced by tavrikctl.sh inside a module.
sent() { # KIND-OF-REQUEST...: what the service has got since the last time
  local wanted
  wanted=$(printf '%s\n' "$@")
  [ "$(sim record '{"kind": "sms", "clear": true}' | sed -n 's/.*"text": "\(.*\)"$/\1/p' | tr -d '\\' |
    sed 's/"id".*"address"://; s/"date".*"body"://')" = "$wanted" ] || { echo "not sent: $wanted" && failed=1; }
}
expect 0 'Result: 0' sms send +4917 hello
expect 0 '{"result":0}' --json sms send 1 - < <(echo '€ 5')
expect 0 'Result: 0' sms send 1 --async <<<'x'
expect 0 'Result: 0' sms send-pdu 0011
expect 0 'Result: 0' sms send-pdu 2233 --async
sent 'sms.send {"sms":{"+4917","00680065006C006C006F"}}' 'sms.send {"sms":{"1","20AC00200035"}}' \
  'sms.send {"sms":{"1","0078"}}' 'sms.send_pdu {"sms":{"pdu":"0011"}}' 'sms.send_pdu {"sms":{"pdu":"2233"}}'

expect 1 '' sms send 1 ''
errors_match 'Parameter input error\|tavrikctl: sms send: failed\|$'
expect 1 '' sms send 1 "$(printf %0300d 0)"
errors_match 'tavrikctl: sms send: too long\|$'
sim fault '{"service": "sms", "reply": {"sms": {"resp": "38", "smsid": "1", "smsRef": "1"}}, "count": 2}' >/dev/null
expect 1 'Result: 38' sms send 1 x
expect 1 'Result: 38' sms send 1 x --async
sim fault '{"service": "sms", "drop": true}' >/dev/null
expect 3 '' sms send 1 x --async --timeout 100
errors_match 'tavrikctl: sms send: no answer in time\|$'
expect 3 '' sms send-pdu 00 --async --timeout 100
sim fault '{"service": "sms", "stop": true}' >/dev/null
expect 1 '' sms send 1 x --async
expect 1 '' sms send-pdu 00
sim reset >/dev/null

# Parts in any order, between others, in each alphabet; a report; and one that cannot be decoded.
output=$(mktemp) errors=$(mktemp)
trap 'rm -f "$errors" "$output"' EXIT
sim record '{"clear": true}' >/dev/null
"$build/tavrikctl" --json sms listen --count 5 >"$output" 2>"$errors" &
listener=$!
sim wait '{"kind": "connect", "text": "atind"}' >/dev/null
long=$(printf 'äÅ{%.0s' {1..60}) wide=$(printf '你😀%.0s' {1..30})
message() { sim message "$1" >/dev/null; }
message "{\"from\": \"+49170\", \"text\": \"$long\", \"reverse\": true}"
sim line '{"text": "\r\n+CREG: 1\r\n"}' >/dev/null # none of its events
message "{\"from\": \"Tavrik\", \"text\": \"$wide\", \"reference\": 255}"
message '{"from": "110", "text": ""}'
message '{"to": "+49170", "reference": 7, "status": 0}'
message '{"pdu": "0791947101"}'
wait $listener || { echo "listen: $?" && cat "$errors" && failed=1; }
diff - "$output" <<END || failed=1
{"event":"sms","number":"+49170","time":"2024-09-24T14:08:30+02:00","parts":2,"encoding":"7-bit","text":"$long"}
{"event":"sms","number":"Tavrik","time":"2024-09-24T14:08:30+02:00","parts":2,"encoding":"UCS-2","text":"$wide"}
{"event":"sms","number":"110","time":"2024-09-24T14:08:30+02:00","encoding":"7-bit","text":""}
{"event":"sms report","number":"+49170","time":"2024-09-24T14:08:30+02:00","message":7,"status":0,"outcome":"delivered"}
{"event":"sms","number":"","encoding":"7-bit","text":""}
END
