# shellcheck shell=bash disable=SC2034,SC2154
# The access points; sourced by tavrikctl.sh inside a module.
written() { # OPTION VALUE: what the package holds
  [ "$(uci get "wireless.$1")" = "$2" ] || { echo "$1: $(uci get "wireless.$1"), not $2" && failed=1; }
}
restarts() { # COUNT: since the last look
  [ "$(sim record '{"kind": "program", "clear": true}' | grep -c '"mwlan restart"')" = "$1" ] || { echo "not $1 restarts" && failed=1; }
}

expect 0 'Band: 2.4
SSID: Tavrik
Enabled: first
Network mode: 11ng
Bandwidth: 20
Channel: 6
Hidden: off
Isolate: off
Authentication: wpa2' wifi ap show
restarts 0
expect 0 '' wifi ap set --ssid 'Café 7'
written AP0_2G_if.ssid 'Café 7'
restarts 1

# All at once: the bandwidth goes by the new mode. What is given for a band stays in it.
before=$(uci show wireless | grep 2G)
uci set wireless.AP0_5G.hwmode=11ac
expect 0 '' wifi ap set --band 5 --bandwidth 80 --netmode 11na --channel 149 --hidden on --isolate on --max 8 \
  --enable both --auth mixed-aes --key ' pass phrase ' --ssid five
expect 0 '{"band":"5","ssid":"five","enable":"both","netmode":"11na","bandwidth":"80","channel":149,"hidden":"on","isolate":"on","auth":"mixed-aes"}' \
  --json wifi ap show --band 5
written AP0_5G_if.key1 ' pass phrase '
written AP0_5G_if.maxassoc 8
[ "$(uci show wireless | grep 2G)" = "$before" ] || { echo 'the other band changed' && failed=1; }
restarts 9
expect 0 '' wifi ap set --auth open
written AP0_2G_if.encryption none
restarts 1

expect 1 '' wifi ap set --channel 14
errors_match 'tavrikctl: wifi ap set: --channel: refused, or the service does not restart\|$'
expect 1 '' wifi ap set --ssid 'more than 32 bytes make no network' --channel 1
written AP0_2G.channel 6
for arguments in set 'show --ssid x' 'set --key 12345678' 'set --auth wpa2' 'set --auth open --key 12345678'; do
  # shellcheck disable=SC2086 # several words
  expect 2 '' wifi ap $arguments
done
restarts 0
sim fault '{"service": "mwlan", "exit": 3}' >/dev/null
expect 1 '' wifi ap set --ssid written
written AP0_2G_if.ssid written
sim uci '{"package": "wireless", "text": "\nconfig wifi-device AP0_2G\n\toption channel auto\n"}' >/dev/null
expect 0 '{"band":"2.4","enable":"first","channel":0}' --json wifi ap show
sim uci '{"package": "wireless"}' >/dev/null
expect 1 '' wifi ap show
