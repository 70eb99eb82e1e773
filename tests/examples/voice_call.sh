#!/bin/sh
# The example answers the call that comes in once it listens, sends its tones, and hangs up.
#   voice_call.sh PROGRAM [ARGUMENT]...
[ "$("$@" '1#x' 2>/dev/null)" = 'Call:  +4930123
Tone:  1
Tone:  #
Event: ended
Cause: 16 Normal call clearing' ]
[ "$(tavrik-sim call --print /state/dtmf state)" = '1#' ]
[ "$(tavrik-sim call record '{"kind": "at"}' | grep '"text"')" = '      "text": "AT+CHLD=19"' ]

# A call that is not answered by the modem.
tavrik-sim call fault '{"service": "ril", "match": 40, "error": 2}' >/dev/null
"$@" 2>/dev/null >/dev/null &
tavrik-sim call wait '{"kind": "connect", "text": "atind", "count": 2}' >/dev/null
tavrik-sim call call '{"number": "22"}' >/dev/null
if wait $!; then exit 1; fi
