#!/usr/bin/env bash
# Translation cost: TCP throughput and small-packet UDP rate from an internal host to an
# external server, through the kernel's own NAT (nftables masquerade, forwarding on) and
# through the daemon's NAT (forwarding off), on the same topology in the same run. TCP is
# measured with the veths' segmentation offloads off and on (as users run them), UDP with
# them on. Prints each pair with its ratio.
#   bench/nat_throughput.sh [seconds]     (root; uses build/release if present, else build/debug)
set -euo pipefail
SECONDS_PER_RUN=${1:-5}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
export ND_BUILD_DIR=${ND_BUILD_DIR:-$( [ -x "$ROOT/build/release/NetworkDriver" ] && echo "$ROOT/build/release" || echo "$ROOT/build/debug")}
source "$ROOT/tests/e2e/lib.sh"
require_namespaces
command -v iperf3 > /dev/null && command -v nft > /dev/null && command -v ethtool > /dev/null ||
  skip_or_fail "needs iperf3, nft and ethtool"

nat_topology
offloads() {  # offloads on|off: on every veth end of the path
  local mode=$1 end
  for end in "in in0" "nd nd-int" "nd nd-ext" "ext ext0"; do
    set -- $end
    in_ns "$1" ethtool -K "$2" tso "$mode" gso "$mode" gro "$mode" 2> /dev/null
  done
}
SERVER=203.0.113.10   # behind the gateway, as an internet host would be
bg in_ns ext iperf3 -s -B "$SERVER" > /dev/null 2>&1
wait_for 10 in_ns ext bash -c "echo > /dev/tcp/$SERVER/5201"

udp_rate() {  # 64-byte datagrams per second received by the server
  in_ns in iperf3 -c "$SERVER" -u -l 64 -b 0 -t "$SECONDS_PER_RUN" -J |
    python3 -c 'import json,sys; d=json.load(sys.stdin)["end"]["sum"]; print(int(d["packets"]*(1-d["lost_percent"]/100)/d["seconds"]))'
}
tcp_rate() {  # megabits per second received
  in_ns in iperf3 -c "$SERVER" -t "$SECONDS_PER_RUN" -J |
    python3 -c 'import json,sys; print(round(json.load(sys.stdin)["end"]["sum_received"]["bits_per_second"]/1e6))'
}
measure() {  # measure PREFIX: TCP off, TCP on, UDP into PREFIX_tcp_off, PREFIX_tcp_on, PREFIX_udp
  offloads off; eval "$1_tcp_off=$(tcp_rate)"
  offloads on; eval "$1_tcp_on=$(tcp_rate)"
  eval "$1_udp=$(udp_rate)"
}

# The kernel's NAT.
in_ns nd sysctl -qw net.ipv4.ip_forward=1
in_ns nd nft -f - <<'NFT'
table ip ndbench {
  chain post { type nat hook postrouting priority srcnat; oifname "nd-ext" masquerade; }
}
NFT
wait_for 10 in_ns in bash -c "echo > /dev/tcp/$SERVER/5201" || { echo "FAIL: kernel NAT does not pass traffic"; exit 1; }
measure kernel
in_ns nd nft delete table ip ndbench
in_ns nd sysctl -qw net.ipv4.ip_forward=0

# The daemon's NAT.
start_session NAT "$MAP, $(pools 20 20 60)"
wait_for 10 in_ns in bash -c "echo > /dev/tcp/$SERVER/5201" || { echo "FAIL: the daemon's NAT does not pass traffic"; exit 1; }
measure nd

ratio() { python3 -c "print(f'{$1/$2:.3f}')"; }
row() { printf '%-44s %12s %12s %8s\n' "$1" "$2" "$3" "$(ratio "$3" "$2")"; }
echo "binary: $DAEMON"
printf '%-44s %12s %12s %8s\n' "measure (in -> ext, $SECONDS_PER_RUN s each)" "kernel NAT" "daemon NAT" "ratio"
row "TCP, offloads off (Mbit/s)" "$kernel_tcp_off" "$nd_tcp_off"
row "TCP, offloads on (Mbit/s)" "$kernel_tcp_on" "$nd_tcp_on"
row "UDP 64-byte datagrams (pkt/s)" "$kernel_udp" "$nd_udp"
