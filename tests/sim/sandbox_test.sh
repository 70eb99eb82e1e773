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
    [ "$2" = "$3" ] && return
    printf 'FAILED %s\n  wanted: %s\n  got:    %s\n' "$1" "$2" "$3"
    failed=1
}
eventually() { # COMMAND: within twenty seconds
    for _ in $(seq 400); do
        "$@" >/dev/null 2>&1 && return
        sleep 0.05
    done
    return 1
}
ends() { # WANTED TAVRIK-SIM-ARGUMENTS
    local want=$1
    shift
    "$sim" "$@" >"$work/out" 2>&1
    is "status of: $*" "$want" $?
}
# shellcheck disable=SC2317 # called through eventually
gone() { ! kill -0 "$1"; }
# shellcheck disable=SC2317
nothing_left() { [ ! -e "$XDG_RUNTIME_DIR/tavrik-sim" ]; }

# The program's end is ours.
ends 0 run -- true
ends 7 run -- sh -c 'exit 7'
ends 127 run -- "$work/missing"
is "message" "tavrik-sim: $work/missing: No such file or directory" "$(cat "$work/out")"
ends 126 run -- /etc/passwd
ends 2 run
ends 2 run --scenario "$work/missing" -- true
ends 2 run --name a/b -- true
ends 1 call state
ends 0 --version
for sig in SEGV KILL TERM; do
    is "death by $sig" "-$sig" "$("$sim" run -- sh -c "kill -$sig \$\$" 2>/dev/null; echo "-$(kill -l $?)")"
done

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
is "folder, input, environment" "$work word V=1" "$(cd "$work" && echo word | V=1 "$sim" run -- sh -c "pwd; cat; env | grep ^V=" | xargs)"

# The module's paths, whoever the caller is, and what happens to the files of the host.
cat >"$work/paths.sh" <<'END'
set -e
[ "$(id -u)" = 0 ]
for socket in /tmp/atcmdsdk /tmp/atcmdsdkind /var/run/ubus/ubus.sock /var/run/ubus.sock; do [ -S $socket ]; done
[ -p /dev/kmsg ] && echo "kernel text" >/dev/kmsg
echo lock >/sys/power/wake_lock && [ "$(cat /sys/power/wake_lock)" = lock ]
reboot -f
[ "$(ls -A /etc/config | xargs)" = "dhcp network wireless" ] && [ -z "$(ls -A /etc/stat)$(cat /etc/resolv.conf)" ]
uci set network.lan.auto=1 && uci commit && [ "$(uci get network.lan.auto)" = 1 ]
/etc/init.d/mwlan restart
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
for line in kmsg,kernel program,reboot program,mwlan 'ttyS3,RESET' 'ttyGS0,GNRMC'; do
    n=0
    until tavrik-sim call record "{\"kind\": \"${line%,*}\"}" | grep -q "${line#*,}"; do [ $((n += 1)) -lt 100 ]; sleep 0.05; done
done
END
# Without a folder for temporary files: the thread sanitizer would hold one open, and /tmp could not be protected.
for caller in "env" "unshare -U --map-user=1000 --map-group=1000" "unshare -rn" "$sim run --"; do
    # shellcheck disable=SC2086 # several words
    is "paths for: $caller" 0 "$($caller env TMPDIR=/nowhere "$sim" run -- sh -x "$work/paths.sh" 2>"$work/trace"; echo $?)"
    is "file in a folder below /tmp" result "$(cat "$work/result"; rm "$work/result")"
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
ends 2 run --name a -- true
is "message" 'tavrik-sim: a sandbox named "a" is running already' "$(cat "$work/out")"
pids() { "$sim" call "$@" state | grep -A9 '"pid'; }
is "the newest" "$(pids --sim b)" "$(pids)"
is "another by its name" 1 "$([ "$(pids --sim a)" = "$(pids)" ]; echo $?)"
touch "$work/go"
wait

# Nothing outlives it: not what the program left running, and nothing at all when the keeper is killed.
"$sim" run -- sh -c "setsid sleep 600 & echo \$! >$work/left"
is "leftover of the program" 0 "$(eventually gone "$(cat "$work/left")"; echo $?)"
"$sim" run -- sh -c "sleep 600 & echo \$! \$\$ >$work/pids; wait" &
eventually test -s "$work/pids"
module=$("$sim" call state | sed -n 's/.*"\(module\|bus\|pid\)": \([0-9]\+\).*/\2/p')
{ kill -KILL $! && wait $!; } 2>/dev/null
for pid in $(cat "$work/pids") $module; do
    is "process of a killed sandbox" 0 "$(eventually gone "$pid"; echo $?)"
done
is "nothing left" 0 "$(eventually nothing_left; echo $?)"

# Job control in the shell on a terminal. The job has the terminal before it writes, so it is the one that stops.
feed() { eventually grep -q "$1" "$work/tty" && printf '%b' "$2"; }
{
    printf 'sh -c "echo rea""dy; exec sleep 600"\n'
    feed ready '\x1a'
    feed Stopped 'jobs | sed s/^/list:/; kill %1; fg; exit 4\n'
    eventually test -e "$work/done"
} | (SHELL=$(command -v bash) script -qefc "$sim shell" "$work/tty" >/dev/null; echo $? >"$work/done")
is "shell" 4 "$(cat "$work/done")"
is "stopped job" 1 "$(grep -c 'list:.*Stopped.*sleep' "$work/tty")"

# Without user namespaces.
unshare -rU sh -c "echo 0 >/proc/sys/user/max_user_namespaces; exec '$sim' run -- true" 2>"$work/refused"
is "status when refused" 2 $?
is "message when refused" 1 "$(grep -c '^tavrik-sim: user namespaces are refused here' "$work/refused")"
is "lines when refused" 1 "$(wc -l <"$work/refused")"
exit $failed
