# shellcheck shell=bash disable=SC2034,SC2154
# Lines of each kind, and the ways to end; sourced by tavrikctl.sh inside a module.

# One of each kind, in one write: line, JSON, text.
all='' json='' text=''
while IFS='|' read -r sent as_json as_text; do
  all+="\\r\\n$sent\\r\\n" json+="$as_json"$'\n' text+="$as_text"$'\n'
done <<'END'
+CEREG: 5,\"2A1C\",\"1D4E5F6\",7|{"event":"registration","domain":"EPS","state":"roaming","access":"E-UTRAN","area":10780,"cell":30729718}|registration: domain EPS, state roaming, access E-UTRAN, area 10780, cell 30729718
+CREG: 2|{"event":"registration","domain":"CS","state":"searching"}|registration: domain CS, state searching
+CPIN: SIM PUK|{"event":"sim","status":"PUK required","source":"+CPIN","text":"SIM PUK"}|sim: status PUK required, source +CPIN, text SIM PUK
+SIMCARD: 0|{"event":"sim","status":"absent","source":"+SIMCARD","value":0,"text":"0"}|sim: status absent, source +SIMCARD, value 0, text 0
+EEMLTESVC: 001,01,2A1C,1D4E5F6,1300,3,20,22,60,25,18|{"event":"cell","technology":"LTE","mcc":"001","mnc":"01","area":10780,"cell":30729718,"arfcn":1300,"band":3,"bandwidth":20,"phys_id":22,"rsrp":60,"rsrp_dbm":-81,"rsrq":25,"rsrq_db":-7.5,"sinr":18}|cell: technology LTE, MCC 001, MNC 01, area 10780, cell 30729718, channel 1300, band 3, bandwidth 20, physical id 22, RSRP 60 (-81 dBm), RSRQ 25 (-7.5 dB), SINR 18
+EEMGINFOSVC: 262,002,1,A|{"event":"cell","technology":"GSM","mcc":"262","mnc":"002","area":1,"cell":10}|cell: technology GSM, MCC 262, MNC 002, area 1, cell 10
+CESQ: 63,7,0,49,255,255|{"event":"signal","rxlev":63,"rxlev_dbm":-48,"ber":7,"rscp":0,"rscp_dbm":-121,"ecno":49,"ecno_db":0.0}|signal: RXLEV 63 (-48 dBm), BER 7, RSCP 0 (below -120 dBm), Ec/No 49 (0 dB)
+ZCONSTAT: 1,2|{"event":"data","cid":2,"profile":1,"state":"up","interface":"ccinet1"}|data: context 2, profile 1, state up, interface ccinet1
+CLCC: 1,1,4,0,0,\"+4930\",145|{"event":"call","call":1,"state":"incoming","direction":"incoming","number":"+4930"}|call: id 1, state incoming, direction incoming, number +4930
*ECALLDATA: 3,\"MSD\"|{"event":"ecall","value":3,"text":"MSD"}|ecall: value 3, text MSD
+CALLDISCONNECT: 1,16|{"event":"call","call":1,"state":"ended"}|call: id 1, state ended
+CMT: ,24\r\n07919421436587F9040B919421436587F90000429042418003000AE8329BFD4697D9EC37|{"event":"sms","number":"+49123456789","time":"2024-09-24T14:08:30Z","encoding":"7-bit","text":"hellohello"}|sms: from +49123456789, time 2024-09-24T14:08:30Z, encoding 7-bit, text hellohello
END
# The end of the eCall is an event besides, behind that of the call.
json=${json/'"state":"ended"}'/'"state":"ended"}'$'\n''{"event":"ecall","value":-1,"text":"16"}'}
text=${text/'state ended'/'state ended'$'\n''ecall: value -1, text 16'}
monitor --json monitor --count 13
sim line "{\"text\": \"$all\"}" >/dev/null
ended 0 "$json"
monitor monitor --count 13
sim line "{\"text\": \"$all\"}" >/dev/null
ended 0 "$text"

# A line is out as soon as it has happened; and what a sender writes ends no line and commands no terminal.
monitor monitor --count 2
line '+CEREG: 1'
for ((i = 0; i < 100; i++)); do
  [ -s "$printed" ] && break
  sleep 0.1
done
[ "$(<"$printed")" = 'registration: domain EPS, state home' ] || { echo 'not flushed' && failed=1; }
line '+CMT: ,22\r\n07919421436587F9040B919421436587F9000842904241800300060041001B0042'
ended 0 $'registration: domain EPS, state home\nsms: from +49123456789, time 2024-09-24T14:08:30Z, encoding UCS-2, text A?B\n'

# A burst beyond a socket's and the library's buffers; no more than wanted.
monitor --json monitor --count 500
burst='' wanted=''
for ((i = 1; i <= 510; i++)); do
  printf -v hex %X $i
  burst+="\\r\\n+CREG: 1,\\\"1\\\",\\\"$hex\\\"\\r\\n"
  ((i > 500)) || wanted+="{\"event\":\"registration\",\"domain\":\"CS\",\"state\":\"home\",\"area\":1,\"cell\":$i}"$'\n'
done
sim line "{\"text\": \"$burst\"}" >/dev/null
ended 0 "$wanted"

# The ways to end without the last event.
output=/dev/full
: >"$printed"
monitor monitor
line '+CREG: 0'
ended 1 ''
errors_match 'tavrikctl: monitor: cannot write an event\|$'
output=$printed
expect 0 '' monitor --for 1
monitor --json monitor --for 1 --count 2
line '+CREG: 0'
ended 1 $'{"event":"registration","domain":"CS","state":"not registered"}\n'
errors_match 'tavrikctl: monitor: 1 events fewer than wanted\|$'
monitor monitor
sim fault '{"service": "atind", "close": true}' >/dev/null
ended 1 ''
errors_match 'tavrikctl: monitor: the AT server has closed the indication channel\|$'
sim fault '{"service": "atind", "stop": true}' >/dev/null
expect 1 '' monitor
sim reset >/dev/null
