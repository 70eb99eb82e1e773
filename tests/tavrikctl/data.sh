# shellcheck shell=bash disable=SC2034,SC2154
# Packet data; sourced by tavrikctl.sh inside a module.
# shellcheck source=/dev/null
. "${0%/*}/sent.sh"
monitor data watch --count 2
expect 0 '' data profile list
expect 1 '' data profile get 0
expect 1 '' data profile delete 0
expect 2 '' data profile get
expect 2 '' data profile list 0
expect 0 '' data profile set 0 --apn internet --type ipv4v6 --auth 2 --user me --password secret
expect 0 '' data profile set 15 --apn other
expect 0 $'0 ipv4v6 internet\n15 ipv4 other' data profile list
expect 0 '{"profile":0,"type":"ipv4v6","apn":"internet","user":"me","password":"secret","auth":2}' --json data profile get 0
expect 0 '' data profile set 0 --apn internet --type ipv4v6
expect 0 $'Profile: 0\nType: ipv4v6\nAPN: internet\nAuthentication: 0' data profile get 0
expect 0 '' data profile delete 15
expect 0 '{"profiles":[{"profile":0,"type":"ipv4v6","apn":"internet"}]}' --json data profile list
expect 1 '' data profile set 1 --apn "$(printf '%064d' 0)"
sim record '{"clear": true}' >/dev/null
expect 1 '' data start 1
errors_match 'tavrikctl: data start: there is no such profile'
expect 0 '' data start 0
sent 'AT*ZGDCONT=1,"IPV4V6","internet",0' AT+ZGACT=1,1
[ -f /etc/stat/data_statistics ] || { echo 'no statistics' && failed=1; }
[ "$(curl --silent --max-time 10 --interface ccinet0 http://192.0.2.1/)" = ccinet0 ] || { echo 'no page' && failed=1; }
expect 0 '0 context 1 ccinet0 up 10.64.0.2/24 2001:db8:64:1::2/64' data status
expect 0 '' data stop 0
sent AT+CGCONTRDP=? AT+ZGACT=0,1 'AT*ZGDCONT=1'
expect 0 '{"contexts":[]}' --json data status
ended 0 'data: context 1, profile 0, state up, interface ccinet0
data: context 1, profile 0, state down, interface ccinet0
'
sim state '{"attached": false}' >/dev/null
expect 1 '' data start 0
errors_match 'tavrikctl: data start: the modem does not activate it'
sim reset >/dev/null
