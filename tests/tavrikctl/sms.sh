# shellcheck shell=bash disable=SC2034,SC2154
# Messages; sourced by tavrikctl.sh inside a module.
expect 0 'Result: 0' sms send +4917 hello
expect 0 '{"result":0}' --json sms send 1 - <<<'€ 5'
expect 0 'Result: 0' sms send 1 --async <<<'x'
expect 0 'Result: 0' sms send-pdu 0011
expect 0 'Result: 0' sms send-pdu 2233 --async
is sent 'address:+4917 body:00680065006C006C006F address:1 body:20AC00200035 address:1 body:0078 pdu:0011 pdu:2233' \
  "$(ask record '{"kind": "sms"}' | tr -d '\\"' | grep -oE '(address|body|pdu):[^,}]*' | xargs)"
why='Parameter input error\|tavrikctl: sms send: failed' expect 1 '' sms send 1 ''
why='sms send: too long' expect 1 '' sms send 1 "$(printf %0300d 0)"
sim fault '{"service": "sms", "reply": {"sms": {"resp": "38", "smsid": "1", "smsRef": "1"}}, "count": 2}'
expect 1 'Result: 38' sms send 1 x
expect 1 'Result: 38' sms send 1 x --async
sim fault '{"service": "sms", "drop": true}'
why='sms send: no answer in time' expect 3 '' sms send 1 x --async --timeout 100
expect 3 '' sms send-pdu 00 --async --timeout 100
sim fault '{"service": "sms", "stop": true}'
each 1 'sms send 1 x --async' 'sms send-pdu 00' 'sms decode 0791'
sim reset

# Parts in any order, between others, in each alphabet; a report; and one that cannot be decoded.
monitor --json sms listen --count 5
long=$(printf 'äÅ{%.0s' {1..60}) wide=$(printf '你😀%.0s' {1..30})
for message in "\"from\": \"+49170\", \"text\": \"$long\", \"reverse\": true" \
  "\"from\": \"Tavrik\", \"text\": \"$wide\", \"reference\": 255" '"from": "110", "text": ""' \
  '"to": "+49170", "reference": 7, "status": 0' '"pdu": "0791947101"'; do
  line '+CREG: 1' # none of its events
  sim message "{$message}"
done
ended 0 '{"event":"sms","number":"+49170","time":"2024-09-24T14:08:30+02:00","parts":2,"encoding":"7-bit","text":"'"$long"'"}
{"event":"sms","number":"Tavrik","time":"2024-09-24T14:08:30+02:00","parts":2,"encoding":"UCS-2","text":"'"$wide"'"}
{"event":"sms","number":"110","time":"2024-09-24T14:08:30+02:00","encoding":"7-bit","text":""}
{"event":"sms report","number":"+49170","time":"2024-09-24T14:08:30+02:00","message":7,"status":0,"outcome":"delivered"}
{"event":"sms","number":"","encoding":"7-bit","text":""}'

expect 0 $'Type: message\nFrom: +49123456789\nTime: 2024-09-24T14:08:30Z\nEncoding: 7-bit\nText: hellohello\nProtocol: 0' \
  sms decode 07919421436587F9040B919421436587F90000429042418003000AE8329BFD4697D9EC37
expect 0 '{"type":"report","number":"+49123456789","time":"2024-09-24T14:08:30+00:45","message":42,"status":48,"outcome":"still trying","sent":"2024-09-24T14:08:30-01:00"}' \
  --json sms decode 07919471016705F0062A0B919421436587F9429042418003484290424180033030
expect 0 '{"type":"message","number":"+49172345678","time":"2024-09-24T14:08:30+02:00","parts":2,"encoding":"UCS-2","text":"A","part":1,"reference":42,"class":0,"protocol":0,"destination_port":2948,"source_port":9200}' \
  --json sms decode 07919471016705F0440B919471325476F80018429042418003800E0B05040B8423F000032A02010041
