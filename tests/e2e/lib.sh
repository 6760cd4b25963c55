# Shared helpers of the end-to-end tests: network namespaces, the real binaries, cleanup.
# Sourced by tests/e2e/test_*.sh; every test builds its own namespaces and removes them.
set -euo pipefail

ND_SOURCE_DIR=${ND_SOURCE_DIR:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)}
ND_BUILD_DIR=${ND_BUILD_DIR:-$ND_SOURCE_DIR/build/debug}
DAEMON=$ND_BUILD_DIR/NetworkDriver
PEER=$ND_BUILD_DIR/tools/ndpeer
# Short unique names: interface names are limited to 15 bytes.
TAG=${TAG:-$(printf '%04x' $(( $$ % 65536 )))}
WORK=$(mktemp -d /tmp/nde2e.XXXXXX)
export NETWORKDRIVER_PIPE_DIR=$WORK/pipes NETWORKDRIVER_APPDATA_DIR=$WORK/appdata
LOG=$NETWORKDRIVER_APPDATA_DIR/TORV/Tessaril/Runtime/NetworkDriver_log_0.txt

_namespaces=()
_pids=()

skip_or_fail() {
  # Namespaces are a must in CI; elsewhere a machine without them skips.
  if [ "${CI:-}" = "true" ]; then echo "FAIL: $*"; exit 1; fi
  echo "SKIP: $*"; exit 77
}

require_namespaces() {
  [ "$(id -u)" -eq 0 ] || skip_or_fail "end-to-end tests need root (network namespaces)"
  ip netns add "ndprobe$TAG" 2>/dev/null || skip_or_fail "cannot create network namespaces here"
  ip netns del "ndprobe$TAG"
  [ -x "$DAEMON" ] && [ -x "$PEER" ] || { echo "FAIL: build $DAEMON and $PEER first"; exit 1; }
}

