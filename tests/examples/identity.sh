#!/bin/sh
# The example prints what this module is, and asks for it by both ways.
#   identity.sh PROGRAM [ARGUMENT]...
[ "$("$@")" = 'Manufacturer: Maker
Model:        M1
Revision:     R1.2
IMEI:         353490069873319
Phone mode:   online
Phone mode:   radio off
Phone mode:   online' ]
[ "$(tavrik-sim call record '{"kind": "at"}' | grep '"text"')" = '      "text": "AT+PALDEXATI"' ]
[ "$(tavrik-sim call record '{"kind": "ril"}' | sed -n 's/.*"id": \([0-9]*\).*/\1/p' | tr '\n' ' ')" = "38 537 538 537 538 537 " ]
