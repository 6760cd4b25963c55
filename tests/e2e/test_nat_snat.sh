#!/usr/bin/env bash
# Source NAT with forwarding off on the daemon's host: an internal host reaches external
# servers, on-link and behind the gateway, over TCP, UDP and ICMP, and the external side
# only ever sees the daemon's external address; a UDP client is told that the far port is
# closed, path-MTU discovery works across a narrower link beyond the external side, and
# many short connections pass through a small pool without one failing.
source "$(dirname "$0")/lib.sh"
require_namespaces
nat_topology

# Beyond the gateway, a network behind a 1280-byte link. Only the router's side is narrow,
# so the far host still announces a 1460-byte MSS and the internal host sends full-size
# segments until the router's "fragmentation needed" reaches it.
ns far
veth ext-far ext far0 far 192.0.2.1/24 192.0.2.2/24
in_ns ext ip link set ext-far mtu 1280
in_ns ext sysctl -qw net.ipv4.ip_forward=1
in_ns far ip route add default via 192.0.2.1

make_www "external page" 5000000
serve_http ext 0.0.0.0 8000 "$WORK/www"
udp_service ext 0.0.0.0 5353

# A sink on the far host: reads a whole upload and answers its SHA-256.
cat > "$WORK/sink.py" <<'PY'
import hashlib, socket
s = socket.socket(); s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("0.0.0.0", 9000)); s.listen(4)
while True:
    c, _ = s.accept(); h = hashlib.sha256()
    while True:
        data = c.recv(65536)
        if not data: break
        h.update(data)
    c.sendall(h.hexdigest().encode()); c.close()
PY
bg ip netns exec "far$TAG" python3 "$WORK/sink.py"
wait_for 10 in_ns far bash -c "echo > /dev/tcp/127.0.0.1/9000"

start_session NAT "$MAP, $(pools 64 10)"
# net.ipv4.ping_group_range is closed in a fresh namespace: no ping sockets for anyone.
check "without ping sockets the shortfall of echo identifiers is logged" \
  log_has "NAT: error reserving ICMP identifiers, required: 10 reserved: 0"

check "a page from a host behind the gateway" test "$(page in http://203.0.113.10:8000/page.html)" = "external page"
check "a 5 MB transfer from an on-link host arrives intact" fetched in http://198.51.100.2:8000/big.bin
check "UDP request and reply" test "$(udp_ask in 198.51.100.2 5353 hello)" = "echo:hello"
pings() { in_ns "$1" ping -q -i 0.3 -W 2 "${@:2}" > /dev/null; }
check "ping through NAT is answered" pings in -c 3 203.0.113.10
check "ping to the daemon's external address is answered by its host" pings in -c 1 198.51.100.1
check "the host's own ping still works" pings nd -c 2 203.0.113.10

refused=$(in_ns in python3 -c '
import socket
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.settimeout(3)
s.connect(("198.51.100.2", 9)); s.send(b"anyone?")
try: s.recv(100); print("answered")
except ConnectionRefusedError: print("refused")
except socket.timeout: print("timeout")')
check "a UDP client sees ECONNREFUSED from a closed external port (got: $refused)" test "$refused" = refused

head -c 400000 /dev/urandom > "$WORK/upload.bin"
sent=$(sha256sum < "$WORK/upload.bin" | cut -d' ' -f1)
got=$(in_ns in timeout 60 python3 -c '
import socket, sys
s = socket.create_connection(("192.0.2.2", 9000), timeout=30)
s.sendall(open(sys.argv[1], "rb").read()); s.shutdown(socket.SHUT_WR)
print(s.recv(100).decode())' "$WORK/upload.bin" || true)
check "a 400 kB upload across the 1280-byte link arrives intact" test "$got" = "$sent"
check "the internal host learnt the smaller path MTU" \
  bash -c "ip netns exec in$TAG ip route get 192.0.2.2 | grep -q 'mtu 1280'"

# The pool wraps almost five times; the web server keeps each closed connection in
# TIME_WAIT, so a port reused towards it too early would meet the old connection.
in_ns in curl -s -o /dev/null -w '%{http_code}\n' --max-time 10 \
  "http://198.51.100.2:8000/page.html?[1-300]" > "$WORK/codes" || true
check "300 sequential connections through a 64-port pool all succeed ($(grep -c '^200$' "$WORK/codes") of 300)" \
  test "$(grep -c '^200$' "$WORK/codes")" -eq 300
# 60 more, eight at a time.
seq 60 | xargs -P 8 -I{} ip netns exec "in$TAG" curl -s -o /dev/null -w '%{http_code}\n' --max-time 10 \
  "http://198.51.100.2:8000/page.html?{}" > "$WORK/codes"
check "60 parallel connections through the pool all succeed" test "$(grep -c '^200$' "$WORK/codes")" -eq 60
check "the external side saw only the daemon's external address" \
  test "$(grep -o 'client=[0-9.]*' "$WORK/http_ext.log" | sort -u) $(udp_clients 0.0.0.0 5353)" = "client=198.51.100.1 client=198.51.100.1 "
check "nothing crosses without translation (forwarding is off)" test "$(in_ns nd sysctl -n net.ipv4.ip_forward)" = 0
echo PASS
