#!/bin/sh
# The example prints registration and signal, and what the modem reports afterwards, in its order.
#   network.sh PROGRAM [ARGUMENT]...
[ "$("$@" 2)" = 'Registration: roaming
Packets:      attached
Signal:       LTE, -81 dBm
Event:        registration searching
Event:        cell 30729718
Event:        signal -100 dBm
Event:        registration home' ]
tavrik-sim call fault '{"service": "at", "match": "AT+CGATT?", "error": 100}' >/dev/null
if "$@" 1 2>/dev/null; then exit 1; fi
