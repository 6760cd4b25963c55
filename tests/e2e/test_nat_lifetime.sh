#!/usr/bin/env bash
# Lifetime of translation state: the first frames to a host the daemon has no MAC for are
# held until its ARP reply and then delivered; a one-port pool refuses a second flow; a flow
# idle past the timeout is refused and its port goes back to the pool. (The sweep of idle
# entries when a new flow finds the pool empty, and the log texts, are unit-tested.)
source "$(dirname "$0")/lib.sh"
require_namespaces
nat_topology

# The daemon host's own kernel never asks for the external hosts: any ARP request from
# 198.51.100.1 on the wire is the daemon's.
ND_EXT_MAC=$(in_ns nd cat /sys/class/net/nd-ext/address)
in_ns nd ip neigh replace 198.51.100.2 lladdr "$(in_ns ext cat /sys/class/net/ext0/address)" dev nd-ext nud permanent

udp_service ext 0.0.0.0 5353
udp_log=$WORK/udp_0.0.0.0_5353.log

# ask SOURCE_PORT WAIT TEXT...: the answers to the texts sent from that port of the internal host.
ask() { UDP_FROM=10.1.0.2:$1 UDP_WAIT=$2 udp_ask in 198.51.100.2 5353 "${@:3}"; }

ip netns exec "ext$TAG" tcpdump -i ext0 -n -e -l --immediate-mode 'arp or (udp and port 5353)' \
  > "$WORK/wire.txt" 2> "$WORK/tcpdump.err" &
_pids+=($!)
wait_for 10 grep -q "listening on" "$WORK/tcpdump.err"

start_session NAT "$MAP, $(pools 10 1 3)"

# 1. Five datagrams sent at once to a host the daemon has never resolved.
ask 40001 5 one two three four five > "$WORK/burst.txt"
# The order is the daemon's as it releases the held frames; the answers may cross on the
# way back (seen now and then on a busy machine), so the answers are compared as a set.
check "all five first datagrams to an unresolved host are answered" \
  test "$(sort "$WORK/burst.txt" | tr '\n' ' ')" = "echo:five echo:four echo:one echo:three echo:two "
check "the server received each of them exactly once, in the order they were sent" \
  test "$(grep -oE ' (one|two|three|four|five)$' "$udp_log" | tr -d ' ' | tr '\n' ' ')" = "one two three four five "
wait_for 5 grep -q "198.51.100.1.[0-9]* > 198.51.100.2.5353" "$WORK/wire.txt" || true
first=$(grep -m1 -E "who-has 198.51.100.2 tell 198.51.100.1|198.51.100.1.[0-9]+ > 198.51.100.2.5353" "$WORK/wire.txt")
check "the daemon sent an ARP request for the host before the first datagram went out" \
  grep -q "$ND_EXT_MAC > ff:ff:ff:ff:ff:ff.*Request who-has" <<< "$first"
PORT=$(sed -n 's/^client=198\.51\.100\.1:\([0-9]*\) one$/\1/p' "$udp_log")

# 2. The one-port pool is taken: a second flow is refused while the first is fresh.
check "a second flow finds no free port" test -z "$(ask 40002 1.5 second)"

# 3. Replies within the timeout arrive; a reply 5 s after the last outbound datagram meets
#    an expired entry and is dropped.
check "an answer 1 s late still arrives" test "$(ask 40001 3 delay=1:soon)" = "echo:delay=1:soon"
check "an answer 5 s late (timeout 3 s) never reaches the client" test -z "$(ask 40001 7 delay=5:late)"
check "the server did send the late answer" grep -q "late answer sent to 198.51.100.1:$PORT after 5 s" "$udp_log"

# 4. The expired entry's port is free again: a new flow gets it at once.
check "a new flow works after the old one expired" test "$(ask 40003 3 third)" = "echo:third"
check "and it left on the same, only, pool port" grep -q "^client=198.51.100.1:$PORT third$" "$udp_log"
echo PASS