cleanup() {
  local status=$?
  for pid in "${_pids[@]:-}"; do [ -n "$pid" ] && { kill -9 "$pid"; wait "$pid"; } 2>/dev/null || true; done
  for ns in "${_namespaces[@]:-}"; do
    [ -n "$ns" ] && { ip netns pids "$ns" | xargs -r kill -9; ip netns del "$ns"; } 2>/dev/null || true
  done
  if [ "$status" -ne 0 ] && [ "$status" -ne 77 ] && [ -f "$LOG" ]; then
    echo "--- daemon log"; tail -n 40 "$LOG"
  fi
  [ -n "${KEEP_WORK:-}" ] && echo "work folder kept: $WORK" || rm -rf "$WORK"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# ns NAME...: fresh namespaces with loopback up; their real names are NAME$TAG.
ns() {
  local name
  for name; do
    ip netns add "$name$TAG"
    _namespaces+=("$name$TAG")
    ip -n "$name$TAG" link set lo up
  done
}
in_ns() { local name=$1$TAG; shift; ip netns exec "$name" "$@"; }

# veth A NS_A B NS_B [ADDRESS_A ADDRESS_B]: a cable between two namespaces. Segmentation
# offloads stay as the kernel sets them (super-frames on the wire) unless ND_OFFLOADS=off
# turns them off at both ends, so that the suite runs in either mode.
veth() {
  ip link add "$1" netns "$2$TAG" type veth peer name "$3" netns "$4$TAG"
  local end
  for end in "$2 $1 ${5:-}" "$4 $3 ${6:-}"; do
    set -- $end
    [ "${ND_OFFLOADS:-on}" = on ] || ip netns exec "$1$TAG" ethtool -K "$2" tso off gso off gro off > /dev/null
    ip -n "$1$TAG" link set "$2" up
    if [ -n "${3:-}" ]; then ip -n "$1$TAG" addr add "$3" dev "$2"; fi
  done
}

bg() { "$@" & _pids+=($!); }

# wait_for SECONDS COMMAND...: polls until the command succeeds.
wait_for() {
  local deadline=$(( $(date +%s) + $1 )); shift
  until "$@" >/dev/null 2>&1; do
    [ "$(date +%s)" -lt "$deadline" ] || return 1
    sleep 0.2
  done
}

check() {
  local what=$1; shift
  if "$@"; then echo "ok   - $what"; else echo "FAIL - $what"; exit 1; fi
}
fails() { ! "$@" 2>/dev/null; }

# log_has LINE...: the daemon's log holds every one of these texts.
log_has() { local line; for line; do grep -qF -- "$line" "$LOG" || return 1; done; }

# daemon_pids NS: the daemons running in that namespace.
daemon_pids() {
  local pid
  for pid in $(ip netns pids "$1$TAG"); do
    [ "$(readlink "/proc/$pid/exe" 2>/dev/null)" = "$(readlink -f "$DAEMON")" ] && echo "$pid"
  done
  return 0
}
daemon_running() { [ -n "$(daemon_pids "$1")" ]; }

# kill_daemon NS: SIGKILL for the daemon running in that namespace, and waits until it has
# really ended. Its executable link goes first and its main thread turns zombie while the
# other threads still hold the descriptors (and with them the adapter hooks); they are all
# closed once the process is gone or is a zombie without other threads.
kill_daemon() {
  local pid
  for pid in $(daemon_pids "$1"); do kill -9 "$pid" && wait_for 10 _ended "$pid"; done
  return 0
}
_ended() {
  [ ! -e "/proc/$1/stat" ] ||
    { [ "$(cut -d' ' -f3 "/proc/$1/stat" 2>/dev/null)" = Z ] && [ "$(ls "/proc/$1/task" 2>/dev/null)" = "$1" ]; }
}

# reaches NS ADDRESS...: one ping from the namespace is answered by each address.
reaches() {
  local ns=$1 address; shift
  for address; do in_ns "$ns" ping -q -c 1 -W 2 "$address" > /dev/null || return 1; done
}

# The translation topology. IP forwarding stays off in the daemon's namespace, so nothing
# crosses between its adapters unless the daemon translates it.
#   in:  in0 10.1.0.2/24, default via 10.1.0.1        (internal host)
#   nd:  nd-int 10.1.0.1/24 | nd-ext 198.51.100.1/24, default via 198.51.100.2   (daemon)
#   ext: ext0 198.51.100.2/24, and 203.0.113.10/32 on lo (a host behind the gateway)
nat_topology() {
  ns in nd ext
  veth in0 in nd-int nd 10.1.0.2/24 10.1.0.1/24
  veth nd-ext nd ext0 ext 198.51.100.1/24 198.51.100.2/24
  in_ns in ip route add default via 10.1.0.1
  in_ns nd ip route add default via 198.51.100.2
  in_ns nd sysctl -qw net.ipv4.ip_forward=0
  in_ns ext ip addr add 203.0.113.10/32 dev lo
  in_ns ext sysctl -qw net.ipv4.conf.all.rp_filter=0
  # The peer reads the gateway's MAC from the daemon host's neighbour table.
  in_ns nd ping -q -c 1 -W 2 198.51.100.2 > /dev/null
}

# start_daemon SCENARIO: ndpeer in the daemon's namespace starts the daemon and keeps serving.
start_daemon() { bg in_ns nd "$PEER" --daemon "$DAEMON" --scenario "$1" --hold -1 > "$WORK/peer.log" 2>&1; }

# start_session NAT|ICS FIELDS: a daemon whose one request, StartNAT or StartICS with these
# fields, must succeed; waits until the session's drivers are registered.
MAP='"mappings": [{"external": "nd-ext", "internal": "nd-int"}]'
pools() { echo "\"tcpPortPoolSize\": $1, \"udpPortPoolSize\": $2, \"timeout\": ${3:-30}"; }
start_session() {
  echo "{\"steps\": [{\"send\": \"Start$1\", $2, \"expect\": {\"result\": 1}}]}" > "$WORK/start.json"
  start_daemon "$WORK/start.json"
  wait_for 10 log_has "$1: drivers successfully registered" || { cat "$WORK/peer.log"; exit 1; }
  check "$1 started" grep -q "result 1" "$WORK/peer.log"
}

# make_www TEXT [BYTES]: $WORK/www with page.html holding TEXT and a random big.bin.
make_www() {
  mkdir -p "$WORK/www"
  echo "$1" > "$WORK/www/page.html"
  head -c "${2:-3000000}" /dev/urandom > "$WORK/www/big.bin"
}
# fetched NS URL [FILE]: downloads URL from NS (at most $LIMIT bytes a second, when set) into
# $WORK/FILE and compares it with $WORK/www/big.bin.
fetched() {
  local file=$WORK/${3:-fetched}
  in_ns "$1" curl -sS --max-time 60 ${LIMIT:+--limit-rate $LIMIT} -o "$file" "$2" && cmp -s "$WORK/www/big.bin" "$file"
}
# page NS URL: the body of a page fetched from NS.
page() { in_ns "$1" curl -sS --max-time 10 "$2"; }

# serve_http NS ADDRESS PORT DIR: a web server that logs each request's client and Host.
serve_http() {
  # Each request is in the log at once (stderr is line-buffered); a plain TCP server does no
  # reverse lookup of the address.
  (cd "$4" && exec ip netns exec "$1$TAG" python3 -c '
import http.server, socketserver, sys
class Handler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        host = self.headers.get("Host")
        sys.stderr.write(f"client={self.client_address[0]} host={host} path={self.path}\n")
socketserver.ThreadingTCPServer((sys.argv[1], int(sys.argv[2])), Handler).serve_forever()' "$2" "$3") \
    2>> "$WORK/http_$1.log" &
  _pids+=($!)
  wait_for 10 in_ns "$1" bash -c "echo > /dev/tcp/$2/$3" ||
    { echo "web server in $1 did not start:"; cat "$WORK/http_$1.log"; return 1; }
}

# udp_service NS ADDRESS PORT: answers "echo:" + each datagram ("delay=N:text" N seconds late);
# logs each client and text, and the late answers, to $WORK/udp_ADDRESS_PORT.log.
udp_service() {
  local log=$WORK/udp_$2_$3.log
  bg ip netns exec "$1$TAG" python3 -c '
import socket, sys, threading, time
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind((sys.argv[1], int(sys.argv[2])))
log = open(sys.argv[3], "a", buffering=1)
log.write("ready\n")
def answer(data, peer):
    if data.startswith(b"delay="):
        delay = data[6:].split(b":")[0].decode()
        time.sleep(float(delay))
        log.write("late answer sent to %s:%d after %s s\n" % (*peer, delay))
    s.sendto(b"echo:" + data, peer)
while True:
    data, peer = s.recvfrom(2048)
    log.write("client=%s:%d %s\n" % (*peer, data.decode(errors="replace")))
    threading.Thread(target=answer, args=(data, peer)).start()' "$2" "$3" "$log"
  wait_for 10 grep -q ready "$log" || { echo "UDP service $2:$3 did not start"; return 1; }
}
# udp_clients ADDRESS PORT: the distinct client addresses a UDP service saw.
udp_clients() { grep -o 'client=[0-9.]*' "$WORK/udp_$1_$2.log" | sort -u | tr '\n' ' '; }

# udp_ask NS ADDRESS PORT TEXT...: sends the texts back to back (from $UDP_FROM, "ip:port",
# when set) and prints the answers that come within ${UDP_WAIT:-3} seconds.
udp_ask() {
  ip netns exec "$1$TAG" python3 -c '
import os, socket, sys, time
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
if os.environ.get("UDP_FROM"): ip, port = os.environ["UDP_FROM"].split(":"); s.bind((ip, int(port)))
for t in sys.argv[3:]: s.sendto(t.encode(), (sys.argv[1], int(sys.argv[2])))
deadline, got = time.time() + float(os.environ.get("UDP_WAIT", 3)), 0
while got < len(sys.argv) - 3 and time.time() < deadline:
    s.settimeout(max(0.01, deadline - time.time()))
    try: print(s.recvfrom(2048)[0].decode()); got += 1
    except socket.timeout: break' "${@:2}"
}
