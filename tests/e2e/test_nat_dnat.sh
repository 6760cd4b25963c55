#!/usr/bin/env bash
# Published ports: external clients reach an internal web server and UDP service through
# the daemon's external address, with and without source translation, with HTTP Host
# rewriting, and a source range that keeps other clients out.
source "$(dirname "$0")/lib.sh"
require_namespaces
nat_topology

mkdir -p "$WORK/www"
echo "internal page" > "$WORK/www/index.html"
head -c 4000000 /dev/urandom > "$WORK/www/big.bin"
serve_http in 10.1.0.2 80 "$WORK/www"
udp_echo in 10.1.0.2 5353

rule() {  # rule FROM_PORT PROTOCOL TO_PORT TRANSLATE_SOURCE HTTP_HOST [RANGES]
  echo "{\"fromAdapter\": \"nd-ext\", \"fromPort\": $1, \"protocol\": \"$2\", \"toAdapter\": \"nd-int\",
         \"toIp\": \"10.1.0.2\", \"toPort\": $3, \"translateSource\": $4, \"httpHostTranslation\": $5
         ${6:+, \"fromIpRanges\": $6}}"
}
cat > "$WORK/dnat.json" <<JSON
{"steps": [
  {"send": "StartNAT", "tcpPortPoolSize": 20, "udpPortPoolSize": 10, "timeout": 30, "expect": {"result": 1},
   "rules": [ $(rule 8080 TCP 80 false true), $(rule 8081 TCP 80 true false), $(rule 5353 UDP 5353 false false),
              $(rule 8082 TCP 80 false false '[{"low": "198.51.100.100", "high": "198.51.100.120"}]') ]}
]}
JSON
start_daemon "$WORK/dnat.json"
wait_for 10 log_has "NAT: drivers successfully registered" || { cat "$WORK/peer.log"; exit 1; }

check "published TCP port reaches the internal web server" \
  test "$(in_ns ext curl -sS --max-time 10 http://198.51.100.1:8080/index.html)" = "internal page"
check "without source translation the server sees the real client, and the Host was rewritten" \
  grep -q "client=198.51.100.2 host=10.1.0.2 path=/index.html" "$WORK/http_in.log"
check "with source translation" \
  test "$(in_ns ext curl -sS --max-time 10 http://198.51.100.1:8081/index.html)" = "internal page"
check "the server sees the daemon's internal address and the Host as sent" \
  grep -q "client=10.1.0.1 host=198.51.100.1:8081 path=/index.html" "$WORK/http_in.log"
intact() { test "$(sha256sum < "$WORK/www/big.bin")" = "$(sha256sum < "$WORK/$1")"; }
in_ns ext curl -sS --max-time 60 -o "$WORK/dnat.bin" http://198.51.100.1:8081/big.bin
check "a 4 MB download through the published port with source translation arrives intact" intact dnat.bin
in_ns ext curl -sS --max-time 60 -o "$WORK/http.bin" http://198.51.100.1:8080/big.bin
check "... and through the one with Host rewriting" intact http.bin
check "published UDP port" test "$(udp_ask ext 198.51.100.1 5353 ping)" = "echo:ping"
check "the UDP service saw the real client" grep -q "client=198.51.100.2:" "$WORK/udp_in.log"
check "a source outside the rule's range is refused" \
  bash -c "! ip netns exec ext$TAG curl -s --max-time 4 http://198.51.100.1:8082/index.html"
check "the daemon is still serving after all that" \
  test "$(in_ns ext curl -sS --max-time 10 http://198.51.100.1:8080/index.html)" = "internal page"
echo PASS
