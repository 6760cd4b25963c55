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

for exe in NetworkDriver.exe tools/ndpeer.exe tools/NetworkDriverVersion5173.exe tools/NetworkDriverNoVersion.exe \
  tools/ndisapi.dll tools/ForeignPipeServer.exe; do
  [ -f "$build/$exe" ] || { echo "wine: $build/$exe is missing; build the mingw preset first" >&2; exit 1; }
done

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
# The same daemon beside the stand-in driver client DLL.
mkdir -p "$drive/ndfake"
cp "$build/NetworkDriver.exe" "$build/tools/ndisapi.dll" "$drive/ndfake/"

failures=0
pass() { echo "ok   $1"; }
fail() { echo "FAIL $1"; failures=$((failures + 1)); }
check() {  # check <name> <command...>
  local name=$1; shift
  if "$@"; then pass "$name"; else fail "$name"; fi
}

# The entries of a log file: text after the time stamp, line ends as on Linux.
entries() { sed -e 's/\r$//' -e 's/^[^;]*;//' "$1"; }
has() { grep -qxF -- "$2" <(entries "$1"); }
last_is() { [ "$(entries "$1" | tail -n 1)" = "$2" ]; }
# The start lines of a run that printed `version`.
start_lines() { printf '%s\n' "INFO;$(printf -- '-%.0s' {1..42})" "INFO;Network Driver $1 started." "INFO;$(printf -- '-%.0s' {1..42})"; }
only_start_lines() { [ "$(entries "$1")" = "$(start_lines "$2")" ]; }
begins_with_start_lines() { [ "$(entries "$1" | head -n 3)" = "$(start_lines "$2")" ]; }

# The version the rule prints for an executable's VERSIONINFO: major.minor.revision, read
# here from the fixed file info in the file itself.
resource_version() {
  python3 - "$1" <<'EOF'
import struct, sys
data = open(sys.argv[1], "rb").read()
at = data.find(struct.pack("<II", 0xFEEF04BD, 0x00010000))
if at >= 0:
    ms, ls = struct.unpack_from("<II", data, at + 8)
    print(f"{ms >> 16}.{ms & 0xFFFF}.{ls & 0xFFFF}")
EOF
}

# Runs a daemon with nobody on the pipes; prints its exit code.
run_alone() {
  local code=0
  timeout 60 "$wine" "$1" >/dev/null 2>&1 || code=$?
  echo "$code"
}

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

# No native side: the start lines, nothing after them, exit 0.
rm -rf "$appdata/TORV"
check "no native side: exit code 0" [ "$(run_alone 'C:\nd\NetworkDriver.exe')" = 0 ]
check "no native side: only the start lines, under C:\\ProgramData\\TORV\\Tessaril\\Runtime" \
  only_start_lines "$torv/NetworkDriver_log_0.txt" "$version"
check "version from the resource is a three-part version" grep -qxE '[0-9]+\.[0-9]+\.[0-9]+' <<<"$version"
run_alone 'C:\nd\NetworkDriver.exe' >/dev/null
check "a second start continues the same ring file" \
  [ "$(entries "$torv/NetworkDriver_log_0.txt" | wc -l)" = 6 ]

# The ring: the newest file is over the size limit, so the next line starts the next file afresh.
rm -rf "$appdata/TORV" && mkdir -p "$torv"
echo "stale" >"$torv/NetworkDriver_log_1.txt" && touch -d '2 hours ago' "$torv/NetworkDriver_log_1.txt"
head -c 5000100 /dev/zero | tr '\0' 'x' >"$torv/NetworkDriver_log_0.txt"
run_alone 'C:\nd\NetworkDriver.exe' >/dev/null
check "ring: a full file hands over to the next, which starts empty" \
  only_start_lines "$torv/NetworkDriver_log_1.txt" "$version"
check "ring: the full file is left as it was" [ "$(stat -c %s "$torv/NetworkDriver_log_0.txt")" = 5000100 ]

# The version rule on the Windows path (GetFileVersionInfo + VerQueryValue): four different numbers.
rm -rf "$appdata/TORV"
run_alone 'C:\nd\NetworkDriverVersion5173.exe' >/dev/null
check "version 5.1.7.3 is printed as 5.1.3" has "$torv/NetworkDriver_log_0.txt" "INFO;Network Driver 5.1.3 started."
check "the resource of the 5.1.7.3 copy reads 5.1.3 by the same rule" \
  [ "$(resource_version "$build/tools/NetworkDriverVersion5173.exe")" = 5.1.3 ]
