#!/usr/bin/env bash
# Sessions side by side and their ends: NAT, ICS and VPN on different adapters of one
# daemon, all translating or bridging at once; stopping ICS leaves NAT alone; stopping NAT
# gives the daemon host its own traffic on both sides; NAT starts again; SIGKILL leaves
# every interface working.
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

cat > "$WORK/sessions.json" <<JSON
{"steps": [
  {"send": "InitializeConfiguration", "HandleVirtualMachine": false, "expect": {"result": 1}},
  {"send": "StartNAT", $MAP, $(pools 20 10), "expect": {"result": 1}},
  {"send": "StartICS", "sharedAdapter": "nd-ext2", "internalAdapters": ["nd-ics"], $(pools 20 10), "expect": {"result": 1}},
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
   --tap-mac "$SUPERVISOR" --hold -1 > "$WORK/peer.log" 2>&1
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
fetch() { ip netns exec "$1$TAG" curl -sS --max-time 30 -o "$WORK/$3" "$2"; }  # fetch NS URL NAME
intact() { cmp -s "$WORK/www/big.bin" "$WORK/$1"; }
nat_works() { test "$(page in http://203.0.113.10:8000/page.html)" = "page"; }
vpn_works() { reaches remote 10.9.0.2; }
host_reaches_all() {
  reaches nd 10.1.0.2 198.51.100.2 && test "$(page nd http://10.1.0.2:8000/page.html)" = "page" &&
    test "$(page nd http://198.51.100.2:8000/page.html)" = "page"
}

# The three sessions at once: one 2 MB download through each, in parallel.
fetch in http://203.0.113.10:8000/big.bin nat.bin & nat_job=$!
fetch ics http://192.0.2.2:8000/big.bin ics.bin & ics_job=$!
fetch remote http://10.9.0.2:8000/big.bin vpn.bin & vpn_job=$!
wait $nat_job && wait $ics_job && wait $vpn_job || true
for case in "NAT nat ext 198.51.100.1 203.0.113.10" "ICS ics ext2 192.0.2.1 192.0.2.2" "VPN vpn lan 10.9.0.50 10.9.0.2"; do
  read -r name file server client host <<< "$case"
  check "$name: the download arrives intact" intact "$file.bin"
  check "$name: the server saw $client" grep -q "client=$client host=$host:8000 path=/big.bin" "$WORK/http_$server.log"
done
check "the daemon host's own traffic passes both NAT adapters while NAT runs" host_reaches_all

# A NAT download (about 2 s at 1 MB/s) is under way while ICS stops.
ip netns exec "in$TAG" curl -sS --max-time 30 --limit-rate 1M -o "$WORK/during.bin" http://203.0.113.10:8000/big.bin &
during=$!
wait_for 5 test -s "$WORK/during.bin"
proceed stop-ics "(StopICS), empty"
wait $during || true
check "a NAT download under way while ICS stopped arrives intact" intact during.bin
check "after StopICS the ICS network no longer gets out" fails page ics http://192.0.2.2:8000/page.html
check "NAT still translates" nat_works
check "the VPN still bridges" vpn_works
check "the daemon host reaches both sides of the former ICS" reaches nd 10.2.0.2 192.0.2.2

proceed stop-nat "(StopNAT), empty"
check "after StopNAT the internal host no longer gets out" fails nat_works
check "the daemon host pings and fetches from both former NAT sides" host_reaches_all
check "the VPN still bridges" vpn_works

started_twice() { test "$(grep -c '(StartNAT), result' "$WORK/peer.log")" -eq 2; }
touch "$WORK/restart-nat"
wait_for 10 started_twice || true
check "a new StartNAT came up" test "$(grep -c '(StartNAT), result 1 ' "$WORK/peer.log")" -eq 2
check "and translates again" nat_works

kill_daemon nd
check "the daemon is gone after SIGKILL" wait_for 10 fails daemon_running nd
check "every interface works for the daemon host" eval "host_reaches_all && reaches nd 10.2.0.2 192.0.2.2 10.9.0.2"
echo PASS
