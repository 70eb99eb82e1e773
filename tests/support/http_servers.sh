# shellcheck shell=sh disable=SC2154
# The servers of http_servers.py beside this file, for a shell inside the simulator; sourced. Their ports become
# variables ($http, $https, ...), and the module trusts their authority.
#   here: the folder of this file
servers=$(mktemp -d)
python3 "$here/http_servers.py" "$servers" >"$servers/ports" 2>/dev/null </dev/null &
until grep -qs '^ready' "$servers/ports"; do sleep 0.05; done
while read -r name port; do
  eval "$name=$port"
done <"$servers/ports"
cp "$servers/ca.pem" /etc/ssl/certs/ca-certificates.crt
unset http_proxy https_proxy HTTPS_PROXY all_proxy ALL_PROXY name port
