#!/bin/bash
# What tavrikctl prints and how it ends, outside of a module and inside a simulated one.
#   tavrikctl.sh BUILD-FOLDER
set -u
build=$1
place=${2:-outside}
failed=0
errors=$(mktemp)
trap 'rm -f "$errors"' EXIT

expect() { # EXIT-CODE STDOUT ARGUMENT...
  local code=$1 wanted=$2 printed status
  shift 2
  printed=$("$build/tavrikctl" "$@" 2>"$errors")
  status=$?
  if [ $status != "$code" ] || [ "$printed" != "$wanted" ]; then
    echo "tavrikctl $*: $status, not $code" && diff <(echo "$wanted") <(echo "$printed")
    cat "$errors"
    failed=1
  fi
}
errors_match() { # PATTERN: all that went to standard error, on one line
  [[ $(tr '\n' '|' <"$errors") =~ $1 ]] || { echo "standard error is not '$1':" && cat "$errors" && failed=1; }
}
sim() { "$build/tavrik-sim" call "$@"; }

case $place in
outside)
  expect 2 ''
  expect 2 '' nosuch
  expect 2 '' dm
  expect 2 '' dm nosuch
  expect 2 '' dm mode sideways
  expect 2 '' at
  expect 2 '' at AT --timeout soon
  expect 2 '' at AT --timeout -1
  expect 2 '' --log 4 dm info
  expect 2 '' log test
  expect 2 '' uim power
  expect 2 '' uim power high
  expect 2 '' nw band 1 2 3 4
  expect 2 '' nw band 1 2 3 4 4294967296
  expect 2 '' nw mode 6
  expect 2 '' nw lock 3 0 7
  expect 2 '' nw powerind 2
  expect 2 '' pm lock
  expect 2 '' pm lock name -1
  expect 2 '' monitor --count 0
  expect 2 '' gnss kind 3
  expect 2 '' gnss track --count 0
  expect 2 '' call dial
  expect 2 '' call state 0
  expect 2 '' data start 16
  expect 2 '' data profile erase 1
  expect 2 '' data profile set 1 --type ipv5
  expect 2 '' ecall start --msd 01
  expect 2 '' ecall start --manual --auto --msd 01
  expect 2 '' ecall config --t5 65536
  expect 2 '' ecall config --mode ET
  expect 2 '' sms send
  expect 2 '' sms send 1 x --timeout 60001
  expect 2 '' upgrade http
  expect 2 '' wifi ap list
  expect 2 '' wifi ap show --band 6
  expect 2 '' wifi ap set --auth wep --key 12345678
  for verb in 'dm info' 'dm mode' 'uim number' 'nw signal' 'pm lock' 'call watch' 'ecall start' 'gnss track' 'data start' 'upgrade http' 'sms send' 'wifi ap' 'monitor' 'at' 'log test'; do
    # shellcheck disable=SC2086 # two words
    "$build/tavrikctl" $verb --help | grep -q '^Usage: tavrikctl' || { echo "$verb: no help" && failed=1; }
  done
  "$build/tavrikctl" log test 0 2>"$errors" | sed 's/[0-9]*]/]/' | diff - <(printf '[sdklog %s:Tavrik_Log_Test:]:log test\n' err warn info debug) ||
    failed=1
  TAVRIK_LOG_LEVEL=debug expect 0 '' log test 1
  errors_match '^(\[[0-9]+\]\[Tavrik_Log_Test:[0-9]+\]:log test\|){4}$'

  # Where neither is there, and no other test of this machine can put it there.
  "$build/tavrik-sim" run --without at --without bus -- "$0" "$build" empty || failed=1
  "$build/tavrik-sim" run -- "$0" "$build" module || failed=1
  "$build/tavrik-sim" run -- "$0" "$build" radio || failed=1
  "$build/tavrik-sim" run -- "$0" "$build" wifi || failed=1
  "$build/tavrik-sim" run -- "$0" "$build" events || failed=1
  "$build/tavrik-sim" run --scenario "${0%/*}/../../sim/scenarios/drive.json" -- "$0" "$build" drive || failed=1
  "$build/tavrik-sim" run -- "$0" "$build" calls || failed=1
  "$build/tavrik-sim" run -- "$0" "$build" data || failed=1
  "$build/tavrik-sim" run -- "$0" "$build" sms || failed=1
  "$build/tavrik-sim" run -- "$0" "$build" gnss || failed=1
  "$build/tavrik-sim" run -- "$0" "$build" upgrade || failed=1

  # A call, and a message whose second part came first.
  "$build/tavrik-sim" run --scenario "${0%/*}/../../sim/scenarios/conversation.json" -- \
    "$build/tavrikctl" --json monitor --count 3 | diff - /dev/fd/3 3<<'END' || failed=1
{"event":"call","call":1,"state":"incoming","direction":"incoming","number":"+4930901820"}
{"event":"call","call":1,"state":"ended"}
{"event":"sms","number":"Büro","time":"2024-09-24T14:08:30+02:00","parts":2,"encoding":"UCS-2","text":"Schade, Sie waren nicht da. Die Lieferung kommt später, um zehn nach acht, und kostet 12 €. Bitte lassen Sie das Tor offen 😀"}
END

  # Without a module.
  expect 0 'Type: message
