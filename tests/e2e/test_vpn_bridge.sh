#!/usr/bin/env bash
# A remote host behind the native side reaches a LAN host through the VPN bridge.
#   lan: lan0 10.9.0.2  ==veth==  gw: gw0 10.9.0.1 (opened by the daemon's VPN)
#   remote: ndtap 10.9.0.50, the tap that ndpeer bridges to the pipe (supervisor MAC)
# ndpeer captures the tunnel (--pcap); tcpdump reads the capture afterwards.
source "$(dirname "$0")/lib.sh"
require_namespaces

ns lan gw remote
veth lan0 lan gw0 gw 10.9.0.2/24 10.9.0.1/24
SUPERVISOR=02:00:00:00:0e:01

cat > "$WORK/vpn.json" <<JSON
{"steps": [
  {"send": "InitializeConfiguration", "HandleVirtualMachine": false, "expect": {"result": 1}},
  {"send": "StartVPN", "SupervisorMACAddress": "$SUPERVISOR", "VpnPromiscuousMode": false,
   "adapters": ["gw0"], "expect": {"result": 1}}
]}
JSON
bg in_ns gw "$PEER" --daemon "$DAEMON" --scenario "$WORK/vpn.json" --tap ndtap --tap-netns "remote$TAG" \
   --tap-mac "$SUPERVISOR" --hold -1 --pcap "$WORK/tunnel.pcap" > "$WORK/peer.log" 2>&1
peer=$!
wait_for 10 in_ns remote ip link show ndtap || { cat "$WORK/peer.log"; exit 1; }
in_ns remote ip addr add 10.9.0.50/24 dev ndtap
wait_for 10 log_has "Virtual Ethernet adapter (GUID: {00307767-0000-0000-0000-000000000000}) opened."
check "VPN started" grep -q "result 1" "$WORK/peer.log"

check "remote pings the LAN host through the bridge" in_ns remote ping -q -c 3 -W 2 10.9.0.2
check "the LAN host pings the remote back" in_ns lan ping -q -c 3 -W 2 10.9.0.50
check "broadcast ARP crossed: the remote learnt the LAN host's MAC" \
  bash -c "ip netns exec remote$TAG ip neigh show 10.9.0.2 | grep -q lladdr"

# The daemon host's own traffic on the opened adapter is passed on, super-frames included.
make_www "page"
serve_http gw 10.9.0.1 8081 "$WORK/www"
check "a 3 MB download from the daemon host itself, passed on, arrives intact" fetched lan http://10.9.0.1:8081/big.bin

# A frame for the daemon host's own MAC goes up its stack only, never out to the LAN.
in_ns lan tcpdump -i lan0 -n -c 1 icmp and dst host 10.9.0.1 > "$WORK/leak.txt" 2>/dev/null &
dump=$!
sleep 1
check "the daemon host itself answers the remote" in_ns remote ping -q -c 2 -W 2 10.9.0.1
sleep 0.5
kill "$dump" 2>/dev/null || true
check "its frames did not reach the LAN wire" test ! -s "$WORK/leak.txt"

# The capture, whole once the peer ended with the daemon, holds both directions of the pings
# between the remote and the LAN host: three requests and three replies each way.
kill_daemon gw
check "the peer ended when the daemon went" wait_for 10 _ended "$peer"
echoes() { tcpdump -n -r "$WORK/tunnel.pcap" "icmp[icmptype] == $1 and src $2 and dst $3" 2>/dev/null | wc -l; }
check "the capture reads whole" tcpdump -n -r "$WORK/tunnel.pcap" -w /dev/null
check "3 echo requests and 3 replies each way in the capture" \
  test "$(echoes icmp-echo 10.9.0.50 10.9.0.2) $(echoes icmp-echoreply 10.9.0.2 10.9.0.50) $(echoes icmp-echo \
          10.9.0.2 10.9.0.50) $(echoes icmp-echoreply 10.9.0.50 10.9.0.2)" = "3 3 3 3"
echo "PASS"
