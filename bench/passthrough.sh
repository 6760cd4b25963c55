#!/usr/bin/env bash
# Pass-through cost of an opened adapter: frames that no session claims go wire -> daemon
# -> stack. Measures small-packet UDP rate and TCP throughput from a LAN host to the daemon
# host, first with the adapter untouched, then with the daemon's VPN holding it open, in the
# same run and topology, and prints both with their ratio. Then floods the opened adapter
# from several senders at once and prints the daemon's peak resident memory and how many
# frames its full queue dropped.
#   bench/passthrough.sh [seconds]     (root; uses build/release if present, else build/debug)
set -euo pipefail
SECONDS_PER_RUN=${1:-5}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
export ND_BUILD_DIR=${ND_BUILD_DIR:-$( [ -x "$ROOT/build/release/NetworkDriver" ] && echo "$ROOT/build/release" || echo "$ROOT/build/debug")}
source "$ROOT/tests/e2e/lib.sh"
require_namespaces

ns lan; ns gw
veth lan0 lan gw0 gw
in_ns lan ip addr add 10.9.0.2/24 dev lan0
in_ns gw ip addr add 10.9.0.1/24 dev gw0
FLOODERS=4
for i in $(seq 0 "$FLOODERS"); do bg in_ns gw iperf3 -s -B 10.9.0.1 -p $((5201 + i)) > /dev/null 2>&1; done
wait_for 10 in_ns lan bash -c "echo > /dev/tcp/10.9.0.1/5201"

udp_rate() {  # packets per second received by the server
  in_ns lan iperf3 -c 10.9.0.1 -u -l 64 -b 0 -t "$SECONDS_PER_RUN" -J |
    python3 -c 'import json,sys; d=json.load(sys.stdin)["end"]["sum"]; print(int(d["packets"]*(1-d["lost_percent"]/100)/d["seconds"]))'
}
tcp_rate() {  # megabits per second received
  in_ns lan iperf3 -c 10.9.0.1 -t "$SECONDS_PER_RUN" -J |
    python3 -c 'import json,sys; print(round(json.load(sys.stdin)["end"]["sum_received"]["bits_per_second"]/1e6))'
}

base_udp=$(udp_rate); base_tcp=$(tcp_rate)

cat > "$WORK/vpn.json" <<JSON
{"steps": [{"send": "StartVPN", "SupervisorMACAddress": "02:00:00:00:0e:01", "adapters": ["gw0"], "expect": {"result": 1}}]}
JSON
bg in_ns gw "$PEER" --daemon "$DAEMON" --scenario "$WORK/vpn.json" --hold -1 > "$WORK/peer.log" 2>&1
wait_for 10 log_has "Virtual Ethernet adapter (GUID: {00307767-0000-0000-0000-000000000000}) opened."
sleep 0.5
nd_udp=$(udp_rate); nd_tcp=$(tcp_rate)

daemon_pid() {
  local pid
  for pid in $(ip netns pids "gw$TAG"); do
    [ "$(readlink "/proc/$pid/exe" 2>/dev/null)" = "$(readlink -f "$DAEMON")" ] && { echo "$pid"; return; }
  done
}
pid=$(daemon_pid)
rss_before=$(awk '/VmHWM/ {print $2}' "/proc/$pid/status")
flooders=()
for i in $(seq 1 "$FLOODERS"); do
  in_ns lan iperf3 -c 10.9.0.1 -p $((5201 + i)) -u -l 1400 -b 0 -t "$SECONDS_PER_RUN" > /dev/null 2>&1 &
  flooders+=($!)
done
wait "${flooders[@]}" || true
rss_peak=$(awk '/VmHWM/ {print $2}' "/proc/$pid/status")
drops=$({ grep -o 'The frame queue is full: [0-9]*' "$LOG" || true; } | awk '{s += $NF} END {print s + 0}')

echo "binary: $DAEMON"
printf '%-34s %14s %14s %8s\n' "measure" "kernel only" "via daemon" "ratio"
printf '%-34s %14s %14s %8s\n' "UDP 64-byte datagrams (pkt/s)" "$base_udp" "$nd_udp" "$(python3 -c "print(f'{$nd_udp/$base_udp:.3f}')")"
printf '%-34s %14s %14s %8s\n' "TCP throughput (Mbit/s)" "$base_tcp" "$nd_tcp" "$(python3 -c "print(f'{$nd_tcp/$base_tcp:.3f}')")"
echo "flood: $FLOODERS UDP senders at full rate for $SECONDS_PER_RUN s; daemon peak resident memory" \
  "$((rss_before / 1024)) MiB before, $((rss_peak / 1024)) MiB after; frames dropped by the full queue: $drops"
