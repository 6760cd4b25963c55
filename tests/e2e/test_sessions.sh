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
ns ics; ns ext2; ns lan; ns remote
veth ics0 ics nd-ics nd
veth nd-ext2 nd ext20 ext2
veth lan0 lan nd-lan nd
in_ns ics ip addr add 10.2.0.2/24 dev ics0
in_ns ics ip route add default via 10.2.0.1
in_ns nd ip addr add 10.2.0.1/24 dev nd-ics
in_ns nd ip addr add 192.0.2.1/24 dev nd-ext2
in_ns ext2 ip addr add 192.0.2.2/24 dev ext20
in_ns nd ip addr add 10.9.0.1/24 dev nd-lan
in_ns lan ip addr add 10.9.0.2/24 dev lan0
SUPERVISOR=02:00:00:00:0e:01

mkdir -p "$WORK/www"
echo "page" > "$WORK/www/page.html"
head -c 2000000 /dev/urandom > "$WORK/www/big.bin"
serve_http ext 0.0.0.0 8000 "$WORK/www"
serve_http ext2 192.0.2.2 8000 "$WORK/www"
serve_http lan 10.9.0.2 8000 "$WORK/www"
serve_http in 10.1.0.2 8000 "$WORK/www"

cat > "$WORK/sessions.json" <<JSON
{"steps": [
  {"send": "InitializeConfiguration", "HandleVirtualMachine": false, "expect": {"result": 1}},
  {"send": "StartNAT", "mappings": [{"external": "nd-ext", "internal": "nd-int"}],
   "tcpPortPoolSize": 20, "udpPortPoolSize": 10, "timeout": 30, "expect": {"result": 1}},
  {"send": "StartICS", "sharedAdapter": "nd-ext2", "internalAdapters": ["nd-ics"],
   "tcpPortPoolSize": 20, "udpPortPoolSize": 10, "timeout": 30, "expect": {"result": 1}},
  {"send": "StartVPN", "SupervisorMACAddress": "$SUPERVISOR", "adapters": ["nd-lan"], "expect": {"result": 1}},
  {"waitFile": "$WORK/stop-ics", "within": 100},
  {"send": "StopICS", "expect": {}},
  {"waitFile": "$WORK/stop-nat", "within": 100},
  {"send": "StopNAT", "expect": {}},
  {"waitFile": "$WORK/restart-nat", "within": 100},
  {"send": "StartNAT", "mappings": [{"external": "nd-ext", "internal": "nd-int"}],
   "tcpPortPoolSize": 20, "udpPortPoolSize": 10, "timeout": 30, "expect": {"result": 1}}
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
fetch() {  # fetch NS URL NAME: downloads into $WORK/NAME
  ip netns exec "$1$TAG" curl -sS --max-time 30 -o "$WORK/$3" "$2"
}
intact() { test "$(sha256sum < "$WORK/www/big.bin")" = "$(sha256sum < "$WORK/$1")"; }
nat_works() { test "$(in_ns in curl -sS --max-time 10 http://203.0.113.10:8000/page.html)" = "page"; }
vpn_works() { reaches remote 10.9.0.2; }
host_reaches_all() {
  reaches nd 10.1.0.2 198.51.100.2 &&
    test "$(in_ns nd curl -sS --max-time 10 http://10.1.0.2:8000/page.html)" = "page" &&
    test "$(in_ns nd curl -sS --max-time 10 http://198.51.100.2:8000/page.html)" = "page"
}

# The three sessions at once: one 2 MB download through each, in parallel.
fetch in http://203.0.113.10:8000/big.bin nat.bin & nat_job=$!
fetch ics http://192.0.2.2:8000/big.bin ics.bin & ics_job=$!
fetch remote http://10.9.0.2:8000/big.bin vpn.bin & vpn_job=$!
wait $nat_job && wait $ics_job && wait $vpn_job || true
check "NAT: the internal host's download arrives intact" intact nat.bin
check "ICS: the shared network's download arrives intact" intact ics.bin
check "VPN: the remote host's download across the bridge arrives intact" intact vpn.bin
check "NAT's server saw the daemon's external address" grep -q "client=198.51.100.1 host=203.0.113.10:8000 path=/big.bin" "$WORK/http_ext.log"
check "ICS's server saw the shared adapter's address" grep -q "client=192.0.2.1 host=192.0.2.2:8000 path=/big.bin" "$WORK/http_ext2.log"
check "the LAN server saw the remote host itself" grep -q "client=10.9.0.50 host=10.9.0.2:8000 path=/big.bin" "$WORK/http_lan.log"
check "the daemon host's own traffic passes both NAT adapters while NAT runs" host_reaches_all

# A NAT download (about 2 s at 1 MB/s) is under way while ICS stops.
ip netns exec "in$TAG" curl -sS --max-time 30 --limit-rate 1M -o "$WORK/during.bin" http://203.0.113.10:8000/big.bin &
during=$!
wait_for 5 test -s "$WORK/during.bin"
proceed stop-ics "(StopICS), empty"
wait $during || true
check "a NAT download under way while ICS stopped arrives intact" intact during.bin
check "after StopICS the ICS network no longer gets out" \
  bash -c "! ip netns exec ics$TAG curl -s --max-time 3 http://192.0.2.2:8000/page.html"
check "NAT still translates" nat_works
check "the VPN still bridges" vpn_works
check "the daemon host reaches both sides of the former ICS" reaches nd 10.2.0.2 192.0.2.2

proceed stop-nat "(StopNAT), empty"
check "after StopNAT the internal host no longer gets out" \
  bash -c "! ip netns exec in$TAG curl -s --max-time 3 http://203.0.113.10:8000/page.html"
check "the daemon host pings and fetches from both former NAT sides" host_reaches_all
check "the VPN still bridges" vpn_works

started_twice() { test "$(grep -c '(StartNAT), result' "$WORK/peer.log")" -eq 2; }
touch "$WORK/restart-nat"
wait_for 10 started_twice || true
check "a new StartNAT came up" test "$(grep -c '(StartNAT), result 1 ' "$WORK/peer.log")" -eq 2
check "and translates again" nat_works

kill_daemon nd
daemon_gone() { ! daemon_running nd; }
check "the daemon is gone after SIGKILL" wait_for 10 daemon_gone
check "both NAT interfaces work for the daemon host" host_reaches_all
check "the ICS and VPN interfaces work for the daemon host" reaches nd 10.2.0.2 192.0.2.2 10.9.0.2
echo PASS
