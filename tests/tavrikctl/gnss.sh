# shellcheck shell=bash disable=SC2034,SC2154
# The receiver; sourced by tavrikctl.sh inside a module. Each call is a process of its own.
cat >"$work/track.nmea" <<'END'
$GPRMC,235959.250,A,4807.0382145,N,01131.0001728,W,022.4,084.405,311225,,,A*79
$GPGSA,A,3,05,,,,,,,,,,,,2.5,1.3,2.1*31
$GPGSV,1,1,02,04,,,,05,90,359,46*4E
$GPGGA,000000.250,0000.0006,S,00000.0600,E,1,05,0.9,-0.5,M,46.9,M,,*69
END
play() { sim gnss "{\"track\": \"$1\", \"hz\": 20}"; }

# The built-in one, for as long as it is watched; both moments of the track.
play "$work/track.nmea"
satellites='"satellites":[{"system":"GPS","id":4,"cn0":0,"used":false},{"system":"GPS","id":5,"cn0":46,"used":'
expect 0 '{"event":"position","time":"2025-12-31T23:59:59.250Z","fix":"3D","latitude":48.1173036,"longitude":-11.5166695,"speed":11.524,"course":84.41,"hdop":1.3,"used":1,"in_view":2,'"$satellites"'true}]}
{"event":"position","latitude":-1e-05,"longitude":0.001,"altitude":-0.5,"used":5,"in_view":2,'"$satellites"'false}]}' --json gnss track --count 2
expect 0 'position: time 2025-12-31T23:59:59.250Z, fix 3D, latitude 48.1173036, longitude -11.5166695, speed 11.524 m/s, course 84.41, HDOP 1.30, used 1, in view 2
position: latitude -0.0000100, longitude 0.0010000, altitude -0.500 m, used 5, in view 2' gnss track --count 2 --mode -7
recorded gps 'gnss_init {"gnss_init_param":0}' gnss_deinit 'gnss_init {"gnss_init_param":-7}' gnss_deinit

# What is printed raw is a track.
play drive
"$build/tavrikctl" gnss raw --count 40 >"$work/drive.nmea" || failed=1
play "$work/drive.nmea"
first=$(head -n 1 "$work/drive.nmea")
expect 0 "$(<"$work/drive.nmea")" gnss raw --count 40
expect 0 "{\"sentence\":\"$first\"}" --json gnss raw --count 1
is 'places on the way' 2 "$("$build/tavrikctl" gnss track --count 2 | sed 's/.*\(latitude [^,]*, longitude [^,]*\).*/\1/' | uniq | wc -l)"

# A receiver that was started goes on, until it is stopped; meanwhile no other kind is chosen.
sim record '{"clear": true}'
expect 0 'Kind: 0 (built-in)' gnss kind
expect 0 '' gnss start
"$build/tavrikctl" gnss raw --count 1 | grep -q '^[$]GN' || failed=1 # wherever on its way it is
why='gnss kind: a receiver is started, stop it first' expect 1 '' gnss kind 2
expect 0 '' gnss stop
recorded gps 'gnss_init {"gnss_init_param":0}' 'gnss_init {"gnss_init_param":0}' gnss_deinit
expect 0 '{"kind":1,"gpio":7}' --json gnss kind 1 --gpio 7
expect 0 'Kind: 2 (serial)' gnss kind 2
expect 0 "$first" gnss raw --count 1
play drive
"$build/tavrikctl" gnss track >"$printed" 2>"$errors" & # interrupted, it is stopped too
until [ -s "$printed" ]; do sleep 0.02; done
kill -TERM $!
wait $! || is interrupted 0 $?
recorded hdgnssapp start close start close

# One that a line powers: the loader has its firmware ready.
play "$work/drive.nmea"
expect 0 "$first" gnss raw --kind 1 --gpio 5 --loader "touch $work/loaded" --count 1
[ -e "$work/loaded" ] || is loaded '' no
is power 'gpio5/value 0' "$(ask record '{"kind": "gpio"}' | sed -n 's/^ *"text": "\(gpio5.value .\)"$/\1/p' | tail -n 1)"

# Failures; the kind 1 without a loader and with one that fails.
sim fault '{"service": "hdgnssapp", "status": 9, "nth": 1}'
why='gnss start: the receiver.s service does not start it' expect 1 '' gnss start
sim fault '{"service": "gnss", "silent": true}'
why='gnss track: 3 fewer than wanted' expect 1 '' gnss track --for 0 --count 3
sim fault '{"service": "gnss", "stop": true}'
sim fault '{"service": "gps", "stop": true}'
why='gnss start: the receiver cannot be started' each 1 'gnss start --kind 0' 'gnss start --kind 1' 'gnss start --kind 2'
expect 1 '' gnss start --kind 1 --loader false
sim fault '{"service": "gpio", "stop": true}'
why='gnss start: the receiver cannot be had' expect 1 '' gnss start --kind 1 --loader true
