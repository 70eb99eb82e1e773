# shellcheck shell=bash disable=SC2034,SC2154
# Voice calls and eCall; sourced by tavrikctl.sh inside a module.
sim state '{"alert_ms": 600000, "answer_ms": 700000}'
monitor call watch --count 4
expect 0 'Call: 1' call dial +4930
expect 0 '1 dialling outgoing +4930' call list
why='call dial: the modem does not dial it, or there is a call' expect 1 '' call dial 112
sim advance '{"ms": 700000}'
expect 0 'State: active' call state 1
expect 0 '' call dtmf '1*D'
why='call dtmf: tones are .*' expect 1 '' call dtmf 1x
is tones '1*D' "$(ask --print /state/dtmf state)"
expect 0 '' call hangup
ended 0 'call: id 1, state dialling, direction outgoing, number +4930
call: id 1, state alerting, direction outgoing, number +4930
call: id 1, state active, direction outgoing, number +4930
call: id 1, state ended'
sent 'ATD+4930;' AT+CHLD=19
each 1 'call dtmf 1' 'call hangup' 'call hangup 1' 'call state 1' 'call answer'
sim call '{"number": "22"}'
sim call '{"number": "33"}'
expect 0 '{"calls":[{"call":1,"state":"incoming","direction":"incoming","number":"22"},{"call":2,"state":"waiting","direction":"incoming","number":"33"}]}' --json call list
expect 1 '' call answer 2
expect 0 '' call answer
expect 0 '{"state":"active"}' --json call state 1
sim hangup '{"cause": 31}'
expect 0 $'Cause: 31\nText: 31 Normal: unspecified' call cause
sim state '{"calls": [{"id": 3, "state": 9}]}'
expect 0 '3 outgoing' call list
expect 0 'State: unknown' call state 3
sim fault '{"service": "ril", "status": 1}'
each 1 'call list' 'call cause' 'call state 1' 'call dtmf 1' 'call dial 1' 'ecall cause'
sim reset

sim state '{"alert_ms": 600000, "answer_ms": 700000}'
monitor --json ecall watch --count 4
expect 0 '' ecall start --auto --msd 01abFF
expect 1 '' ecall start --manual --msd ''
sim advance '{"ms": 701000}'
each 0 'ecall push' 'ecall update --msd 02' 'ecall end'
ended 0 '{"event":"ecall","value":1,"text":"dialling"}
{"event":"ecall","value":2,"text":"connected"}
{"event":"ecall","value":3,"text":"sending MSD"}
{"event":"ecall","value":-1,"text":"16"}'
expect 0 '{"cause":16,"text":"16 Normal call clearing"}' --json ecall cause
number=12345678901234567890123456789012
each 0 "ecall start --test --number $number --msd 00" 'ecall network off'
expect 0 '' ecall config --smsnum 4294967295 --dial 1 --sms 2 --redialtmr 3 --smsmsdcnt 4 --redialcnt 5 --t10 6 --t9 7 \
  --t7 8 --t6 9 --t5 65535 --t2 11 --mode ERA --ecallonly on
sent 'AT*ECALLMSD="01ABFF"' AT+CECALL=3 'AT*ECALLMSD=""' AT+CECALL=2 'AT*ECALLPUSH' 'AT*ECALLMSD="02"' AT+CECALL=5 \
  'AT*ECALLMSD="00"' 'at*ecallonly?' AT*ECALLONLY=0,$number AT+CECALL=0 AT*ECALLREG=0 AT*ECALLONLY=1 \
  'AT*ECALLMODE="ERA"' AT*ECALLTIMER=cleardown,11 AT*ECALLDATA=5,1,65535 AT*ECALLDATA=5,2,9 AT*ECALLDATA=5,3,8 \
  AT*ECALLTIMER=callback,7 AT*ECALLTIMER=dereg,6 AT*ECALLTIMER=redialcnt,5 AT*ECALLTIMER=smsmsdcnt,4 \
  AT*ECALLTIMER=redialtmr,3 AT*ECALLTIMER=sms,2 AT*ECALLTIMER=dial,1 AT*ECALLSMSNUM=4294967295
sim fault '{"service": "at", "error": "ERROR"}'
each 1 'ecall start --test --msd 00' 'ecall start --auto --number 1 --msd 00' 'ecall start --manual --msd 0x' \
  "ecall start --manual --msd $(printf '%0282d' 0)" "ecall start --test --number ${number}3 --msd 00" 'ecall config' \
  'ecall push' 'ecall end' 'ecall network on' 'ecall update --msd 00'
sent 'AT*ECALLPUSH' AT+CECALL=5 AT*ECALLREG=1 'AT*ECALLMSD="00"'
