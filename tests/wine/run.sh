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
wine=${ND_WINE:-$(command -v wine64 || command -v wine || echo /usr/lib/wine/wine64)}
[ -x "$wine" ] || { echo "wine: no wine64 loader found (Debian package wine64)" >&2; exit 1; }

WINEPREFIX=$(mktemp -d /tmp/ndwine.XXXXXX)
export WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe="
out=$WINEPREFIX/out
cleanup() {
  timeout 20 "$(dirname "$wine")/wineserver" -k >/dev/null 2>&1 || true
  if [ -n "${ND_WINE_KEEP:-}" ]; then echo "--- wine prefix kept: $WINEPREFIX"; else rm -rf "$WINEPREFIX"; fi
}
trap cleanup EXIT
timeout 180 "$wine" wineboot --init >/dev/null 2>&1 || { echo "wine: wineboot did not finish" >&2; exit 1; }

drive=$WINEPREFIX/drive_c
appdata=$drive/ProgramData
torv=$appdata/TORV/Tessaril/Runtime
log=$torv/NetworkDriver_log_0.txt
# The daemon and its tools, and the same daemon beside the stand-in driver client DLL. (A
# missing file, when the mingw preset was not built, stops the stage here.)
mkdir -p "$drive/nd/scenarios" "$drive/ndfake"
cp "$build/NetworkDriver.exe" "$build"/tools/{ndpeer,NetworkDriverVersion5173,NetworkDriverNoVersion}.exe \
  "$build"/tools/ForeignPipeServer.exe "$drive/nd/"
