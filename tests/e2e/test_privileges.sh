#!/usr/bin/env bash
# Only the real native side commands the daemon, and the daemon keeps only the privileges
# it uses. A pipe folder that others may write and a native side running as another user are
# refused with one ERROR line and a clean exit, before any message is read; a root-owned
# private folder works, with the daemon holding just its four capabilities while it
# translates through a published port below 1024.
source "$(dirname "$0")/lib.sh"
require_namespaces
NOBODY=65534
chmod 755 "$WORK"  # the unprivileged native side must reach its folder
as_nobody() { setpriv --reuid=$NOBODY --regid=$NOBODY --clear-groups "$@"; }
# Sockets anyone may connect to: the daemon, root without CAP_DAC_OVERRIDE, could not
# otherwise reach another user's socket at all, and the peer check would never be asked.
as_nobody_open() { (umask 000 && exec setpriv --reuid=$NOBODY --regid=$NOBODY --clear-groups "$@"); }
sockets_in() { test -S "$1/TessarilNetworkDriverToNative" && test -S "$1/TessarilNetworkDriverFromNative"; }

# refused DIR REASON [as_nobody]: a native side listens in DIR, the daemon refuses it.
refused() {
  local dir=$1 reason=$2 runner=${3:-} status=0
  rm -f "$LOG"
  $runner "$PEER" --pipe-dir "$dir" --request init --connect-timeout 4 > "$WORK/peer.log" 2>&1 &
  local peer=$!
  wait_for 10 sockets_in "$dir" || { echo "native side did not listen in $dir"; cat "$WORK/peer.log"; return 1; }
  [ -n "${CHANGE_AFTER_LISTEN:-}" ] && eval "$CHANGE_AFTER_LISTEN"
  NETWORKDRIVER_PIPE_DIR=$dir timeout 20 "$DAEMON" || status=$?
  wait $peer 2>/dev/null || true
  [ "$status" -eq 0 ] || { echo "daemon exit status $status"; return 1; }
  [ "$(grep -c ';ERROR;' "$LOG")" -eq 1 ] || { cat "$LOG"; return 1; }
  grep -qxE "[^;]*;ERROR;Untrusted pipe $dir/TessarilNetworkDriverToNative: $reason" "$LOG" || { cat "$LOG"; return 1; }
  # Nothing was read or answered: the native side never got its answer.
  ! grep -q "Named Pipes created." "$LOG" && ! grep -q '^<- ' "$WORK/peer.log"
}

mkdir -m 1777 "$WORK/open"
check "a folder anyone may write is refused" \
  refused "$WORK/open" "folder writable by group or others \(mode 1777\)"

mkdir -m 755 "$WORK/theirs" && chown $NOBODY:$NOBODY "$WORK/theirs"
check "a folder of another user is refused" refused "$WORK/theirs" "folder owned by user $NOBODY" as_nobody

# A root-owned private folder, but the listener runs as another user.
mkdir -m 755 "$WORK/handed" && chown $NOBODY:$NOBODY "$WORK/handed"
CHANGE_AFTER_LISTEN="chown root:root '$WORK/handed'" \
  check "a native side running as another user is refused" refused "$WORK/handed" "server runs as user $NOBODY" as_nobody_open

# The real thing: root's private folder, NAT with a published port below 1024.
nat_topology
make_www "inside" 1
serve_http in 10.1.0.2 8000 "$WORK/www"
rm -f "$LOG"
start_session NAT "$MAP, $(pools 10 10), \"rules\": [{\"fromAdapter\": \"nd-ext\", \"fromPort\": 80,
  \"protocol\": \"TCP\", \"toAdapter\": \"nd-int\", \"toIp\": \"10.1.0.2\", \"toPort\": 8000}]"
check "a root-owned private folder works" log_has "INFO;Named Pipes created."
check "the published port 80 leads inside" test "$(page ext http://198.51.100.1:80/page.html)" = "inside"

pid=$(daemon_pids nd)
# CAP_NET_BIND_SERVICE (10), CAP_NET_ADMIN (12), CAP_NET_RAW (13), CAP_BPF (39).
kept=0000008000003400
status_field() { awk -v f="$1:" '$1 == f {print $2}' "/proc/$pid/status"; }
for set in CapPrm:$kept CapEff:$kept CapBnd:$kept CapInh:0000000000000000 CapAmb:0000000000000000 NoNewPrivs:1; do
  check "${set%:*} is ${set#*:}" test "$(status_field ${set%:*})" = "${set#*:}"
done
check "every thread holds the same sets" \
  bash -c "for t in /proc/$pid/task/*; do grep -q '^CapEff:[[:space:]]*$kept' \$t/status || exit 1; done"
echo PASS
