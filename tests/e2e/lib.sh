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
    [ -n "$ns" ] || continue
    ip netns pids "$ns" 2>/dev/null | xargs -r kill -9 2>/dev/null || true
    ip netns del "$ns" 2>/dev/null || true
  done
  if [ "$status" -ne 0 ] && [ "$status" -ne 77 ] && [ -f "$LOG" ]; then
    echo "--- daemon log"; tail -n 40 "$LOG"
  fi
  rm -rf "$WORK"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# ns NAME: a fresh namespace with loopback up; its real name is NAME$TAG.
ns() {
  local name=$1$TAG
  ip netns add "$name"
  _namespaces+=("$name")
  ip -n "$name" link set lo up
}
in_ns() { local name=$1$TAG; shift; ip netns exec "$name" "$@"; }

# veth A NS_A B NS_B: a cable between two namespaces.
veth() {
  ip link add "$1" netns "$2$TAG" type veth peer name "$3" netns "$4$TAG"
  ip -n "$2$TAG" link set "$1" up
  ip -n "$4$TAG" link set "$3" up
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

log_has() { grep -qF -- "$1" "$LOG"; }

# kill_daemon NS: SIGKILL for the daemon running in that namespace.
kill_daemon() {
  local pid
  for pid in $(ip netns pids "$1$TAG"); do
    [ "$(readlink "/proc/$pid/exe" 2>/dev/null)" = "$(readlink -f "$DAEMON")" ] && kill -9 "$pid"
  done
  return 0
}