cp "$here"/scenarios/*.json "$drive/nd/scenarios/"
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
dashes="INFO;$(printf -- '-%.0s' {1..42})"
start_lines() { printf '%s\n' "$dashes" "INFO;Network Driver $1 started." "$dashes"; }
only_start_lines() { [ "$(entries "$1")" = "$(start_lines "$2")" ]; }

# The version the rule prints for the daemon's VERSIONINFO: major.minor.revision, read here
# from the fixed file info in the file itself.
version=$(python3 - "$build/NetworkDriver.exe" <<'EOF'
import struct, sys
data = open(sys.argv[1], "rb").read()
ms, ls = struct.unpack_from("<II", data, data.find(struct.pack("<II", 0xFEEF04BD, 0x00010000)) + 8)
print(f"{ms >> 16}.{ms & 0xFFFF}.{ls & 0xFFFF}")
EOF
)

# Runs a daemon with nobody on the pipes; succeeds on exit code 0.
alone() { rm -rf "$appdata/TORV"; timeout 60 "$wine" "$1" >/dev/null 2>&1; }
# Runs a scenario: ndpeer.exe serves the pipes and starts the daemon; succeeds when ndpeer does.
scenario() {
  local daemon=${2:-'C:\nd\NetworkDriver.exe'}
  rm -rf "$appdata/TORV"
  timeout 120 "$wine" 'C:\nd\ndpeer.exe' --daemon "$daemon" --scenario "C:\\nd\\scenarios\\$1" \
    --connect-timeout 30 --answer-timeout 30 >"$out" 2>&1 || { sed 's/^/     | /' "$out" >&2; return 1; }
}

# No native side: exit 0, the start lines and nothing after them. (The ring of log files is
# portable code, unit-tested.)
check "no native side: exit code 0, only the start lines, under C:\\ProgramData\\TORV\\Tessaril\\Runtime" \
  eval 'alone "C:\\nd\\NetworkDriver.exe" && only_start_lines "$log" "$version"'

# The version rule on the Windows path (GetFileVersionInfo + VerQueryValue): 5.1.7.3 is
# printed as 5.1.3; without a version block the start line has two blanks.
for case in "NetworkDriverVersion5173 5.1.3" "NetworkDriverNoVersion "; do
  alone "C:\\nd\\${case% *}.exe" || true
  check "version: ${case% *}" has "$log" "INFO;Network Driver ${case#* } started."
done

# Brand choice from the executable's folder (the rule itself is unit-tested): a path with
# VUD logs under VUD\TARVELIS connect, and in no other brand folder.
mkdir -p "$drive/Program Files/VUD" && cp "$build/NetworkDriver.exe" "$drive/Program Files/VUD/"
vud=$appdata/VUD/TARVELIS\ connect/Runtime/NetworkDriver_log_0.txt
check "brand: VUD in the path: logs in VUD\\TARVELIS connect" eval 'alone "C:\\Program Files\\VUD\\NetworkDriver.exe" &&
  [ ! -e "$appdata/TORV" ] && only_start_lines "$vud" "$version"'

# The control channel over real named pipes.
check "control: answers to types 1, 4, 5, 6, 8, 10 byte for byte, 200000-byte payloads in step" scenario control.json
check "control: start lines, then \"Named Pipes created.\"" \
  [ "$(entries "$log" | head -n 4)" = "$(start_lines "$version")"$'\n'"INFO;Named Pipes created." ]
check "control: request logged; a closed native side is a broken pipe (109); orderly end, no ERROR line" \
  eval 'has "$log" \
  "INFO;Received InitializeConfigurationRequest message: HandleVirtualMachine: true" \
  "INFO;Error in ReadFile, error code: 109" && last_is "$log" "INFO;Closed pipes" && lacks "$log" ";ERROR;"'

# A server the daemon cannot vouch for: the process that created the pipes has gone (its
# child serves them), so its token cannot be read. Under wine every process runs as the same
# user; a server of another, unprivileged user is refused by the same check on Windows.
timeout 60 "$wine" 'C:\nd\ForeignPipeServer.exe' >"$out" 2>&1 || true
untrusted='ERROR;Untrusted pipe \\.\pipe\TessarilNetworkDriverToNative: server process cannot be opened, error code: 87'
check "unidentified server: refused with one ERROR line naming the pipe and the reason, exit 0, nothing opened" \
  eval 'alone "C:\\nd\\NetworkDriver.exe" && last_is "$log" "$untrusted" && lacks "$log" "Named Pipes created."'

# An unknown message type ends the loop; bad input ends the process (exit code 3, the C
# runtime's abort) with the reason logged. The decoding texts themselves are unit-tested.
check "type 11: logged, the loop ends with exit code 0, orderly end" eval 'scenario type-11.json &&
  has "$log" "ERROR;Header mesagge type error: 11" && last_is "$log" "INFO;Closed pipes"'
fatal="ERROR;Fatal error, the process ends: Deserialization error: found type: $(printf '\a') expected: 5"
check "wrong tag: the process ends with a fatal line, no orderly end" \
  eval 'scenario wrong-tag.json && last_is "$log" "$fatal" && lacks "$log" "Closed pipes"'

# No ndisapi.dll: the VPN does not come up (StartVPN answers status 0), and the daemon goes
# on serving.
guid="{6B29FC40-CA47-1067-B31D-00DD010662DA}"
check "no driver: StartVPN fails, later requests are answered" scenario no-driver.json
check "no driver: request logged, adapter open attempted and failed, orderly end" has "$log" \
  "INFO;Received StartVPNRequest message: SupervisorMACAddress: 02:00:00:00:00:01, VpnPromiscuousMode: false,"\
" GUID: $guid, name: " \
  "INFO;Opening virtual Ethernet adapter (GUID: $guid)." "INFO;Error opening Virtual Ethernet adapter (GUID: $guid)." \
  "INFO;Closed pipes"

# The stand-in ndisapi.dll: the Windows backend loads it by name, resolves every export and
# drives it through the published structures; captured frames travel the capture thread,
# the publisher and the VPN to the pipe, tunnel frames go the other way.
trace=$drive/ndfake/ndisapi-trace.txt
traced() { local line; for line; do grep -qxF -- "$line" "$trace" || return 1; done; }
a=0000003400009abc
check "fake driver: VPN opens, captured frames reach the tunnel, tunnel frames are written" \
  scenario fake-driver.json 'C:\ndfake\NetworkDriver.exe'
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

echo "--- wine stage: $failures failed"
[ "$failures" -eq 0 ]
