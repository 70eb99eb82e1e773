#!/usr/bin/env bash
# The sandbox and its keeper, seen from outside: what the program gets, how its end is passed on, what is left behind.
#   sandbox_test.sh TAVRIK-SIM
set -u
sim=$1
work=$(mktemp -d /tmp/sandbox_test.XXXXXX)
trap 'rm -rf "$work"' EXIT
export XDG_RUNTIME_DIR=$work/run work
mkdir -m 700 "$XDG_RUNTIME_DIR"
unset TAVRIK_SIM
failed=0

is() { # WHAT WANTED GOT
  [ "$2" = "$3" ] || { printf 'FAILED %s\n  wanted: %s\n  got:    %s\n' "$@" && failed=1; }
}
ends() { # STATUS OUTPUT TAVRIK-SIM-ARGUMENTS: the output is a pattern
  "$sim" "${@:3}" >"$work/out" 2>&1
  is "status of ${*:3}" "$1" $?
  # shellcheck disable=SC2053
  [[ $(<"$work/out") == $2 ]] || is "error of ${*:3}" "$2" "$(<"$work/out")"
}
eventually() { timeout 20 sh -c "until $*; do sleep 0.05; done" || is "$*" '' never; }

# The program's end is ours.
ends 0 '' run -- true
ends 7 '' run -- sh -c 'exit 7'
ends 127 "tavrik-sim: $work/missing: No such file or directory" run -- "$work/missing"
ends 126 '*' run -- /etc/passwd
ends 2 '*usage*' run
ends 2 '*a/b*' run --name a/b -- true
ends 1 '*no sandbox*' call state
for sig in SEGV KILL TERM; do
  is "death by $sig" "-$sig" "$("$sim" run -- sh -c "kill -$sig \$\$" 2>/dev/null; echo "-$(kill -l $?)")"
done

# What is refused names its place, in a scenario and in calls.
while IFS='|' read -r text error; do
  echo "${text/FAULT/"{\"calls\": [{\"verb\": \"fault\", \"args\": {\"service\": \"at\","}" >"$work/scenario"
  ends 2 "tavrik-sim: $work/scenario: $error*" run --scenario "$work/scenario" -- true
done <<'END'
[1|\[json.exception.parse_error
{"state": {"imei": "1", "imie": "2"}}|state: unknown field "imie"
{"state": {"mode": 2147483648}}|state: field "mode" is from
{"state": {"echo": 1}}|state: field "echo" is true or false
{"rules": [{"command": "A"}, {"lines": []}]}|rules\[1].command: not a text
{"rules": [{"command": "A={x"}]}|rules\[0].command: "{" without "}" in "A={x"
{"rules": [{"command": "A", "lines": ["{x}"]}]}|rules\[0].lines: unknown field "x"
{"rules": [{"command": "A", "act": {"x": 1}}]}|rules\[0].act: unknown action "x"
{"calls": [{"verb": "verbs", "at": -1}]}|calls\[0]: "at" is a number of seconds
{"calls": [{"verb": "verbs"}, {"verb": "stat"}]}|calls\[1]: unknown verb "stat"; there are
FAULT "match": "*"}}]}|calls\[0]: a fault without effect; "at" knows
FAULT "split": [2, 2]}}]}|calls\[0]: *split
FAULT "drop": true, "count": 0}}]}|calls\[0]: *count
FAULT "burst": 2}}]}|calls\[0]: "at" does not know "burst"; it knows
END

# Signals sent to it reach the program; those that the caller ignores stay ignored.
for sig in INT TERM USR1; do
  # In an asynchronous list SIGINT is ignored from the start, hence env.
  env --default-signal=INT "$sim" run -- sh -c "trap 'exit 9' $sig; touch $work/$sig; while :; do sleep 0.01; done" &
  eventually test -e "$work/$sig"
  kill -$sig $!
  wait $!
  is "forwarded $sig" 9 $?
done
mask=(grep '^Sig[BIC]' /proc/self/status)
is "signal state" "$(trap '' CHLD HUP; "${mask[@]}")" "$(trap '' CHLD HUP; "$sim" run -- "${mask[@]}")"

# Arguments, input, folder and environment are the caller's.
is "arguments" "<><a b><[1,2]><--><--name>" "$("$sim" run -- printf '<%s>' '' 'a b' '[1,2]' -- --name)"
is "folder, input, environment" "$work word V=1" \
  "$(cd "$work" && echo word | V=1 "$sim" run -- sh -c "pwd; cat; env | grep ^V=" | xargs)"