From: +49123456789
Time: 2024-09-24T14:08:30Z
Encoding: 7-bit
Text: hellohello
Protocol: 0' sms decode 07919421436587F9040B919421436587F90000429042418003000AE8329BFD4697D9EC37
  expect 0 '{"type":"report","number":"+49123456789","time":"2024-09-24T14:08:30+00:45","message":42,"status":48,"outcome":"still trying","sent":"2024-09-24T14:08:30-01:00"}' \
    --json sms decode 07919471016705F0062A0B919421436587F9429042418003484290424180033030
  expect 0 '{"type":"message","number":"+49172345678","time":"2024-09-24T14:08:30+02:00","parts":2,"encoding":"UCS-2","text":"A","part":1,"reference":42,"class":0,"protocol":0,"destination_port":2948,"source_port":9200}' \
    --json sms decode 07919471016705F0440B919471325476F80018429042418003800E0B05040B8423F000032A02010041
  expect 1 '' sms decode 0791
  errors_match 'tavrikctl: sms decode: not a whole message that can be received\|$'
  exit $failed
  ;;
empty)
  for arguments in 'dm info' '--json dm mode' 'at AT --expect OK' '--log 0 dm mode online' 'pm reboot' 'monitor'; do
    # shellcheck disable=SC2086 # several words
    expect 1 '' $arguments
    errors_match '^tavrikctl: no module here[^|]*\|$'
  done
  exit $failed
  ;;
radio | wifi | events | drive | calls | data | sms | gnss | upgrade)
  # shellcheck source=/dev/null
  case $place in radio | wifi | gnss | upgrade) ;; *) . "${0%/*}/monitor.sh" ;; esac
  # shellcheck source=/dev/null
  . "${0%/*}/$place.sh"
  exit $failed
  ;;
esac

sim state '{"manufacturer": "Maker", "model": "M \"1\"", "revision": "R1", "imei": "123456789012345"}' >/dev/null
expect 0 'Manufacturer: Maker
Model: M "1"
Revision: R1
IMEI: 123456789012345' dm info
expect 0 '{"manufacturer":"Maker","model":"M \"1\"","revision":"R1","imei":"123456789012345"}' --json dm info

expect 0 'Phone mode: online' dm mode
expect 0 'Phone mode: offline' dm mode offline
expect 0 '{"mode":"offline"}' dm mode --json
expect 0 '{"mode":"online"}' dm mode online --json
expect 0 'Phone mode: online' dm mode
sim state '{"mode": 4}' >/dev/null
expect 0 'Phone mode: other' dm mode

expect 0 $'+ECHO: a, b\nOK' at 'AT+ECHO=a, b'
expect 0 '{"response":["+ECHO: \"\"","OK"]}' --json at 'AT+ECHO=""'
expect 0 $'{"response":["+ECHO: \xef\xbf\xbd","OK"]}' --json at $'AT+ECHO=\xff'
expect 0 $'+ECHO: from stdin\nOK' at - < <(echo 'AT+ECHO=from stdin')
expect 0 $'+ECHO: x\nOK' at --expect +ECHO: AT+ECHO=x
expect 1 'ERROR' at AT+NOSUCH
expect 1 '' at A
errors_match 'input error\|tavrikctl: at: failed\|$'

# The library's lines in mode 0 leave what scripts read alone.
expect 1 '{"response":["ERROR"]}' --log 0 --json at AT+NOSUCH
errors_match '^\[sdklog err:Tavrik_AT_Send:[0-9]+\]:response error\|tavrikctl: at: failed\|$'

# One way fails: what came by the other is printed all the same.
sim fault '{"service": "ril", "match": "38", "drop": true}' >/dev/null
expect 1 $'Manufacturer: Maker\nModel: M "1"\nRevision: R1' dm info
sim reset >/dev/null

expect 0 '' log test 3
kernel=$(sim record '{"kind": "kmsg"}' | sed -n 's/.*"text": "\(.*\)".*/\1/p' | sed 's/\[[0-9]*\]\[\(.*\):[0-9]*\]/\1/')
[ "$kernel" = "$(printf '%s:Tavrik_Log_Test:log test\n' err warn info debug)" ] || { echo "kernel log: $kernel" && failed=1; }
exit $failed
