# shellcheck shell=bash disable=SC2034,SC2154
# SIM card, network and power; sourced by tavrikctl.sh inside a module. What the modem answers is set for each verb, so
# that what is printed is checked against it alone.
answer() { sim rules "{\"add\": [$1]}" >/dev/null; }    # a rule
# shellcheck source=/dev/null
. "${0%/*}/sent.sh"

while IFS='|' read -r reply state; do
  answer "{\"command\": \"AT+CPIN?\", $reply}"
  expect 0 "SIM card: $state" uim status
done <<'END'
"lines": ["+CPIN: READY"]|ready
"lines": ["+CPIN: SIM PIN"]|PIN required
"lines": ["+CPIN: SIM PUK2"]|PUK required
"lines": ["+CPIN: SIM REMOVED"]|absent
"lines": ["+CPIN: PH-NET PIN"]|unknown
"final": "+CME ERROR: 508"|PUK blocked
"final": "+CME ERROR: 10"|unknown
END
answer '{"command": "AT+CPIN?", "final": "ERROR"}'
expect 1 '' uim status
errors_match 'tavrikctl: uim status: the modem does not tell it\|$'

answer '{"command": "AT+CICCID", "lines": ["+ICCID: 89882010000000000014"]}'
expect 0 '{"iccid":"89882010000000000014"}' --json uim iccid
answer '{"command": "AT+CICCID", "final": "+CME ERROR: 13"}'
expect 1 '' uim iccid
errors_match 'tavrikctl: uim iccid: CME error 13\|$'
answer '{"command": "AT+CICCID", "final": "+CME ERROR: SIM failure"}'
expect 1 '' --json uim iccid

answer '{"command": "AT+CIMI", "lines": ["001010123456789"]}'
expect 0 'IMSI: 001010123456789' uim imsi
answer '{"command": "AT+CIMI", "final": "ERROR"}'
expect 1 '' uim imsi

answer '{"command": "AT+CNUM", "lines": ["+CNUM: \"Own\",\"+12025550123\",145"]}, {"command": "AT+CNUM=1,{rest}"}'
expect 0 'Own number: +12025550123' uim number
sim record '{"clear": true}' >/dev/null
expect 0 '{"number":"+49301234"}' --json uim number +49301234
sent 'AT+CNUM=1,"+49301234",145'
expect 1 '' uim number 12x
sent
answer '{"command": "AT+CNUM"}'
expect 1 '' uim number

answer '{"command": "AT+CFUN=1"}, {"command": "AT+CFUN=5"}'
expect 0 'SIM power: off' uim power off
expect 0 '{"power":"on"}' --json uim power on
sent AT+CNUM AT+CFUN=5 AT+CFUN=1
answer '{"command": "AT+CFUN=5", "final": "ERROR"}'
expect 1 '' uim power off

lte='{"command": "AT+CPSI?", "lines": ["+CPSI: LTE,Online,001-01,0x1,1,22,EUTRAN-BAND3,1300,20,20,25,60,99,18"]}'
wcdma='{"command": "AT+CPSI?", "lines": ["+CPSI: WCDMA,Online"]}'
gsm='{"command": "AT+CPSI?", "lines": ["+CPSI: GSM,Online"]}'
nothing='{"command": "AT+CPSI?", "lines": ["+CPSI: NO SERVICE,Online"]}'