# The module's paths, whoever the caller is, and what happens to the files of the host.
cat >"$work/paths.sh" <<'END'
set -e
[ "$(id -u)" = 0 ]
for socket in /tmp/atcmdsdk /tmp/atcmdsdkind /var/run/ubus/ubus.sock /var/run/ubus.sock; do [ -S $socket ]; done
[ -p /dev/kmsg ] && echo "kernel text" >/dev/kmsg
echo lock >/sys/power/wake_lock && [ "$(cat /sys/power/wake_lock)" = lock ]
reboot -f
/etc/init.d/mwlan restart
[ "$(ls -A /etc/config | xargs)" = "dhcp network wireless" ] && [ -z "$(ls -A /etc/stat)$(cat /etc/resolv.conf)" ]
call() { tavrik-sim call "$@" >/dev/null; }
call context '{"cid": 1, "state": 1}' && [ "$(curl -sS --interface ccinet0 http://192.0.2.1/)" = ccinet0 ]
for folder in etc tmp; do
  call fault "{\"service\": \"$folder\", \"full\": true}"
  if head -c 5000 /dev/zero >/$folder/probe; then exit 3; fi
  call clear
  call fault "{\"service\": \"$folder\", \"read_only\": true}"
  if touch /$folder/probe; then exit 4; fi
  call clear
done
echo '$RESET,1' >/dev/ttyS3
echo '$GNRMC' >/dev/ttyGS0
[ -c /dev/ttyS3 ] && [ -p /sys/class/gpio/export ]
echo saved >/mnt/userdata/saved
script -qec true /dev/null # terminals of its own
touch /etc/config/.temporary && mv /etc/config/.temporary /etc/stat/data_statistics
grep -q ^root: /etc/passwd
touch /tmp/in_sandbox "/run/$(basename "$work")"
echo result >"$work/result"
bash -c 'exec 3<>/dev/tcp/127.0.0.1/9' 2>&1 | grep -q refused
for line in kmsg,kernel program,reboot program,mwlan ttyS3,RESET ttyGS0,GNRMC; do
  call wait "{\"kind\": \"${line%,*}\", \"text\": \"*${line#*,}*\"}"
done
END
# Without a folder for temporary files: the thread sanitizer would hold one open, and /tmp could not be protected.
for caller in "env" "unshare -U --map-user=1000 --map-group=1000" "unshare -rn" "$sim run --"; do
  # shellcheck disable=SC2086 # several words
  is "paths for: $caller" "0 result" "$($caller env TMPDIR=/nowhere "$sim" run -- sh -x "$work/paths.sh" 2>"$work/trace"
    echo $? "$(cat "$work/result" && rm "$work/result")")"
done
[ $failed = 0 ] || cat "$work/trace"
is "files on the host" "" "$(ls -d /tmp/in_sandbox "/run/$(basename "$work")" /etc/config/network 2>/dev/null)"

# Several at a time: each is a module of its own, reached by name; the newest without.
for name in a b; do
  "$sim" run --name $name -- sh -c "touch /tmp/only_$name; ls /tmp | grep -c only_ >$work/$name
    until [ -e $work/go ]; do sleep 0.05; done" &
  eventually test -s "$work/$name"
done
is "what each sees" "1 1" "$(cat "$work/a") $(cat "$work/b")"
ends 2 'tavrik-sim: a sandbox named "a" is running already' run --name a -- true
pids() { "$sim" call "$@" --print /pids state; }
is "the newest" "$(pids --sim b)" "$(pids)"
[ "$(pids --sim a)" != "$(pids)" ] || is "another by its name" a b
touch "$work/go"
wait

# Nothing outlives it: not what the program left running, and nothing at all when the keeper is killed.
"$sim" run -- sh -c "setsid sleep 600 & echo \$! >$work/left"
eventually ! kill -0 "$(cat "$work/left")" '2>/dev/null'
"$sim" run -- sh -c "sleep 600 & echo \$! \$\$ >$work/pids; wait" &
eventually test -s "$work/pids"
module=$("$sim" call state | sed -n 's/.*"\(module\|bus\|pid\)": \([0-9]\+\).*/\2/p')
{ kill -KILL $! && wait $!; } 2>/dev/null
for pid in $(cat "$work/pids") $module; do
  eventually ! kill -0 "$pid" '2>/dev/null'
done
eventually test ! -e "$XDG_RUNTIME_DIR/tavrik-sim"

# Job control in the shell on a terminal. The job has the terminal before it writes, so it is the one that stops.
feed() { eventually grep -qs "$1" "$work/tty" && printf '%b' "$2"; }
{
  printf 'sh -c "echo rea""dy; exec sleep 600"\n'
  feed ready '\x1a'
  feed Stopped 'jobs | sed s/^/list:/; kill %1; fg; exit 4\n'
  eventually test -e "$work/done"
} | (SHELL=$(command -v bash) script -qefc "$sim shell" "$work/tty" >/dev/null; echo $? >"$work/done")
is "shell, stopped job" "4 1" "$(cat "$work/done") $(grep -c 'list:.*Stopped.*sleep' "$work/tty")"

# Without user namespaces.
unshare -rU sh -c "echo 0 >/proc/sys/user/max_user_namespaces; exec '$sim' run -- true" 2>"$work/refused"
is "status and lines when refused" "2 1 1" \
  "$? $(grep -c '^tavrik-sim: user namespaces are refused here' "$work/refused") $(wc -l <"$work/refused")"
exit $failed
