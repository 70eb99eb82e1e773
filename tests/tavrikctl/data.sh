# shellcheck shell=bash disable=SC2034,SC2154
# Packet data; sourced by tavrikctl.sh inside a module.
monitor --json data watch --count 2
expect 0 '' data profile list
each 1 'data profile get 0' 'data profile delete 0' "data profile set 1 --apn $(printf '%064d' 0)"
each 2 'data profile get' 'data profile list 0'
expect 0 '' data profile set 15 --apn other --type ipv4v6 --auth 2 --user me --password secret
expect 0 '{"profile":15,"type":"ipv4v6","apn":"other","user":"me","password":"secret","auth":2}' --json data profile get 15
each 0 'data profile set 15 --apn other' 'data profile set 0 --apn internet --type ipv4v6'
expect 0 $'Profile: 15\nType: ipv4\nAPN: other\nAuthentication: 0' data profile get 15
expect 0 $'0 ipv4v6 internet\n15 ipv4 other' data profile list
expect 0 '' data profile delete 15
expect 0 '{"profiles":[{"profile":0,"type":"ipv4v6","apn":"internet"}]}' --json data profile list
why='data start: there is no such profile' expect 1 '' data start 1
expect 0 '' data start 0
is page ccinet0 "$(curl --silent --max-time 10 --interface ccinet0 http://192.0.2.1/)"
expect 0 '0 context 1 ccinet0 up 10.64.0.2/24 2001:db8:64:1::2/64' data status
expect 0 '' data stop 0
expect 0 '{"contexts":[]}' --json data status
ended 0 '{"event":"data","cid":1,"profile":0,"state":"up","interface":"ccinet0"}
{"event":"data","cid":1,"profile":0,"state":"down","interface":"ccinet0"}'
sim state '{"attached": false}'
why='data start: the modem does not activate it' expect 1 '' data start 0
