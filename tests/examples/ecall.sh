#!/bin/sh
# The example tells each step of the test call, and hangs up once the data have arrived.
#   ecall.sh PROGRAM [ARGUMENT]...
[ "$("$@" +49301 2>/dev/null | sed -n 's/^Event: //p' | paste -sd ';')" = \
  'dialling;connected;sending MSD;MSD acknowledged;ended, cause 16' ]
[ "$(tavrik-sim call --print /state/ecall_number state)" = +49301 ]
[ "$(tavrik-sim call --print /state/ecall_msd state)" = 022A01049C5D1B ]

# A call that the modem refuses.
tavrik-sim call fault '{"service": "at", "match": "AT+CECALL=0", "error": 4}' >/dev/null
if "$@" 2>/dev/null >/dev/null; then exit 1; fi
