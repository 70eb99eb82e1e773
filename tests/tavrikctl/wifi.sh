# shellcheck shell=bash disable=SC2034,SC2154
# The access points; sourced by tavrikctl.sh inside a module.
written() { is "$1" "$2" "$(uci get "wireless.$1")"; } # OPTION VALUE: what the package holds
restarts() { is restarts "$1" "$(ask record '{"kind": "program", "clear": true}' | grep -c '"mwlan restart"')"; } # COUNT

expect 0 $'Band: 2.4\nSSID: Tavrik\nEnabled: first\nNetwork mode: 11ng\nBandwidth: 20\nChannel: 6\nHidden: off
Isolate: off\nAuthentication: wpa2' wifi ap show
restarts 0
# All at once: the bandwidth goes by the new mode. What is given for a band stays in it.
before=$(uci show wireless | grep 2G)
uci set wireless.AP0_5G.hwmode=11ac
expect 0 '' wifi ap set --band 5 --bandwidth 80 --netmode 11na --channel 149 --hidden on --isolate on --max 8 \
  --enable both --auth mixed-aes --key ' pass phrase ' --ssid five
expect 0 '{"band":"5","ssid":"five","enable":"both","netmode":"11na","bandwidth":"80","channel":149,"hidden":"on","isolate":"on","auth":"mixed-aes"}' \
  --json wifi ap show --band 5
written AP0_5G_if.key1 ' pass phrase '
written AP0_5G_if.maxassoc 8
is 'the other band' "$before" "$(uci show wireless | grep 2G)"
restarts 9
expect 0 '' wifi ap set --auth open
written AP0_2G_if.encryption none
restarts 1
why='wifi ap set: --channel: refused, or the service does not restart' expect 1 '' wifi ap set --channel 14
expect 1 '' wifi ap set --ssid 'more than 32 bytes make no network' --channel 1
written AP0_2G.channel 6
each 2 'wifi ap set' 'wifi ap show --ssid x' 'wifi ap set --key 12345678' 'wifi ap set --auth wpa2' \
  'wifi ap set --auth open --key 12345678'
restarts 0
sim fault '{"service": "mwlan", "exit": 3}'
expect 1 '' wifi ap set --ssid 'Café 7'
written AP0_2G_if.ssid 'Café 7'
sim uci '{"package": "wireless", "text": "\nconfig wifi-device AP0_2G\n\toption channel auto\n"}'
expect 0 '{"band":"2.4","enable":"first","channel":0}' --json wifi ap show
sim uci '{"package": "wireless"}'
expect 1 '' wifi ap show
