#!/usr/bin/env bash
# NAT on one daemon, IP forwarding off on its host.
# Source translation: an internal host reaches external servers over TCP (on-link) and ICMP
# (behind the gateway), and the external side only ever sees the daemon's external address;
# a UDP client is told that the far port is closed, path-MTU discovery works across a narrower
# link beyond the external side, and many short connections pass through a small pool without
# one failing. (TCP behind the gateway: in the sessions test; UDP: in the lifetime test.)
# Published ports: external clients reach an internal web server with source translation and
# a UDP service without, through the daemon's external address, and a source range keeps
# other clients out. (Without source translation and with HTTP Host rewriting: in the FTP
# test.)
# Privileges: a pipe folder that others may write is refused with one ERROR line and a clean
# exit before any message is read (the other refusals are unit-tested on the pipe client);
# the translating daemon holds just its four capabilities.
source "$(dirname "$0")/lib.sh"
require_namespaces

mkdir -m 1777 "$WORK/open"
pipe=$WORK/open/TessarilNetworkDriverToNative
"$PEER" --pipe-dir "$WORK/open" --request init --connect-timeout 4 > "$WORK/peer.log" 2>&1 &
peer=$!
wait_for 10 test -S "$pipe" -a -S "$WORK/open/TessarilNetworkDriverFromNative" || { cat "$WORK/peer.log"; exit 1; }
NETWORKDRIVER_PIPE_DIR=$WORK/open timeout 20 "$DAEMON" && status=0 || status=$?
wait $peer || true
check "a folder anyone may write is refused: exit 0 and one ERROR line" \
  test "$status $(grep ';ERROR;' "$LOG" | cut -d';' -f2-)" = \
       "0 ERROR;Untrusted pipe $pipe: folder writable by group or others (mode 1777)"
check "nothing was read or answered" eval "! grep -q 'Named Pipes created.' '$LOG' && ! grep -q '^<- ' '$WORK/peer.log'"
rm -f "$LOG"

nat_topology
# Beyond the gateway, a network behind a 1280-byte link. Only the router's side is narrow,
# so the far host still announces a 1460-byte MSS and the internal host sends full-size
# segments until the router's "fragmentation needed" reaches it.
ns far
veth ext-far ext far0 far 192.0.2.1/24 192.0.2.2/24
in_ns ext ip link set ext-far mtu 1280
in_ns ext sysctl -qw net.ipv4.ip_forward=1
in_ns far ip route add default via 192.0.2.1

make_www "page" 4000000
serve_http ext 0.0.0.0 8000 "$WORK/www"
serve_http in 10.1.0.2 80 "$WORK/www"
udp_service in 10.1.0.2 5353
rule() {  # rule FROM_PORT PROTOCOL TO_PORT TRANSLATE_SOURCE [RANGES]
  echo "{\"fromAdapter\": \"nd-ext\", \"fromPort\": $1, \"protocol\": \"$2\", \"toAdapter\": \"nd-int\",
         \"toIp\": \"10.1.0.2\", \"toPort\": $3, \"translateSource\": $4 ${5:+, \"fromIpRanges\": $5}}"
}
range='[{"low": "198.51.100.100", "high": "198.51.100.120"}]'
start_session NAT "$MAP, $(pools 64 10), \"rules\": [$(rule 8081 TCP 80 true), $(rule 5353 UDP 5353 false),
  $(rule 8082 TCP 80 false "$range")]"
# net.ipv4.ping_group_range is closed in a fresh namespace: no ping sockets for anyone.
check "without ping sockets the shortfall of echo identifiers is logged" \
  log_has "NAT: error reserving ICMP identifiers, required: 10 reserved: 0"

# Source translation.
pings() { in_ns "$1" ping -q -i 0.3 -W 2 "${@:2}" > /dev/null; }
check "ping through NAT is answered" pings in -c 3 203.0.113.10
check "ping to the daemon's external address is answered by its host" pings in -c 1 198.51.100.1
# A connected UDP socket: the far host's "port unreachable" turns the read into ECONNREFUSED.
refused=$(in_ns in bash -c 'exec 3<> /dev/udp/198.51.100.2/9; echo ? >&3; read -t 3 <&3' 2>&1 || true)
check "a UDP client sees ECONNREFUSED from a closed external port (${refused##*: })" \
  grep -q "Connection refused" <<< "$refused"

# Through the narrow link: the sink on the far host writes what reaches it.
in_ns far timeout 60 nc -d -l 192.0.2.2 9000 > "$WORK/uploaded.bin" & sink=$!
wait_for 10 eval "in_ns far ss -Hltn | grep -q ':9000 '"
in_ns in timeout 60 nc -N 192.0.2.2 9000 < "$WORK/www/big.bin" || true
wait $sink || true
check "a 4 MB upload across the 1280-byte link arrives intact" cmp -s "$WORK/www/big.bin" "$WORK/uploaded.bin"
check "the internal host learnt the smaller path MTU" eval "in_ns in ip route get 192.0.2.2 | grep -q 'mtu 1280'"

# The pool wraps almost five times; the web server keeps each closed connection in
# TIME_WAIT, so a port reused towards it too early would meet the old connection.
in_ns in curl -s -o /dev/null -w '%{http_code}\n' --max-time 10 \
  "http://198.51.100.2:8000/page.html?[1-300]" > "$WORK/codes" || true
check "300 sequential connections through a 64-port pool all succeed" test "$(grep -c '^200$' "$WORK/codes")" -eq 300
# 60 more, eight at a time.
seq 60 | xargs -P 8 -I{} ip netns exec "in$TAG" curl -s -o /dev/null -w '%{http_code}\n' --max-time 10 \
  "http://198.51.100.2:8000/page.html?{}" > "$WORK/codes"
check "60 parallel connections through the pool all succeed" test "$(grep -c '^200$' "$WORK/codes")" -eq 60
check "the external side saw only the daemon's external address" \
  test "$(grep -o 'client=[0-9.]*' "$WORK/http_ext.log" | sort -u)" = "client=198.51.100.1"

# Published ports.
check "port 8081: a 4 MB download from the internal server arrives intact" fetched ext http://198.51.100.1:8081/big.bin
check "port 8081: with source translation the server saw the daemon's internal address" \
  grep -qF "client=10.1.0.1 host=198.51.100.1:8081 path=/big.bin" "$WORK/http_in.log"
check "published UDP port" test "$(udp_ask ext 198.51.100.1 5353 ping)" = "echo:ping"
check "the UDP service saw the real client" test "$(udp_clients 10.1.0.2 5353)" = "client=198.51.100.2 "
check "a source outside the rule's range is refused" fails page ext http://198.51.100.1:8082/page.html

# CAP_NET_BIND_SERVICE (10), CAP_NET_ADMIN (12), CAP_NET_RAW (13), CAP_BPF (39); one line per distinct thread.
kept=0000008000003400
sets=$(for task in /proc/$(daemon_pids nd)/task/*; do
  awk '$1 ~ /^(Cap(Inh|Prm|Eff|Bnd|Amb)|NoNewPrivs):$/ {printf "%s%s ", $1, $2}' "$task/status"; echo; done | sort -u)
check "every thread holds just the four capabilities and no new privileges ($sets)" test "$sets" = \
  "CapInh:0000000000000000 CapPrm:$kept CapEff:$kept CapBnd:$kept CapAmb:0000000000000000 NoNewPrivs:1 "
echo PASS
