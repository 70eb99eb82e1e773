#!/bin/sh
# The example opens a network, on a channel that the country allows; what is as it shall be restarts nothing.
#   access_point.sh PROGRAM [ARGUMENT]...
uci set wireless.AP0_2G.disabled=1
uci set wireless.AP0_5G.country=US
uci commit wireless
[ "$("$@" "Tom's van" 'open sesame' 14)" = "Tom's van, channel 11" ]
[ "$(uci get wireless.AP0_2G_if.ssid), $(uci get wireless.AP0_2G_if.key1), $(uci get wireless.AP0_2G.disabled)" = \
  "Tom's van, open sesame, 0" ]
"$@" "Tom's van" 'open sesame' 14
[ "$(tavrik-sim call record '{"kind": "program"}' | grep -c '"mwlan restart"')" = 4 ]
if "$@" "Tom's van" short 14 2>/dev/null; then exit 1; fi
tavrik-sim call fault '{"service": "mwlan", "stop": true}' >/dev/null
if errors=$("$@" other 'open sesame' 14 2>&1 >/dev/null); then exit 1; fi
echo "$errors" | grep -q '^The name is not taken'
