# shellcheck shell=bash disable=SC2034,SC2154
# Voice calls and eCall; sourced by tavrikctl.sh inside a module.
# shellcheck source=/dev/null
. "${0%/*}/sent.sh"
sim state '{"alert_ms": 600000, "answer_ms": 700000}' >/dev/null

monitor call watch --count 4
expect 0 'Call: 1' call dial +4930
expect 0 '1 dialling outgoing +4930' call list
expect 1 '' call dial 112
errors_match 'tavrikctl: call dial: the modem does not dial it, or there is a call\|$'
sim advance '{"ms": 700000}' >/dev/null
expect 0 'State: active' call state 1
expect 0 '' call dtmf '1*D'
expect 1 '' call dtmf 1x
errors_match 'tavrikctl: call dtmf: tones are [^|]*\|$'
sim state | grep -q '"dtmf": "1\*D"' || { echo 'call dtmf' && failed=1; }
expect 1 '' call answer
expect 0 '' call hangup
ended 0 'call: id 1, state dialling, direction outgoing, number +4930
call: id 1, state alerting, direction outgoing, number +4930
call: id 1, state active, direction outgoing, number +4930
call: id 1, state ended
'
sent 'ATD+4930;' AT+CHLD=19
expect 0 '' call list
expect 0 '{"calls":[]}' --json call list
expect 1 '' call dtmf 1
expect 1 '' call hangup
expect 1 '' call hangup 1
expect 1 '' call state 1
sim call '{"number": "22"}' >/dev/null
sim call '{"number": "33"}' >/dev/null
expect 0 '{"calls":[{"call":1,"state":"incoming","direction":"incoming","number":"22"},{"call":2,"state":"waiting","direction":"incoming","number":"33"}]}' --json call list
expect 1 '' call answer 2
expect 0 '' call answer
expect 0 '{"state":"active"}' --json call state 1
sim hangup '{"cause": 31}' >/dev/null
expect 0 $'Cause: 31\nText: 31 Normal: unspecified' call cause
sim state '{"calls": [{"id": 3, "state": 9}]}' >/dev/null
expect 0 '3 outgoing' call list
expect 0 'State: unknown' call state 3
sim fault '{"service": "ril", "data": null}' >/dev/null
expect 0 '' call list
sim fault '{"service": "ril", "status": 1}' >/dev/null
sim clear '{"fault": 1}' >/dev/null
for verb in list cause 'state 1' 'dtmf 1' 'dial 1'; do
  # shellcheck disable=SC2086 # two words
  expect 1 '' call $verb
done
expect 1 '' ecall cause
sim reset >/dev/null

sim state '{"alert_ms": 600000, "answer_ms": 700000}' >/dev/null
monitor --json ecall watch --count 4
expect 0 '' ecall start --auto --msd 01abFF
sent 'AT*ECALLMSD="01ABFF"' AT+CECALL=3
expect 1 '' ecall start --manual --msd ''
expect 1 '' ecall push
sim advance '{"ms": 701000}' >/dev/null
expect 0 '' ecall push
expect 0 '' ecall update --msd 02
expect 0 '' ecall end
expect 1 '' ecall end
ended 0 '{"event":"ecall","value":1,"text":"dialling"}
{"event":"ecall","value":2,"text":"connected"}
{"event":"ecall","value":3,"text":"sending MSD"}
{"event":"ecall","value":-1,"text":"16"}
'
sent 'AT*ECALLMSD=""' AT+CECALL=2 'AT*ECALLPUSH' 'AT*ECALLPUSH' 'AT*ECALLMSD="02"' AT+CECALL=5 AT+CECALL=5
expect 0 '{"cause":16,"text":"16 Normal call clearing"}' --json ecall cause
expect 0 '' ecall start --test --number 12345678901234567890123456789012 --msd 00
sent 'AT*ECALLMSD="00"' 'at*ecallonly?' 'AT*ECALLONLY=0,12345678901234567890123456789012' AT+CECALL=0
for arguments in '--test --msd 00' '--auto --number 1 --msd 00' "--manual --msd $(printf '%0282d' 0)" '--manual --msd 0' \
  '--manual --msd 0x' '--test --number 123456789012345678901234567890123 --msd 00'; do
  # shellcheck disable=SC2086 # several words
  expect 1 '' ecall start $arguments
done
sent
expect 0 '' ecall network off
expect 0 '' ecall network on
sent 'AT*ECALLREG=0' 'AT*ECALLREG=1'
expect 0 '' ecall config --smsnum 4294967295 --dial 1 --sms 2 --redialtmr 3 --smsmsdcnt 4 --redialcnt 5 --t10 6 --t9 7 \
  --t7 8 --t6 9 --t5 65535 --t2 11 --mode ERA --ecallonly on
sent 'AT*ECALLONLY=1' 'AT*ECALLMODE="ERA"' 'AT*ECALLTIMER=cleardown,11' 'AT*ECALLDATA=5,1,65535' 'AT*ECALLDATA=5,2,9' \
  'AT*ECALLDATA=5,3,8' 'AT*ECALLTIMER=callback,7' 'AT*ECALLTIMER=dereg,6' 'AT*ECALLTIMER=redialcnt,5' \
  'AT*ECALLTIMER=smsmsdcnt,4' 'AT*ECALLTIMER=redialtmr,3' 'AT*ECALLTIMER=sms,2' 'AT*ECALLTIMER=dial,1' \
  'AT*ECALLSMSNUM=4294967295'
expect 0 '' ecall config --mode EU --ecallonly off
sent 'AT*ECALLONLY=0' 'AT*ECALLMODE="EU"'
expect 1 '' ecall config
sim fault '{"service": "at", "error": "ERROR"}' >/dev/null
expect 1 '' ecall network on
expect 1 '' ecall update --msd 00
