#!/usr/bin/env bash
# Source NAT: an internal host reaches external servers, on-link and behind the gateway,
# over TCP and UDP, and the external side only ever sees the daemon's external address.
source "$(dirname "$0")/lib.sh"
require_namespaces
nat_topology

mkdir -p "$WORK/www"
echo "external page" > "$WORK/www/page.html"
head -c 5000000 /dev/urandom > "$WORK/www/big.bin"
serve_http ext 0.0.0.0 8000 "$WORK/www"
udp_echo ext 0.0.0.0 5353

cat > "$WORK/nat.json" <<JSON
{"steps": [
  {"send": "StartNAT", "mappings": [{"external": "nd-ext", "internal": "nd-int"}],
   "tcpPortPoolSize": 20, "udpPortPoolSize": 10, "timeout": 30, "expect": {"result": 1}}
]}
JSON
start_daemon "$WORK/nat.json"
wait_for 10 log_has "NAT: drivers successfully registered" || { cat "$WORK/peer.log"; exit 1; }
check "NAT started" grep -q "result 1" "$WORK/peer.log"

check "a page from a host behind the gateway" \
  test "$(in_ns in curl -sS --max-time 10 http://203.0.113.10:8000/page.html)" = "external page"
in_ns in curl -sS --max-time 60 -o "$WORK/big.fetched" http://198.51.100.2:8000/big.bin
check "a 5 MB transfer from an on-link host arrives intact" \
  test "$(sha256sum < "$WORK/www/big.bin")" = "$(sha256sum < "$WORK/big.fetched")"
check "UDP request and reply" test "$(udp_ask in 198.51.100.2 5353 hello)" = "echo:hello"

# 60 connections through a pool of 20 ports, eight at a time: closed connections give
# their ports back.
seq 60 | xargs -P 8 -I{} ip netns exec "in$TAG" curl -s -o /dev/null -w '%{http_code}\n' --max-time 10 \
  "http://198.51.100.2:8000/page.html?{}" > "$WORK/codes"
check "60 connections through a 20-port pool all succeed" test "$(grep -c '^200$' "$WORK/codes")" -eq 60

check "the external side saw only the daemon's external address" \
  bash -c "! grep -v 'client=198.51.100.1' '$WORK/http_ext.log' | grep -q client= && grep -q 'client=198.51.100.1' '$WORK/udp_ext.log' && ! grep -qv 'client=198.51.100.1:' '$WORK/udp_ext.log'"
check "nothing crosses without translation (forwarding is off)" \
  test "$(in_ns nd sysctl -n net.ipv4.ip_forward)" = 0
echo PASS
