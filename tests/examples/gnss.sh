#!/bin/sh
# The example prints where it is, as soon as the receiver knows, for both kinds of receiver that need no more than that.
#   gnss.sh PROGRAM [ARGUMENT]...
cat >/tmp/track <<'END'
$GNRMC,101500.00,V,,,,,,,211126,,,N,V*1B
$GPGSV,1,1,03,04,10,020,,05,30,090,21,09,70,300,*4C
$GNGGA,101501.00,4807.0382,N,01131.0002,E,1,03,2.1,545.4,M,46.9,M,,*7F
$GNRMC,101501.00,A,4807.0382,N,01131.0002,E,027.0,084.4,211126,,,A,V*36
$GNGGA,101502.00,4807.0391,S,01131.0123,W,1,02,1.9,545.6,M,46.9,M,,*7B
END
tavrik-sim call gnss '{"track": "/tmp/track"}' >/dev/null
for kind in 0 2; do
  [ "$("$@" 2 $kind)" = 'No position yet, 3 satellites in view
10:15:01   48.1173033 N   11.5166700 E  50 km/h  from 3 of 3 satellites
10:15:02   48.1173183 S   11.5168717 W  from 2 of 3 satellites' ]
done
for wrong in 3 1; do # no such kind; no firmware, and no line for its power
  if "$@" 2 $wrong 2>/dev/null; then exit 1; fi
done