rm -rf "$appdata/TORV"
run_alone 'C:\nd\NetworkDriverNoVersion.exe' >/dev/null
check "no version block: two blanks in the start line" has "$torv/NetworkDriver_log_0.txt" "INFO;Network Driver  started."

# Brand choice from the executable's folder.
brand_case() {  # brand_case <name> <folder under C:\> <log folder under ProgramData>
  local name=$1 folder=$2 logs=$3
  rm -rf "$appdata/TORV" "$appdata/VUD" "$appdata/Halbrook Automation"
  mkdir -p "$drive/$folder" && cp "$build/NetworkDriver.exe" "$drive/$folder/"
  run_alone "C:\\${folder//\//\\}\\NetworkDriver.exe" >/dev/null
  check "brand: $name" only_start_lines "$appdata/$logs/NetworkDriver_log_0.txt" "$version"
  local made=0 brand
  for brand in TORV VUD "Halbrook Automation"; do [ -e "$appdata/$brand" ] && made=$((made + 1)); done
  check "brand: $name, and in no other brand folder" [ "$made" = 1 ]
}
brand_case "a path with VUD logs under VUD\\TARVELIS connect" "Program Files/VUD/Runtime" "VUD/TARVELIS connect/Runtime"
brand_case "a path with Halbrook logs under Halbrook Automation" "Program Files/Halbrook/Remote" \
  "Halbrook Automation/Cobaltreach Remote Access/Runtime"
brand_case "VUD wins over Halbrook" "Halbrook/VUD" "VUD/TARVELIS connect/Runtime"
brand_case "a lower-case vud is not VUD" "Program Files/vud" "TORV/Tessaril/Runtime"

# The control channel over real named pipes.
log=$torv/NetworkDriver_log_0.txt
check "control: answers to types 1, 4, 5, 6, 8, 10 byte for byte, 200000-byte payloads in step" \
  [ "$(run_scenario control.json)" = 0 ]
check "control: start lines, then the pipes" begins_with_start_lines "$log" "$version"
check "control: \"Named Pipes created.\" after the start lines" [ "$(entries "$log" | sed -n 4p)" = "INFO;Named Pipes created." ]
check "control: requests logged" has "$log" "INFO;Received InitializeConfigurationRequest message: HandleVirtualMachine: true"
check "control: a closed native side is a broken pipe (109)" has "$log" "INFO;Error in ReadFile, error code: 109"
check "control: orderly end" last_is "$log" "INFO;Closed pipes"
check "control: no ERROR line" bash -c '! grep -q ";ERROR;" "$1"' _ "$log"

# A server the daemon cannot vouch for: the process that created the pipes has gone (its
# child serves them), so its token cannot be read. Under wine every process runs as the same
# user; a server of another, unprivileged user is refused by the same check on Windows.
rm -rf "$appdata/TORV"
timeout 60 "$wine" 'C:\nd\ForeignPipeServer.exe' >"$out" 2>&1 || true
check "unidentified server: refused, exit code 0" [ "$(run_alone 'C:\nd\NetworkDriver.exe')" = 0 ]
check "unidentified server: one ERROR line with the pipe and the reason" last_is "$log" \
  'ERROR;Untrusted pipe \\.\pipe\TessarilNetworkDriverToNative: server process cannot be opened, error code: 87'
check "unidentified server: nothing was opened" bash -c '! grep -q "Named Pipes created." "$1"' _ "$log"

# An unknown message type ends the loop; bad input ends the process (exit code 3, the C
# runtime's abort) with the reason logged. The decoding texts themselves are unit-tested.
check "type 11: ends the loop with exit code 0" [ "$(run_scenario type-11.json)" = 0 ]
check "type 11: logged and closed" has "$log" "ERROR;Header mesagge type error: 11"
check "type 11: orderly end" last_is "$log" "INFO;Closed pipes"
check "wrong tag: the process ends" [ "$(run_scenario wrong-tag.json)" = 0 ]
check "wrong tag: fatal line" last_is "$log" "ERROR;Fatal error, the process ends: Deserialization error: found type: $(printf '\a') expected: 5"
check "wrong tag: no orderly end" bash -c '! grep -q "Closed pipes" "$1"' _ "$log"

# No ndisapi.dll: the VPN does not come up, and the daemon goes on serving.
guid="{6B29FC40-CA47-1067-B31D-00DD010662DA}"
check "no driver: StartVPN answers status 0 and later requests are answered" [ "$(run_scenario no-driver.json)" = 0 ]
check "no driver: request logged" has "$log" \
  "INFO;Received StartVPNRequest message: SupervisorMACAddress: 02:00:00:00:00:01, VpnPromiscuousMode: false, GUID: $guid, name: "
