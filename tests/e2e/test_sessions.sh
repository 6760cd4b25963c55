#!/usr/bin/env bash
# Sessions side by side and their ends: NAT, ICS and VPN on different adapters of one
# daemon, all translating or bridging at once; stopping ICS leaves NAT alone; stopping NAT
# gives the daemon host its own traffic on both sides; NAT starts again; SIGKILL leaves
# every interface working. On the VPN adapter, the daemon host's own traffic passes and its
# frames stay off the LAN wire; ndpeer's capture of the tunnel holds both directions.
#   NAT:  in (10.1.0.2) -- nd-int | nd-ext -- ext (198.51.100.2, 203.0.113.10 behind it)
#   ICS:  ics (10.2.0.2) -- nd-ics 10.2.0.1 | nd-ext2 192.0.2.1 -- ext2 (192.0.2.2)
#   VPN:  lan (10.9.0.2) -- nd-lan 10.9.0.1, bridged to the tap ndtap 10.9.0.50 in remote
source "$(dirname "$0")/lib.sh"
require_namespaces
nat_topology
ns ics ext2 lan remote
veth ics0 ics nd-ics nd 10.2.0.2/24 10.2.0.1/24
veth nd-ext2 nd ext20 ext2 192.0.2.1/24 192.0.2.2/24
veth lan0 lan nd-lan nd 10.9.0.2/24 10.9.0.1/24
in_ns ics ip route add default via 10.2.0.1
SUPERVISOR=02:00:00:00:0e:01

make_www "page" 2000000
serve_http ext 0.0.0.0 8000 "$WORK/www"
serve_http ext2 192.0.2.2 8000 "$WORK/www"
serve_http lan 10.9.0.2 8000 "$WORK/www"
serve_http in 10.1.0.2 8000 "$WORK/www"
serve_http nd 10.9.0.1 8081 "$WORK/www"

cat > "$WORK/sessions.json" <<JSON
{"steps": [
  {"send": "InitializeConfiguration", "HandleVirtualMachine": false, "expect": {"result": 1}},
  {"send": "StartNAT", $MAP, $(pools 20 10), "expect": {"result": 1}},
  {"send": "StartICS", "sharedAdapter": "nd-ext2", "internalAdapters": ["nd-ics"], $(pools 20 10),
   "expect": {"result": 1}},
  {"send": "StartVPN", "SupervisorMACAddress": "$SUPERVISOR", "adapters": ["nd-lan"], "expect": {"result": 1}},
  {"waitFile": "$WORK/stop-ics", "within": 100},
  {"send": "StopICS", "expect": {}},
  {"waitFile": "$WORK/stop-nat", "within": 100},
  {"send": "StopNAT", "expect": {}},
  {"waitFile": "$WORK/restart-nat", "within": 100},
  {"send": "StartNAT", $MAP, $(pools 20 10), "expect": {"result": 1}}
]}
JSON
bg in_ns nd "$PEER" --daemon "$DAEMON" --scenario "$WORK/sessions.json" --tap ndtap --tap-netns "remote$TAG" \
   --tap-mac "$SUPERVISOR" --hold -1 --pcap "$WORK/tunnel.pcap" > "$WORK/peer.log" 2>&1
peer=$!
wait_for 10 in_ns remote ip link show ndtap || { cat "$WORK/peer.log"; exit 1; }
in_ns remote ip addr add 10.9.0.50/24 dev ndtap
wait_for 10 grep -q "(StartVPN), result" "$WORK/peer.log" || { cat "$WORK/peer.log"; exit 1; }
check "NAT, ICS and VPN all started" \
  test "$(grep -cE '\((InitializeConfiguration|StartNAT|StartICS|StartVPN)\), result 1 ' "$WORK/peer.log")" -eq 4

# proceed STEP TEXT: lets the peer go on past its waitFile step and waits for its answer.
proceed() {
  touch "$WORK/$1"
  wait_for 10 grep -q "$2" "$WORK/peer.log" || { echo "no answer \"$2\""; cat "$WORK/peer.log"; return 1; }
}
nat_works() { test "$(page in http://203.0.113.10:8000/page.html)" = "page"; }
host_reaches_all() {
  reaches nd 10.1.0.2 198.51.100.2 && test "$(page nd http://10.1.0.2:8000/page.html)" = "page" &&
    test "$(page nd http://198.51.100.2:8000/page.html)" = "page"
}

