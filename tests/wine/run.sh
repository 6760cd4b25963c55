#!/usr/bin/env bash
# The Windows build, run under wine: ndpeer.exe creates the two named pipes and drives
# NetworkDriver.exe as the native runtime does in the field; this script checks the answers,
# the exit codes and the logs under C:\ProgramData of a fresh wine prefix.
#   tests/wine/run.sh [build folder of the mingw preset, default build/mingw]
# ND_WINE_KEEP=1 keeps the wine prefix (logs, driver trace) for a look afterwards.
# Every wait is bounded, so a wine problem fails the stage instead of hanging it.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-$root/build/mingw}" && pwd)
began=$(date +%s)

wine=
for candidate in "${ND_WINE:-}" wine64 /usr/lib/wine/wine64 wine; do
  [ -n "$candidate" ] && command -v "$candidate" >/dev/null 2>&1 && { wine=$(command -v "$candidate"); break; }
done
[ -n "$wine" ] || { echo "wine: no wine64 loader found (Debian package wine64)" >&2; exit 1; }
wineserver=$(dirname "$wine")/wineserver
[ -x "$wineserver" ] || wineserver=$(command -v wineserver || true)

WINEPREFIX=$(mktemp -d /tmp/ndwine.XXXXXX)
export WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe="
out=$WINEPREFIX/out
cleanup() {
  [ -n "$wineserver" ] && timeout 20 "$wineserver" -k >/dev/null 2>&1 || true
  if [ -n "${ND_WINE_KEEP:-}" ]; then echo "--- wine prefix kept: $WINEPREFIX"; else rm -rf "$WINEPREFIX"; fi
}
trap cleanup EXIT

echo "--- wine: $("$wine" --version 2>/dev/null || echo unknown), prefix $WINEPREFIX"
timeout 180 "$wine" wineboot --init >/dev/null 2>&1 || { echo "wine: wineboot did not finish" >&2; exit 1; }

drive=$WINEPREFIX/drive_c
appdata=$drive/ProgramData
torv=$appdata/TORV/Tessaril/Runtime
mkdir -p "$drive/nd/scenarios"
cp "$build/NetworkDriver.exe" "$build"/tools/ndpeer.exe "$build"/tools/NetworkDriverVersion5173.exe \
  "$build"/tools/NetworkDriverNoVersion.exe "$build"/tools/ForeignPipeServer.exe "$drive/nd/"
