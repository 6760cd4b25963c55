#!/usr/bin/env bash
# Internet connection sharing: an internal host reaches hosts beyond the shared adapter over
# TCP and UDP and they only see the shared adapter's address; traffic to the private ranges
# (10/8, 172.16/12, 192.168/16) is left alone, except name look-ups and the proxy.
source "$(dirname "$0")/lib.sh"
require_namespaces
nat_topology

# "Left alone" must be visible, not merely "did not arrive": the daemon's namespace forwards,
# and the external side routes the internal network back through it. A frame the daemon
# passes on untranslated then arrives with the internal host's own address, while a
# translated one shows the shared address; a daemon that forgot to translate would be caught
# too, as its traffic would arrive with 10.1.0.2.
in_ns nd sysctl -qw net.ipv4.ip_forward=1
in_ns ext ip route add 10.1.0.0/24 via 198.51.100.1
public=(203.0.113.10 172.15.0.10 172.32.0.10)
private=(192.168.77.10 10.99.0.10 172.16.0.10 172.31.255.10)
for address in "${public[@]:1}" "${private[@]}" 192.168.77.53 192.168.77.80; do  # 203.0.113.10 is there
  in_ns ext ip addr add "$address/32" dev lo
done

mkdir -p "$WORK/www"
echo "external page" > "$WORK/www/page.html"
head -c 3000000 /dev/urandom > "$WORK/www/big.bin"
serve_http ext 0.0.0.0 8000 "$WORK/www"
serve_http ext 192.168.77.80 3128 "$WORK/www"

# udp_service ADDRESS PORT dns|echo: a resolver answering every A query with 203.0.113.10, or
# an echo; each logs its clients to $WORK/udp_ADDRESS_PORT.log.
cat > "$WORK/udp_service.py" <<'PY'
import socket, struct, sys
address, port, mode, log = sys.argv[1], int(sys.argv[2]), sys.argv[3], open(sys.argv[4], "a", buffering=1)
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind((address, port))
log.write("ready\n")
while True:
    data, peer = s.recvfrom(2048)
    log.write("client=%s:%d\n" % peer)
    if mode == "echo":
        s.sendto(b"echo:" + data, peer)
        continue
    end = 12
    while end < len(data) and data[end] != 0:
        end += data[end] + 1
    question = data[12:end + 5]
    answer = b"\xc0\x0c" + struct.pack(">HHIH", 1, 1, 60, 4) + socket.inet_aton("203.0.113.10")
    s.sendto(data[:2] + struct.pack(">HHHHH", 0x8180, 1, 1, 0, 0) + question + answer, peer)
PY
udp_service() {
  local log=$WORK/udp_$1_$2.log
  bg ip netns exec "ext$TAG" python3 "$WORK/udp_service.py" "$1" "$2" "$3" "$log"
  wait_for 10 grep -q ready "$log" || { echo "UDP service $1:$2 did not start"; return 1; }
}
udp_service 198.51.100.2 5353 echo
udp_service 192.168.77.53 5353 echo
udp_service 192.168.77.53 53 dns
udp_clients() { grep -o 'client=[0-9.]*' "$WORK/udp_$1_$2.log" | sort -u | tr '\n' ' '; }

MAC_EXT0=$(in_ns ext cat /sys/class/net/ext0/address)
cat > "$WORK/ics.json" <<JSON
{"steps": [
  {"send": "StartICS", "sharedAdapter": "nd-ext", "internalAdapters": ["nd-int"],
   "proxy": {"ip": "192.168.77.80", "port": 3128, "mac": "$MAC_EXT0"},
   "tcpPortPoolSize": 20, "udpPortPoolSize": 10, "timeout": 30, "expect": {"result": 1}}
]}
JSON
start_daemon "$WORK/ics.json"
wait_for 10 log_has "ICS: drivers successfully registered" || { cat "$WORK/peer.log"; exit 1; }
check "ICS started" grep -q "result 1" "$WORK/peer.log"
check "the engine is the sharing one" log_has "ICS process successfully initialized"

page() { in_ns in curl -sS --max-time 10 "http://$1/page.html"; }
seen_by_web() { grep -q "client=$2 host=$1 " "$WORK/http_ext.log" && ! grep "host=$1 " "$WORK/http_ext.log" | grep -vq "client=$2 "; }

for address in "${public[@]}"; do
  check "a page from $address" test "$(page "$address:8000")" = "external page"
  check "$address saw only the shared address" seen_by_web "$address:8000" 198.51.100.1
done
in_ns in curl -sS --max-time 60 -o "$WORK/big.fetched" http://203.0.113.10:8000/big.bin
check "a 3 MB transfer arrives intact" test "$(sha256sum < "$WORK/www/big.bin")" = "$(sha256sum < "$WORK/big.fetched")"
for address in "${private[@]}"; do
  check "a page from private $address" test "$(page "$address:8000")" = "external page"
  check "private $address saw the internal host itself: not translated" seen_by_web "$address:8000" 10.1.0.2
done
check "a page through the proxy on a private address" test "$(page 192.168.77.80:3128)" = "external page"
check "the proxy saw only the shared address" seen_by_web 192.168.77.80:3128 198.51.100.1
check "the same private host on another port is not translated" \
  test "$(page 192.168.77.80:8000)" = "external page"
check "... and saw the internal host" seen_by_web 192.168.77.80:8000 10.1.0.2

check "UDP request and reply to an external host" test "$(udp_ask in 198.51.100.2 5353 hello)" = "echo:hello"
check "the external UDP service saw only the shared address" test "$(udp_clients 198.51.100.2 5353)" = "client=198.51.100.1 "
check "UDP to a private host" test "$(udp_ask in 192.168.77.53 5353 hi)" = "echo:hi"
check "the private UDP service saw the internal host: not translated" \
  test "$(udp_clients 192.168.77.53 5353)" = "client=10.1.0.2 "

check "a name look-up at a private resolver is answered" \
  test "$(in_ns in dig +short +time=3 +tries=1 @192.168.77.53 www.example.test A)" = 203.0.113.10
check "the resolver saw only the shared address" test "$(udp_clients 192.168.77.53 53)" = "client=198.51.100.1 "
echo PASS
