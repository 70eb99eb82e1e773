# shellcheck shell=bash disable=SC2034,SC2154
# SIM card, network and power; sourced by tavrikctl.sh inside a module. What the modem answers is set for each verb, so
# that what is printed is checked against it alone.
answer() { # COMMAND LINES: with & between, or an error's final one
  local lines="\"lines\": [${2:+\"${2//&/\", \"}\"}]"
  [[ $2 != *ERROR* ]] || lines="\"final\": \"$2\""
  sim rules "{\"add\": [{\"command\": \"$1\", $lines}]}"
}
# COMMAND|ANSWER|ARGUMENTS|STANDARD OUTPUT (lines with ; between), or why it fails
while IFS='|' read -r command reply arguments wanted; do
  [ -z "$command" ] || answer "$command" "$reply"
  # shellcheck disable=SC2086 # several words
  case $arguments:$wanted in
  :) ;;
  *:!*) why="tavrikctl: ${wanted#!}" expect 1 '' $arguments ;;
  *) expect 0 "${wanted//;/$'\n'}" $arguments ;;
  esac
done <<'END'
AT+CPIN?|+CPIN: SIM PIN|uim status|SIM card: PIN required
AT+CPIN?|+CME ERROR: 508|--json uim status|{"status":"PUK blocked"}
AT+CPIN?|+CME ERROR: 10|uim status|SIM card: unknown
AT+CICCID|+ICCID: 89882010000000000014|--json uim iccid|{"iccid":"89882010000000000014"}
AT+CICCID|+CME ERROR: 13|uim iccid|!uim iccid: CME error 13
AT+CICCID|+CME ERROR: SIM failure|uim iccid|!uim iccid: the modem does not tell it
AT+CIMI|001010123456789|uim imsi|IMSI: 001010123456789
AT+CNUM|+CNUM: \"Own\",\"+12025550123\",145|uim number|Own number: +12025550123
AT+CNUM=1,{rest}||--json uim number +49301234|{"number":"+49301234"}
||uim number 12x|!uim number: it cannot be stored
AT+CFUN=5||uim power off|SIM power: off
AT+CFUN=1||--json uim power on|{"power":"on"}
AT+CEREG?|+CEREG: 2,5||
AT+CGATT?|+CGATT: 1||
AT+CREG?|+CREG: 2|--json nw reg|{"registration":"roaming","ps":"attached"}
AT+CREG?|+CREG: 2,0|nw reg|Registration: roaming;Circuit-switched: not registered;Packet-switched: attached
AT*ZCQI?|*ZCQI: 11||
AT+CPSI?|+CPSI: LTE,Online,001-01,0x1,1,22,EUTRAN-BAND3,1300,20,20,25,60,99,18||
AT+CESQ|+CESQ: 99,99,255,255,34,97|--json nw signal|{"technology":"LTE","rsrp":97,"rsrp_dbm":-44,"rsrq":34,"rsrq_db":-3.0,"cqi":11,"sinr":18}
AT+CESQ|+CESQ: 99,99,255,255,255,255|--json nw signal|{"technology":"LTE","cqi":11,"sinr":18}
AT+CESQ|+CESQ: 99,99,255,255,20,0|nw signal|Technology: LTE;RSRP: 0 (below -140 dBm);RSRQ: 20 (-10 dB);CQI: 11;SINR: 18
AT+CPSI?|+CPSI: WCDMA,Online||
AT+CESQ|+CESQ: 99,99,96,49,255,255|--json nw signal|{"technology":"WCDMA","rscp":96,"rscp_dbm":-25}
AT+CPSI?|+CPSI: GSM,Online||
AT+CESQ|+CESQ: 63,0,255,255,255,255|--json nw signal|{"technology":"GSM","rxlev":63,"rxlev_dbm":-48}
AT*BAND?|*BAND: 15,78,147,482,134742231,,,,7|nw band|78;147;482;134742231
AT*BAND={rest}||--json nw band 1 2 3 4294967295 5|{"band":[78,147,482,134742231]}
||nw mode|Preferred mode: 1
||--json nw mode 2|{"mode":2}
AT*CELL={rest}||nw lock 3 1300 22|
||nw unlock|
AT*REJCAUSE={on}||nw rejects on|
||nw rejects off|
AT*REJCAUSE=2|*REJCAUSE: 1,2,3&*REJCAUSE: 4,5,6|nw rejects|1 2 3;4 5 6
||--json nw rejects|{"rejects":[[1,2,3],[4,5,6]]}
AT*POWERIND={n}||nw powerind 1|
AT+CIREG?|+CIREG: 0,1|nw volte|VoLTE: registered
AT+CIREG?|+CIREG: 0,0|--json nw volte|{"volte":"not registered"}
END
is 'what was set' 'AT+CNUM=1,"+49301234",145 AT+CFUN=5 AT+CFUN=1 AT*BAND=15,1,2,3,4294967295,,,,5 AT*BAND=5 AT*CELL=2,3,,1300,22 AT*CELL=0,0,0,0,0 AT*REJCAUSE=1 AT*REJCAUSE=0 AT*REJCAUSE=2 AT*REJCAUSE=2 AT*POWERIND=31' \
  "$(ask record '{"kind": "at"}' | sed -n 's/\\"/"/g; s/^ *"text": "\(.*=[^?]*\)"$/\1/p' | xargs -d '\n')"

# The watch goes on without service. On a terminal each table has the screen to itself.
watched() { # BYTES COMMAND...: the first it prints; what it asks for must not mix with the commands of the next
  exec 3< <(exec timeout 20 "${@:2}" 2>/dev/null)
  local pid=$!
  head -c "$1" <&3 | tr '\033\r' '^ '
  kill $pid
  wait $pid
}
answer AT+CESQ '+CESQ: 32,99,255,255,255,255'
table=$'Technology: GSM\nRXLEV: 32 (-79 dBm)  ##########..........\n'
is watch "$table$table" "$(watched $((2 * ${#table})) "$build/tavrikctl" nw signal --watch)"$'\n'
answer AT+CPSI? '+CPSI: NO SERVICE,Online'
is 'watch on a terminal' $'^[H^[JTechnology: none \n^[H^[JTechnology: none ' \
  "$(watched 48 script -qc "'$build/tavrikctl' nw signal --watch 2>/dev/null" /dev/null </dev/null)"
answer 'AT{rest}' ERROR
each 1 'uim status' 'uim imsi' 'uim number' 'uim power off' 'nw reg' 'nw signal' 'nw band' 'nw band 1 2 3 4 5' 'nw mode' \
  'nw mode 3' 'nw lock 3 1300 22' 'nw unlock' 'nw rejects' 'nw rejects on' 'nw volte' 'nw powerind 1'

sim record '{"clear": true}'
expect 0 '' pm reboot
recorded program reboot
expect 0 'Automatic sleep: on' pm autosleep on
is autosleep mem "$(ask --print /services/power/autosleep state)"
expect 0 '{"locked":"one","timeout_ms":100000}' --json pm lock one 100000
expect 0 'Locked: two' pm lock two
recorded wake_lock 'one 100000000000' two
expect 0 $'one\ntwo' pm locks
expect 0 'Unlocked: one' pm unlock one
expect 0 '{"locks":["two"]}' --json pm locks
each 1 'pm lock a\ b' 'pm unlock nosuch'
sim fault '{"service": "power", "full": true}'
each 1 'pm autosleep off' 'pm lock one' 'pm unlock two'
