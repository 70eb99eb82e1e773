#!/bin/sh
# The example prints the numbers of a card that is ready, and the state of one that is not.
#   sim_card.sh PROGRAM [ARGUMENT]...
[ "$("$@")" = 'SIM card: ready
ICCID:    89882010000000000014
IMSI:     001010123456789
Number:   +12025550123' ]
tavrik-sim call rules '{"add": [{"command": "AT+CPIN?", "lines": ["+CPIN: SIM PIN"]}]}' >/dev/null
if state=$("$@"); then exit 1; fi
[ "$state" = 'SIM card: waits for its PIN' ]
tavrik-sim call reset >/dev/null
tavrik-sim call fault '{"service": "at", "match": "AT+CICCID", "error": 13}' >/dev/null
if errors=$("$@" 2>&1 >/dev/null); then exit 1; fi
echo "$errors" | grep -qx 'CME error 13\.'
