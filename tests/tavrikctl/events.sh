# shellcheck shell=bash disable=SC2034,SC2154
# What `tavrikctl monitor` prints of each kind, and its ways to end; sourced by tavrikctl.sh inside a module.

# All in one write: LINE|what is printed, the lines with & between.
all='' text=''
while IFS='|' read -r sent as_text; do
  all+="\\r\\n$sent\\r\\n" text+="${text:+$'\n'}${as_text//&/$'\n'}"
done <<'END'
+CEREG: 5,\"2A1C\",\"1D4E5F6\",7|registration: domain EPS, state roaming, access E-UTRAN, area 10780, cell 30729718
+CREG: 2|registration: domain CS, state searching
+CPIN: SIM PUK|sim: status PUK required, source +CPIN, text SIM PUK
+SIMCARD: 0|sim: status absent, source +SIMCARD, value 0, text 0
+EEMLTESVC: 001,01,2A1C,1D4E5F6,1300,3,20,22,60,25,18|cell: technology LTE, MCC 001, MNC 01, area 10780, cell 30729718, channel 1300, band 3, bandwidth 20, physical id 22, RSRP 60 (-81 dBm), RSRQ 25 (-7.5 dB), SINR 18
+EEMGINFOSVC: 262,002,1,A|cell: technology GSM, MCC 262, MNC 002, area 1, cell 10
+CESQ: 63,7,0,49,255,255|signal: RXLEV 63 (-48 dBm), BER 7, RSCP 0 (below -120 dBm), Ec/No 49 (0 dB)
+ZCONSTAT: 1,2|data: context 2, profile 1, state up, interface ccinet1
+CLCC: 1,1,4,0,0,\"+4930\",145|call: id 1, state incoming, direction incoming, number +4930
*ECALLDATA: 3,\"MSD\"|ecall: value 3, text MSD
+CALLDISCONNECT: 1,16|call: id 1, state ended&ecall: value -1, text 16
+CMT: ,24\r\n07919421436587F9040B919421436587F90000429042418003000AE8329BFD4697D9EC37|sms: from +49123456789, time 2024-09-24T14:08:30Z, encoding 7-bit, text hellohello
END
monitor monitor --count 13
sim line "{\"text\": \"$all\"}"
ended 0 "$text"

# A line is out as soon as it has happened; and what a sender writes ends no line and commands no terminal.
monitor monitor --count 2
line '+CEREG: 1'
timeout 20 sh -c "until [ -s '$printed' ]; do sleep 0.1; done"
is 'first line' 'registration: domain EPS, state home' "$(<"$printed")"
line '+CMT: ,22\r\n07919421436587F9040B919421436587F9000842904241800300060041001B0042'
ended 0 $'registration: domain EPS, state home\nsms: from +49123456789, time 2024-09-24T14:08:30Z, encoding UCS-2, text A?B'

# The ways to end without the last event.
failed_for() { # WHY STDOUT
  ended 1 "$2"
  is reason "tavrikctl: monitor: $1" "$(grep '^tavrikctl' "$errors")"
}
output=/dev/full
: >"$printed"
monitor monitor
line '+CREG: 0'
failed_for 'cannot write an event' ''
output=$printed
expect 0 '' monitor --for 1
monitor --json monitor --for 1 --count 2
line '+CREG: 0'
failed_for '1 events fewer than wanted' '{"event":"registration","domain":"CS","state":"not registered"}'
monitor monitor
sim fault '{"service": "atind", "close": true}'
failed_for 'the AT server has closed the indication channel' ''
sim fault '{"service": "atind", "stop": true}'
expect 1 '' monitor