cp "$here"/scenarios/*.json "$drive/nd/scenarios/"
# The same daemon beside the stand-in driver client DLL. (A missing file, when the mingw
# preset was not built, stops the stage here.)
mkdir -p "$drive/ndfake"
cp "$build/NetworkDriver.exe" "$build/tools/ndisapi.dll" "$drive/ndfake/"

failures=0
check() {  # check <name> <command...>
  local name=$1; shift
  if "$@"; then echo "ok   $name"; else echo "FAIL $name"; failures=$((failures + 1)); fi
}

# The entries of a log file: text after the time stamp, line ends as on Linux.
entries() { sed -e 's/\r$//' -e 's/^[^;]*;//' "$1"; }
has() { local file=$1 line; shift; for line; do grep -qxF -- "$line" <(entries "$file") || return 1; done; }
lacks() { ! grep -qF -- "$2" "$1"; }
last_is() { [ "$(entries "$1" | tail -n 1)" = "$2" ]; }
# The start lines of a run that printed `version`.
start_lines() { printf '%s\n' "INFO;$(printf -- '-%.0s' {1..42})" "INFO;Network Driver $1 started." "INFO;$(printf -- '-%.0s' {1..42})"; }
only_start_lines() { [ "$(entries "$1")" = "$(start_lines "$2")" ]; }

# The version the rule prints for an executable's VERSIONINFO: major.minor.revision, read
# here from the fixed file info in the file itself.
resource_version() {
  python3 - "$1" <<'EOF'
import struct, sys
data = open(sys.argv[1], "rb").read()
ms, ls = struct.unpack_from("<II", data, data.find(struct.pack("<II", 0xFEEF04BD, 0x00010000)) + 8)
print(f"{ms >> 16}.{ms & 0xFFFF}.{ls & 0xFFFF}")
EOF
}

# Runs a daemon with nobody on the pipes; prints its exit code.
run_alone() { timeout 60 "$wine" "$1" >/dev/null 2>&1 && echo 0 || echo $?; }

# Runs a scenario: ndpeer.exe serves the pipes and starts the daemon. Prints ndpeer's exit code.
run_scenario() {
  local scenario=$1 daemon=${2:-'C:\nd\NetworkDriver.exe'} code=0
  rm -rf "$appdata/TORV"
  timeout 120 "$wine" 'C:\nd\ndpeer.exe' --daemon "$daemon" --scenario "C:\\nd\\scenarios\\$scenario" \
    --connect-timeout 30 --answer-timeout 30 >"$out" 2>&1 || code=$?
  if [ "$code" -ne 0 ]; then sed 's/^/     | /' "$out" >&2; fi
  echo "$code"
}

version=$(resource_version "$build/NetworkDriver.exe")
echo "--- version resource of NetworkDriver.exe reads $version"

# No native side: the start lines, nothing after them, exit 0. (The ring of log files is
# portable code, unit-tested.)
rm -rf "$appdata/TORV"
check "no native side: exit code 0" [ "$(run_alone 'C:\nd\NetworkDriver.exe')" = 0 ]
check "no native side: only the start lines, under C:\\ProgramData\\TORV\\Tessaril\\Runtime" \
  only_start_lines "$torv/NetworkDriver_log_0.txt" "$version"

# The version rule on the Windows path (GetFileVersionInfo + VerQueryValue): 5.1.7.3 is
# printed as 5.1.3; without a version block the start line has two blanks.
for case in "NetworkDriverVersion5173 5.1.3" "NetworkDriverNoVersion "; do
  rm -rf "$appdata/TORV"
  run_alone "C:\\nd\\${case% *}.exe" >/dev/null
  check "version: ${case% *}" has "$torv/NetworkDriver_log_0.txt" "INFO;Network Driver ${case#* } started."
done

# Brand choice from the executable's folder (the rule itself is unit-tested): a path with
# VUD logs under VUD\TARVELIS connect, and in no other brand folder.
rm -rf "$appdata/TORV"
mkdir -p "$drive/Program Files/VUD" && cp "$build/NetworkDriver.exe" "$drive/Program Files/VUD/"
run_alone 'C:\Program Files\VUD\NetworkDriver.exe' >/dev/null
check "brand: a path with VUD logs under VUD\\TARVELIS connect" eval '[ ! -e "$appdata/TORV" ] &&
  only_start_lines "$appdata/VUD/TARVELIS connect/Runtime/NetworkDriver_log_0.txt" "$version"'

# The control channel over real named pipes.
log=$torv/NetworkDriver_log_0.txt
check "control: answers to types 1, 4, 5, 6, 8, 10 byte for byte, 200000-byte payloads in step" \
  [ "$(run_scenario control.json)" = 0 ]
check "control: start lines, then \"Named Pipes created.\"" \
  [ "$(entries "$log" | head -n 4)" = "$(start_lines "$version")"$'\n'"INFO;Named Pipes created." ]
check "control: request logged; a closed native side is a broken pipe (109)" has "$log" \
  "INFO;Received InitializeConfigurationRequest message: HandleVirtualMachine: true" \
  "INFO;Error in ReadFile, error code: 109"
check "control: orderly end, no ERROR line" eval 'last_is "$log" "INFO;Closed pipes" && lacks "$log" ";ERROR;"'

# A server the daemon cannot vouch for: the process that created the pipes has gone (its
# child serves them), so its token cannot be read. Under wine every process runs as the same
# user; a server of another, unprivileged user is refused by the same check on Windows.
rm -rf "$appdata/TORV"
timeout 60 "$wine" 'C:\nd\ForeignPipeServer.exe' >"$out" 2>&1 || true
check "unidentified server: refused, exit code 0" [ "$(run_alone 'C:\nd\NetworkDriver.exe')" = 0 ]
untrusted='ERROR;Untrusted pipe \\.\pipe\TessarilNetworkDriverToNative: server process cannot be opened, error code: 87'
check "unidentified server: one ERROR line with the pipe and the reason, nothing opened" \
  eval 'last_is "$log" "$untrusted" && lacks "$log" "Named Pipes created."'

# An unknown message type ends the loop; bad input ends the process (exit code 3, the C
# runtime's abort) with the reason logged. The decoding texts themselves are unit-tested.
check "type 11: ends the loop with exit code 0" [ "$(run_scenario type-11.json)" = 0 ]
check "type 11: logged, orderly end" \
  eval 'has "$log" "ERROR;Header mesagge type error: 11" && last_is "$log" "INFO;Closed pipes"'
check "wrong tag: the process ends" [ "$(run_scenario wrong-tag.json)" = 0 ]
fatal="ERROR;Fatal error, the process ends: Deserialization error: found type: $(printf '\a') expected: 5"
check "wrong tag: fatal line, no orderly end" eval 'last_is "$log" "$fatal" && lacks "$log" "Closed pipes"'

# No ndisapi.dll: the VPN does not come up, and the daemon goes on serving.
guid="{6B29FC40-CA47-1067-B31D-00DD010662DA}"
check "no driver: StartVPN answers status 0 and later requests are answered" [ "$(run_scenario no-driver.json)" = 0 ]
check "no driver: request logged, adapter open attempted and failed, orderly end" has "$log" \
  "INFO;Received StartVPNRequest message: SupervisorMACAddress: 02:00:00:00:00:01, VpnPromiscuousMode: false, GUID: $guid, name: " \
  "INFO;Opening virtual Ethernet adapter (GUID: $guid)." "INFO;Error opening Virtual Ethernet adapter (GUID: $guid)." \
  "INFO;Closed pipes"

# The stand-in ndisapi.dll: the Windows backend loads it by name, resolves every export and
# drives it through the published structures; captured frames travel the capture thread,
# the publisher and the VPN to the pipe, tunnel frames go the other way.
trace=$drive/ndfake/ndisapi-trace.txt
traced() { local line; for line; do grep -qxF -- "$line" "$trace" || return 1; done; }
a=0000003400009abc
check "fake driver: VPN opens, captured frames reach the tunnel, tunnel frames are written" \
  [ "$(run_scenario fake-driver.json 'C:\ndfake\NetworkDriver.exe')" = 0 ]
check "fake driver: opened as NDISTQFD, one redirect filter on the handle's low half, the packet event set" traced \
  "OpenFilterDriver NDISTQFD" "SetPacketFilterTable size=1 adapter=0000000000009abc direction=3 action=3 fields=0" \
  "SetPacketEvent $a set"
modes=("SetHwPacketFilter $a 00000020" "SetAdapterMode $a 00000043")
check "fake driver: promiscuous, then tunnel mode" \
  [ "$(grep -xF -e "${modes[0]}" -e "${modes[1]}" "$trace")" = "$(printf '%s\n' "${modes[@]}")" ]
check "fake driver: the three captured frames are read" [ "$(grep -c "^ReadPacket $a " "$trace")" = 3 ]
# Captured: a broadcast goes back to the stack at once, the frame for the supervisor is
# consumed, one the VPN does not take is passed on. From the tunnel: a frame for an unknown
# host goes to the wire, one for the adapter to its stack, a broadcast to both.
check "fake driver: every frame goes where it belongs" traced \
  "SendPacketToMstcp $a dst=ffffffffffff src=02aabbccddee len=60" \
  "SendPacketToMstcp $a dst=02aabbccddee src=027777777777 len=60" \
  "SendPacketToAdapter $a dst=029999999999 src=025555555555 len=60" \
  "SendPacketToMstcp $a dst=02aabbccddee src=025555555555 len=60" \
  "SendPacketToAdapter $a dst=ffffffffffff src=026666666666 len=60" \
  "SendPacketToMstcp $a dst=ffffffffffff src=026666666666 len=60"
check "fake driver: nothing for the supervisor, nothing oversize, nothing on the other adapter" \
  eval 'lacks "$trace" dst=020000000001 && lacks "$trace" len=1515 && lacks "$trace" 0000001200005678'
check "fake driver: oversize frame logged" \
  has "$log" "ERROR;The frame size exceeds the max ethernet frame size: 1515. The packet will be dropped."
check "fake driver: stop restores the adapter" \
  traced "SetAdapterMode $a 00000000" "FlushAdapterPacketQueue $a" "SetHwPacketFilter $a 0000000b" \
  "SetPacketEvent $a null"
check "fake driver: the driver is closed at the end" [ "$(tail -n 1 "$trace")" = "CloseFilterDriver 4e44" ]
check "fake driver: adapter opened, capture thread started and stopped, adapter closed, orderly end" has "$log" \
  "INFO;Virtual Ethernet adapter (GUID: $guid) opened." \
  "INFO;CaptureThread of virtual Ethernet adapter (GUID: $guid) started." \
  "INFO;Quit event received in CaptureThread" "INFO;Virtual Ethernet adapter (GUID: $guid) closed." "INFO;Closed pipes"

echo "--- wine stage: $failures failed, $(($(date +%s) - began)) s"
[ "$failures" -eq 0 ]
