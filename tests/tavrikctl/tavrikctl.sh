#!/bin/bash
# shellcheck disable=SC2317 # called by the parts
# What tavrikctl prints and how it ends, outside of a module and inside a simulated one.
#   tavrikctl.sh BUILD-FOLDER
set -u
build=$1 place=${2:-outside} failed=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
errors=$work/errors printed=$work/printed output=$work/printed
: >"$errors"

is() { # WHAT WANTED GOT
  [ "$2" = "$3" ] && return
  echo "$1:" && diff <(echo "$2") <(echo "$3")
  cat "$errors"
  failed=1
}
# EXIT-CODE STDOUT ARGUMENT... Its errors end with a line that fits the pattern $why; without one, who fails says why.
expect() {
  local what="tavrikctl ${*:3}" why=${why:-}
  is "$what" "${2:+$2$'\n'}= $1" "$("$build/tavrikctl" "${@:3}" 2>"$errors"; echo "= $?")"
  case $1 in 1 | 3) why=${why:-'tavrikctl: [^|]+'} ;; esac
  [[ $(tr '\n' '|' <"$errors") =~ $why\|$ ]] || [ -z "$why" ] || is "errors of $what" "$why" ''
}
each() { # EXIT-CODE ARGUMENTS...: each of them, several words, prints nothing
  for arguments in "${@:2}"; do
    eval "expect $1 '' $arguments"
  done
}
ask() { "$build/tavrik-sim" call "$@"; }
sim() { ask "$@" >/dev/null || failed=1; }
recorded() { # KIND TEXT...: since the last look
  is "record of $1" "$(printf '%s\n' "${@:2}")" \
    "$(ask record "{\"kind\": \"$1\", \"clear\": true}" | sed -n 's/^ *"text": "\(.*\)"$/\1/p' | sed 's/\\"/"/g')"
}
sent() { recorded at "$@"; }
line() { sim line "{\"text\": \"\\r\\n$1\\r\\n\"}"; }
monitor() { # ARGUMENT...: starts one that listens to indications
  sim record '{"clear": true}'
  "$build/tavrikctl" "$@" >"$output" 2>"$errors" &
  monitor=$! monitored=$*
  sim wait '{"kind": "connect", "text": "atind"}'
}
ended() { # EXIT-CODE STDOUT
  wait $monitor
  is "$monitored" "${2:+$2$'\n'}= $1" "$(status=$?; cat "$printed"; echo "= $status")"
}
part() { # PLACE SIMULATOR-OPTION...: in a module of its own
  "$build/tavrik-sim" run "${@:2}" -- "$0" "$build" "$1" || failed=1
}

case $place in
outside)
  each 2 '' nosuch dm 'dm mode sideways' 'at AT --timeout soon' 'at AT --timeout -1' '--log 4 dm info' 'uim power high' \
    'nw band 1 2 3 4' 'nw band 1 2 3 4 4294967296' 'nw mode 6' 'nw lock 3 0 7' 'pm lock name -1' 'monitor --count 0' \
    'gnss kind 3' 'call state 0' 'data start 16' 'data profile erase 1' 'data profile set 1 --type ipv5' \
    'ecall start --msd 01' 'ecall start --manual --auto --msd 01' 'ecall config --t5 65536' 'ecall config --mode ET' \
    'sms send 1 x --timeout 60001' 'wifi ap show --band 6' 'wifi ap set --auth wep --key 12345678'
  for verb in '' 'dm mode' uim 'nw signal' 'pm lock' 'ecall start' 'upgrade http' 'wifi ap' monitor at 'log test'; do
    # shellcheck disable=SC2086 # several words
    "$build/tavrikctl" $verb --help | grep -q '^Usage: tavrikctl' || is "help of $verb" '' none
  done
  is 'log 0' "$(printf '[sdklog %s:Tavrik_Log_Test:]:log test\n' err warn info debug)" \
    "$("$build/tavrikctl" log test 0 2>/dev/null | sed 's/[0-9]*]/]/')"

  part empty --without at --without bus # no other test of this machine can put them there
  for name in module radio wifi events calls data sms gnss upgrade; do
    part $name
  done
  part drive --scenario "${0%/*}/../../sim/scenarios/drive.json"

  # A call, and a message whose second part came first.
  is conversation '{"event":"call","call":1,"state":"incoming","direction":"incoming","number":"+4930901820"}
{"event":"call","call":1,"state":"ended"}
{"event":"sms","number":"Büro","time":"2024-09-24T14:08:30+02:00","parts":2,"encoding":"UCS-2","text":"Schade, Sie waren nicht da. Die Lieferung kommt später, um zehn nach acht, und kostet 12 €. Bitte lassen Sie das Tor offen 😀"}' \
    "$("$build/tavrik-sim" run --scenario "${0%/*}/../../sim/scenarios/conversation.json" -- "$build/tavrikctl" --json monitor --count 3)"
  ;;
empty)
  why='^tavrikctl: no module here[^|]*' each 1 'dm info' '--json dm mode' 'at AT --expect OK' 'pm reboot' monitor
  ;;
module)
  sim state '{"manufacturer": "Maker", "model": "M \"1\"", "revision": "R1", "imei": "123456789012345"}'
  expect 0 $'Manufacturer: Maker\nModel: M "1"\nRevision: R1\nIMEI: 123456789012345' dm info
  expect 0 '{"manufacturer":"Maker","model":"M \"1\"","revision":"R1","imei":"123456789012345"}' --json dm info
  expect 0 '{"mode":"offline"}' dm mode offline --json
  expect 0 'Phone mode: offline' dm mode
  expect 0 'Phone mode: online' dm mode online
  sim state '{"mode": 4}'
  expect 0 'Phone mode: other' dm mode

  expect 0 $'+ECHO: a, b\nOK' at 'AT+ECHO=a, b'
  expect 0 $'{"response":["+ECHO: \xef\xbf\xbd","OK"]}' --json at $'AT+ECHO=\xff'
  expect 0 $'+ECHO: from stdin\nOK' at - --expect +ECHO: <<<'AT+ECHO=from stdin'
  why='input error\|tavrikctl: at: failed' expect 1 '' at A
  # The library's lines in mode 0 leave what scripts read alone.
  why='^\[sdklog err:Tavrik_AT_Send:[0-9]+\]:response error\|tavrikctl: at: failed' \
    expect 1 '{"response":["ERROR"]}' --log 0 --json at AT+NOSUCH

  # One way fails: what came by the other is printed all the same.
  sim fault '{"service": "ril", "match": "38", "drop": true}'
  expect 1 $'Manufacturer: Maker\nModel: M "1"\nRevision: R1' dm info
  sim reset
  expect 0 '' log test 3
  is 'kernel log' "$(printf '%s:Tavrik_Log_Test:log test\n' err warn info debug)" \
    "$(ask record '{"kind": "kmsg"}' | sed -n 's/.*"text": "\(.*\)".*/\1/p' | sed 's/\[[0-9]*\]\[\(.*\):[0-9]*\]/\1/')"
  ;;
drive) # everything that happens on it, in its order, each once
  drive=$(<"${0%/*}/drive.jsonl")
  monitor --json monitor --count $(($(wc -l <<<"$drive") + 1))
  sim advance '{"ms": 11000}'
  line '+CREG: 0' # what would come twice would come before
  ended 0 "$drive"$'\n{"event":"registration","domain":"CS","state":"not registered"}'
  ;;
*)
  # shellcheck source=/dev/null
  . "${0%/*}/$place.sh"
  ;;
esac
exit $failed