answer "$lte, {\"command\": \"AT+CEREG?\", \"lines\": [\"+CEREG: 2,5\"]}, {\"command\": \"AT+CREG?\", \"lines\":
  [\"+CREG: 2,0\"]}, {\"command\": \"AT+CGATT?\", \"lines\": [\"+CGATT: 1\"]}"
expect 0 $'Registration: roaming\nCircuit-switched: not registered\nPacket-switched: attached' nw reg
expect 0 '{"registration":"roaming","cs":"not registered","ps":"attached"}' --json nw reg
answer '{"command": "AT+CREG?", "lines": ["+CREG: 2"]}'
expect 0 '{"registration":"roaming","ps":"attached"}' --json nw reg
answer '{"command": "AT+CGATT?", "final": "ERROR"}'
expect 1 '' nw reg

# Levels: both ends of each scale, the lowest value below it, and what is not known.
cqi='{"command": "AT*ZCQI?", "lines": ["*ZCQI: 11"]}'
while IFS='|' read -r technology cesq wanted; do
  answer "${!technology}, $cqi, {\"command\": \"AT+CESQ\", \"lines\": [\"+CESQ: $cesq\"]}"
  expect 0 "$wanted" --json nw signal
done <<'END'
lte|99,99,255,255,34,97|{"technology":"LTE","rsrp":97,"rsrp_dbm":-44,"rsrq":34,"rsrq_db":-3.0,"cqi":11,"sinr":18}
lte|99,99,255,255,1,1|{"technology":"LTE","rsrp":1,"rsrp_dbm":-140,"rsrq":1,"rsrq_db":-19.5,"cqi":11,"sinr":18}
lte|99,99,255,255,255,255|{"technology":"LTE","cqi":11,"sinr":18}
wcdma|99,99,96,49,255,255|{"technology":"WCDMA","rscp":96,"rscp_dbm":-25}
wcdma|99,99,255,255,255,255|{"technology":"WCDMA"}
gsm|63,0,255,255,255,255|{"technology":"GSM","rxlev":63,"rxlev_dbm":-48}
gsm|99,99,255,255,255,255|{"technology":"GSM"}
END
answer "$lte, {\"command\": \"AT+CESQ\", \"lines\": [\"+CESQ: 99,99,255,255,20,0\"]}"
expect 0 'Technology: LTE
RSRP: 0 (below -140 dBm)
RSRQ: 20 (-10 dB)
CQI: 11
SINR: 18' nw signal
answer "$nothing"
expect 1 '' nw signal

# The watch goes on without service.
watched() { # its commands must not go on while the next ones are recorded
  local pipe pid
  pipe=$(mktemp -u)
  mkfifo "$pipe"
  timeout 20 "$@" >"$pipe" &
  pid=$!
  head -c "$bytes" <"$pipe" | tr '\033\r' '^ '
  kill "$pid" 2>/dev/null
  wait "$pid" 2>/dev/null
  rm -f "$pipe"
}
answer "$gsm, {\"command\": \"AT+CESQ\", \"lines\": [\"+CESQ: 32,99,255,255,255,255\"]}"
table=$'Technology: GSM\nRXLEV: 32 (-79 dBm)  ##########..........\n'
bytes=$((2 * ${#table}))
[ "$(watched "$build/tavrikctl" nw signal --watch)" = "$table${table%?}" ] || { echo 'nw signal --watch' && failed=1; }
answer "$nothing"
bytes=42
[ "$(watched "$build/tavrikctl" --json nw signal --watch)" = $'{"technology":"none"}\n{"technology":"none"' ] ||
  { echo 'nw signal --watch without service' && failed=1; }

answer '{"command": "AT*BAND?", "lines": ["*BAND: 15,78,147,482,134742231,,,,7"]}, {"command": "AT*BAND={rest}"}'
expect 0 $'78\n147\n482\n134742231' nw band
sim record '{"clear": true}' >/dev/null
expect 0 '{"band":[78,147,482,134742231]}' --json nw band 1 2 3 4294967295 5
sent 'AT*BAND?' 'AT*BAND=15,1,2,3,4294967295,,,,5' 'AT*BAND?'
expect 0 'Preferred mode: 1' nw mode
expect 0 '{"mode":2}' --json nw mode 2
sent 'AT*BAND?' 'AT*BAND?' 'AT*BAND=5'
answer '{"command": "AT*BAND={rest}", "final": "ERROR"}'
expect 1 '' nw band 1 2 3 4 5
expect 1 '' nw mode 3
answer '{"command": "AT*BAND?", "final": "ERROR"}'
expect 1 '' nw band
expect 1 '' nw mode

answer '{"command": "AT*CELL={rest}"}, {"command": "AT*REJCAUSE={on}"}, {"command": "AT*POWERIND={n}"}'
sim record '{"clear": true}' >/dev/null
expect 0 '' nw lock 3 1300 22
expect 0 '' nw unlock
expect 0 '' nw rejects on
expect 0 '' nw rejects off
expect 0 '' nw powerind 1
expect 0 '' nw powerind 0
sent 'AT*CELL=2,3,,1300,22' 'AT*CELL=0,0,0,0,0' 'AT*REJCAUSE=1' 'AT*REJCAUSE=0' 'AT*POWERIND=31' 'AT*POWERIND=0'
expect 0 '{"rejects":[]}' --json nw rejects
answer '{"command": "AT*REJCAUSE=2", "lines": ["*REJCAUSE: 1,2,3", "*REJCAUSE: 4,5,6"]}'
expect 0 $'1 2 3\n4 5 6' nw rejects
expect 0 '{"rejects":[[1,2,3],[4,5,6]]}' --json nw rejects
answer '{"command": "AT*CELL={rest}", "final": "ERROR"}, {"command": "AT*REJCAUSE={on}", "final": "ERROR"}'
for arguments in 'lock 3 1300 22' unlock 'rejects on' rejects; do
  # shellcheck disable=SC2086 # several words
  expect 1 '' nw $arguments
done
answer '{"command": "AT+CIREG?", "lines": ["+CIREG: 0,1"]}'
expect 0 'VoLTE: registered' nw volte
answer '{"command": "AT+CIREG?", "lines": ["+CIREG: 0,0"]}'
expect 0 '{"volte":"not registered"}' --json nw volte
answer '{"command": "AT+CIREG?", "final": "ERROR"}'
expect 1 '' nw volte

sim record '{"clear": true}' >/dev/null
expect 0 '' pm reboot
[ "$(sim record '{"kind": "program"}' | grep -c '"text": "reboot"')" = 1 ] || { echo 'pm reboot' && failed=1; }
power() { # FILE TEXT: what the kernel's file reads as
  local got
  got=$(sim --print "/services/power/$1" state)
  [ "$got" = "$2" ] || { echo "$1: $got, not $2" && failed=1; }
}
expect 0 'Automatic sleep: on' pm autosleep on
power autosleep mem
expect 0 '{"autosleep":"off"}' --json pm autosleep off
power autosleep off
expect 0 '{"locks":[]}' --json pm locks
expect 0 'Locked: two' pm lock two
expect 0 '{"locked":"one","timeout_ms":100000}' --json pm lock one 100000
expect 0 $'Locked: one\nTime-out: 100000 ms' pm lock one 100000
sim record '{"kind": "wake_lock"}' | grep -q '"one 100000000000"' || { echo 'pm lock one 100000' && failed=1; }
expect 0 $'one\ntwo' pm locks
expect 0 '{"locks":["one","two"]}' --json pm locks
expect 0 'Unlocked: one' pm unlock one
expect 0 '{"unlocked":"two"}' --json pm unlock two
power wake_lock ''
for arguments in 'lock a\ b' 'unlock nosuch'; do
  eval "expect 1 '' pm $arguments"
done
expect 0 'Locked: one' pm lock one
sim fault '{"service": "power", "full": true}' >/dev/null
for arguments in 'autosleep on' 'lock two' 'unlock one'; do
  # shellcheck disable=SC2086 # several words
  expect 1 '' pm $arguments
done
sim clear >/dev/null

# On a terminal each table has the screen to itself. Last, since it goes on asking for a while.
answer "$nothing"
bytes=48
[ "$(watched script -qc "'$build/tavrikctl' nw signal --watch 2>/dev/null" /dev/null </dev/null)" = \
  $'^[H^[JTechnology: none \n^[H^[JTechnology: none ' ] || { echo 'nw signal --watch on a terminal' && failed=1; }
