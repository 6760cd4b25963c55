#!/usr/bin/env bash
# ICMP through ICS with forwarding off on the daemon's host, where the system offers ping
# sockets: two pings at once with different identifiers are both answered, and the host's
# own ping at the same time is not disturbed.
source "$(dirname "$0")/lib.sh"
require_namespaces
nat_topology
in_ns nd sysctl -qw net.ipv4.ping_group_range="0 2147483647"

cat > "$WORK/ics.json" <<JSON
{"steps": [
  {"send": "StartICS", "sharedAdapter": "nd-ext", "internalAdapters": ["nd-int"],
   "tcpPortPoolSize": 8, "udpPortPoolSize": 8, "timeout": 30, "expect": {"result": 1}}
]}
JSON
start_daemon "$WORK/ics.json"
wait_for 10 log_has "ICS: drivers successfully registered" || { cat "$WORK/peer.log"; exit 1; }
check "ICS started" grep -q "result 1" "$WORK/peer.log"
check "echo identifiers are held by ping sockets" bash -c "! grep -q 'error reserving ICMP identifiers' '$LOG'"

in_ns in ping -q -c 5 -i 0.2 -W 2 -e 1111 203.0.113.10 > "$WORK/ping1" 2>&1 &
p1=$!
in_ns in ping -q -c 5 -i 0.2 -W 2 -e 2222 203.0.113.10 > "$WORK/ping2" 2>&1 &
p2=$!
in_ns nd ping -q -c 5 -i 0.2 -W 2 203.0.113.10 > "$WORK/ping_host" 2>&1 &
p3=$!
wait $p1 && ok1=1 || ok1=0
wait $p2 && ok2=1 || ok2=0
wait $p3 && ok3=1 || ok3=0
check "ping with identifier 1111 is answered" test "$ok1" = 1
check "ping with identifier 2222 at the same time is answered" test "$ok2" = 1
check "every echo of both came back" bash -c "grep -q '5 received' '$WORK/ping1' && grep -q '5 received' '$WORK/ping2'"
check "the host's own ping meanwhile is answered in full" grep -q '5 received' "$WORK/ping_host"
check "nothing crosses without translation (forwarding is off)" test "$(in_ns nd sysctl -n net.ipv4.ip_forward)" = 0
echo PASS
