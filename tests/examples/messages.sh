#!/bin/sh
# The example joins a message whose second part came first, and answers it in two ways without waiting.
#   messages.sh PROGRAM [ARGUMENT]...
printed=$("$@")
[ "$(echo "$printed" | head -n 3)" = 'Message 2 of 2 from +49301
Message 1 of 2 from +49301
From +49301: Schade, Sie waren nicht da. Die Lieferung kommt später, um zehn nach acht, und kostet 12 €. Bitte das Tor offen lassen 😀' ]
[ "$(echo "$printed" | tail -n +4 | sort | xargs)" = 'PDU: result 0 Text: result 0' ]
sent=$(tavrik-sim call record '{"kind": "sms"}')
echo "$sent" | grep -q '"text": "sms.send .*+49301.*00440061006E006B0065002C002000620069007300200073007000E400740065007'
echo "$sent" | grep -q '"text": "sms.send_pdu '