# The three sessions at once: one 2 MB download through each, in parallel.
fetched in http://203.0.113.10:8000/big.bin nat.bin & nat=$!
fetched ics http://192.0.2.2:8000/big.bin ics.bin & ics=$!
fetched remote http://10.9.0.2:8000/big.bin vpn.bin & vpn=$!
for case in "NAT $nat ext 198.51.100.1 203.0.113.10" "ICS $ics ext2 192.0.2.1 192.0.2.2" \
            "VPN $vpn lan 10.9.0.50 10.9.0.2"; do
  read -r name job server client host <<< "$case"
  check "$name: the download arrives intact" wait "$job"
  check "$name: the server saw $client" grep -q "client=$client host=$host:8000 path=/big.bin" "$WORK/http_$server.log"
done
check "the daemon host's own traffic passes both NAT adapters while NAT runs" host_reaches_all
check "VPN: a download from the daemon host itself, passed on, arrives intact" fetched lan http://10.9.0.1:8081/big.bin
check "VPN: pings cross the bridge both ways" \
  eval "in_ns remote ping -q -c 3 -W 2 10.9.0.2 > /dev/null && in_ns lan ping -q -c 3 -W 2 10.9.0.50 > /dev/null"
# A frame for the daemon host's own MAC goes up its stack only, never out to the LAN.
in_ns lan tcpdump -i lan0 -n -c 1 icmp and dst host 10.9.0.1 > "$WORK/leak.txt" 2> /dev/null & dump=$!
sleep 1
check "VPN: the daemon host itself answers the remote" reaches remote 10.9.0.1
sleep 0.5
kill $dump
check "VPN: and its frames did not reach the LAN wire" test ! -s "$WORK/leak.txt"

# A NAT download (about 2 s at 1 MB/s) is under way while ICS stops.
LIMIT=1M fetched in http://203.0.113.10:8000/big.bin during.bin & during=$!
wait_for 5 test -s "$WORK/during.bin"
proceed stop-ics "(StopICS), empty"
check "a NAT download under way while ICS stopped arrives intact" wait $during
check "after StopICS the ICS network no longer gets out" fails page ics http://192.0.2.2:8000/page.html
check "NAT still translates" nat_works
check "the daemon host reaches both sides of the former ICS" reaches nd 10.2.0.2 192.0.2.2

proceed stop-nat "(StopNAT), empty"
check "after StopNAT the internal host no longer gets out" fails nat_works
check "the daemon host pings and fetches from both former NAT sides" host_reaches_all
check "the VPN still bridges" reaches remote 10.9.0.2

touch "$WORK/restart-nat"
check "a new StartNAT came up" wait_for 10 eval "[ \$(grep -c '(StartNAT), result 1 ' '$WORK/peer.log') -eq 2 ]"
check "and translates again" nat_works

kill_daemon nd
check "the daemon is gone after SIGKILL" wait_for 10 fails daemon_running nd
check "every interface works for the daemon host" eval "host_reaches_all && reaches nd 10.2.0.2 192.0.2.2 10.9.0.2"
# The capture, whole once the peer ended with the daemon, holds both directions of the pings
# between the remote and the LAN host: 3 + 1 (the bridge check after StopNAT) one way, 3 back.
echoes() { tcpdump -n -r "$WORK/tunnel.pcap" "icmp[icmptype] == $1 and src $2 and dst $3" 2> /dev/null | wc -l; }
check "the peer ended, and its capture reads whole" \
  eval "wait_for 10 _ended $peer && tcpdump -n -r '$WORK/tunnel.pcap' -w /dev/null"
check "echo requests and replies both ways in the capture" \
  test "$(echoes icmp-echo 10.9.0.50 10.9.0.2) $(echoes icmp-echoreply 10.9.0.2 10.9.0.50) $(echoes icmp-echo \
          10.9.0.2 10.9.0.50) $(echoes icmp-echoreply 10.9.0.50 10.9.0.2)" = "4 4 3 3"
echo PASS
