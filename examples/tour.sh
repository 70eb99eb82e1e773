#!/bin/sh
# A walk through the families: every example in turn, inside one simulated module (scripts/demo runs it there). What
# the world outside does - a cell, a caller, a writer - comes from the simulator.
#   tour.sh FOLDER-OF-EXAMPLES
set -eu
examples=$1

step() { # TITLE PROGRAM [ARGUMENT]...
  title=$1 program=$2
  shift 2
  printf '\n\033[1m%s\033[0m (examples/%s.c)\n' "$title" "$program"
  "$examples/$program" "$@"
}

# The same, and when the record tells what $until says, something happens.
until='{"kind": "connect", "text": "atind"}' # the program listens to the modem
step_with() { # VERB JSON TITLE PROGRAM [ARGUMENT]...
  verb=$1 what=$2
  shift 2
  tavrik-sim call record '{"clear": true}' >/dev/null
  {
    tavrik-sim call wait "$until"
    tavrik-sim call "$verb" "$what"
  } >/dev/null &
  step "$@"
  wait
}

step 'Device management' identity
step 'SIM card' sim_card
step_with state '{"rsrp": 31, "cell": 30868000}' 'Network' network 2
step_with call '{"number": "+4930901820"}' 'Voice calls' voice_call '1#'
step_with message '{"from": "Büro", "reverse": true, "text": "Schade, Sie waren nicht da. Die Lieferung kommt später, um zehn nach acht, und kostet 12 €. Bitte lassen Sie das Tor offen 😀"}' \
  'Messages' messages
step 'eCall' ecall +4930123
until='{"kind": "at", "text": "AT+ZGACT=1,1"}'
step_with context '{"cid": 1, "state": 0}' 'Packet data' packet_data internet 1
step 'WiFi' access_point 'Tavrik demo' 'open sesame' 11
step 'Positions' gnss 3
step 'Firmware upgrade' upgrade "$0" # any file will do: nothing is flashed
