#!/usr/bin/env bash
# Published ports: external clients reach an internal web server and UDP service through
# the daemon's external address, with and without source translation, with HTTP Host
# rewriting, and a source range that keeps other clients out.
source "$(dirname "$0")/lib.sh"
require_namespaces
nat_topology
make_www "internal page" 4000000
serve_http in 10.1.0.2 80 "$WORK/www"
udp_service in 10.1.0.2 5353

rule() {  # rule FROM_PORT PROTOCOL TO_PORT TRANSLATE_SOURCE HTTP_HOST [RANGES]
  echo "{\"fromAdapter\": \"nd-ext\", \"fromPort\": $1, \"protocol\": \"$2\", \"toAdapter\": \"nd-int\",
         \"toIp\": \"10.1.0.2\", \"toPort\": $3, \"translateSource\": $4, \"httpHostTranslation\": $5
         ${6:+, \"fromIpRanges\": $6}}"
}
start_session NAT "$(pools 20 10), \"rules\": [$(rule 8080 TCP 80 false true), $(rule 8081 TCP 80 true false),
  $(rule 5353 UDP 5353 false false), $(rule 8082 TCP 80 false false '[{"low": "198.51.100.100", "high": "198.51.100.120"}]')]"

# PORT: what the server saw as client and Host.
for case in "8080:client=198.51.100.2 host=10.1.0.2 " "8081:client=10.1.0.1 host=198.51.100.1:8081 "; do
  port=${case%%:*} seen=${case#*:}
  check "port $port reaches the internal web server" test "$(page ext http://198.51.100.1:$port/page.html)" = "internal page"
  check "port $port: the server saw $seen" grep -qF "${seen}path=/page.html" "$WORK/http_in.log"
  check "port $port: a 4 MB download arrives intact" fetched ext "http://198.51.100.1:$port/big.bin"
done
check "published UDP port" test "$(udp_ask ext 198.51.100.1 5353 ping)" = "echo:ping"
check "the UDP service saw the real client" test "$(udp_clients 10.1.0.2 5353)" = "client=198.51.100.2 "
check "a source outside the rule's range is refused" fails page ext http://198.51.100.1:8082/page.html
check "the daemon is still serving after all that" test "$(page ext http://198.51.100.1:8080/page.html)" = "internal page"
echo PASS