check "no driver: adapter open attempted" has "$log" "INFO;Opening virtual Ethernet adapter (GUID: $guid)."
check "no driver: adapter open failed" has "$log" "INFO;Error opening Virtual Ethernet adapter (GUID: $guid)."
check "no driver: orderly end" last_is "$log" "INFO;Closed pipes"

# The stand-in ndisapi.dll: the Windows backend loads it by name, resolves every export and
# drives it through the published structures; captured frames travel the capture thread,
# the publisher and the VPN to the pipe, tunnel frames go the other way.
trace=$drive/ndfake/ndisapi-trace.txt
traced() { grep -qxF -- "$1" "$trace"; }
a=0000003400009abc
check "fake driver: VPN opens, captured frames reach the tunnel, tunnel frames are written" \
  [ "$(run_scenario fake-driver.json 'C:\ndfake\NetworkDriver.exe')" = 0 ]
check "fake driver: opened under the instance name NDISTQFD" traced "OpenFilterDriver NDISTQFD"
check "fake driver: promiscuous, then tunnel mode" \
  bash -c 'grep -n "" "$1" | grep -F -e "SetHwPacketFilter $2 00000020" -e "SetAdapterMode $2 00000043" | cut -d: -f2- | tr "\n" "|" | grep -qx "SetHwPacketFilter $2 00000020|SetAdapterMode $2 00000043|"' _ "$trace" "$a"
check "fake driver: one redirect filter on the handle's low half" \
  traced "SetPacketFilterTable size=1 adapter=0000000000009abc direction=3 action=3 fields=0"
check "fake driver: the packet event is registered" traced "SetPacketEvent $a set"
check "fake driver: the three captured frames are read" [ "$(grep -c "^ReadPacket $a " "$trace")" = 3 ]
check "fake driver: a captured broadcast goes back to the stack at once" \
  traced "SendPacketToMstcp $a dst=ffffffffffff src=02aabbccddee len=60"
check "fake driver: the frame for the supervisor is consumed" bash -c '! grep -q "dst=020000000001" "$1"' _ "$trace"
check "fake driver: a frame the VPN does not take is passed on" \
  traced "SendPacketToMstcp $a dst=02aabbccddee src=027777777777 len=60"
check "fake driver: a tunnel frame for an unknown host goes to the wire" \
  traced "SendPacketToAdapter $a dst=029999999999 src=025555555555 len=60"
check "fake driver: a tunnel frame for the adapter goes to its stack" \
  traced "SendPacketToMstcp $a dst=02aabbccddee src=025555555555 len=60"
check "fake driver: a tunnel broadcast goes to wire and stack" \
  bash -c 'grep -qxF "SendPacketToAdapter $2 dst=ffffffffffff src=026666666666 len=60" "$1" &&
           grep -qxF "SendPacketToMstcp $2 dst=ffffffffffff src=026666666666 len=60" "$1"' _ "$trace" "$a"
check "fake driver: an oversize tunnel frame is dropped" bash -c '! grep -q "len=1515" "$1"' _ "$trace"
check "fake driver: oversize frame logged" \
  has "$log" "ERROR;The frame size exceeds the max ethernet frame size: 1515. The packet will be dropped."
check "fake driver: stop restores the adapter" \
  bash -c 'for line in "SetAdapterMode $2 00000000" "FlushAdapterPacketQueue $2" "SetHwPacketFilter $2 0000000b" "SetPacketEvent $2 null"; do
             grep -qxF "$line" "$1" || exit 1; done' _ "$trace" "$a"
check "fake driver: the other adapter is never touched" bash -c '! grep -q 0000001200005678 "$1"' _ "$trace"
check "fake driver: the driver is closed at the end" [ "$(tail -n 1 "$trace")" = "CloseFilterDriver 4e44" ]
fguid="{6B29FC40-CA47-1067-B31D-00DD010662DA}"
check "fake driver: adapter opened" has "$log" "INFO;Virtual Ethernet adapter (GUID: $fguid) opened."
check "fake driver: capture thread started and stopped" bash -c \
  'grep -qF "CaptureThread of virtual Ethernet adapter (GUID: $2) started." "$1" && grep -qF "Quit event received in CaptureThread" "$1"' \
  _ "$log" "$fguid"
check "fake driver: adapter closed" has "$log" "INFO;Virtual Ethernet adapter (GUID: $fguid) closed."
check "fake driver: orderly end" last_is "$log" "INFO;Closed pipes"

echo "--- wine stage: $failures failed, $(($(date +%s) - began)) s"
[ "$failures" -eq 0 ]
