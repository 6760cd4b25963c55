#!/usr/bin/env bash
# The Windows build, run under wine: ndpeer.exe creates the two named pipes and drives
# NetworkDriver.exe as the native runtime does in the field; this script checks the answers,
# the exit codes and the logs under C:\ProgramData of a fresh wine prefix.
#   tests/wine/run.sh [build folder of the mingw preset, default build/mingw]
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

for exe in NetworkDriver.exe tools/ndpeer.exe tools/NetworkDriverVersion5173.exe tools/NetworkDriverNoVersion.exe; do
  [ -f "$build/$exe" ] || { echo "wine: $build/$exe is missing; build the mingw preset first" >&2; exit 1; }
done

WINEPREFIX=$(mktemp -d /tmp/ndwine.XXXXXX)
export WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe="
out=$WINEPREFIX/out
cleanup() {
  [ -n "$wineserver" ] && timeout 20 "$wineserver" -k >/dev/null 2>&1 || true
  rm -rf "$WINEPREFIX"
}
trap cleanup EXIT

echo "--- wine: $("$wine" --version 2>/dev/null || echo unknown), prefix $WINEPREFIX"
timeout 180 "$wine" wineboot --init >/dev/null 2>&1 || { echo "wine: wineboot did not finish" >&2; exit 1; }

drive=$WINEPREFIX/drive_c
appdata=$drive/ProgramData
torv=$appdata/TORV/Tessaril/Runtime
mkdir -p "$drive/nd/scenarios"
cp "$build/NetworkDriver.exe" "$build"/tools/ndpeer.exe "$build"/tools/NetworkDriverVersion5173.exe \
  "$build"/tools/NetworkDriverNoVersion.exe "$drive/nd/"
cp "$here"/scenarios/*.json "$drive/nd/scenarios/"

failures=0
pass() { echo "ok   $1"; }
fail() { echo "FAIL $1"; failures=$((failures + 1)); }
check() {  # check <name> <command...>
  local name=$1; shift
  if "$@"; then pass "$name"; else fail "$name"; fi
}

# The entries of a log file: text after the time stamp, line ends as on Linux.
entries() { sed -e 's/\r$//' -e 's/^[^;]*;//' "$1"; }
has() { entries "$1" | grep -qxF -- "$2"; }
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

for type in 11 0; do
  check "type $type: ends the loop with exit code 0" [ "$(run_scenario "type-$type.json")" = 0 ]
  check "type $type: logged and closed" has "$log" "ERROR;Header mesagge type error: $type"
  check "type $type: orderly end" last_is "$log" "INFO;Closed pipes"
done

# Bad input ends the process (exit code 3, the C runtime's abort) with the reason logged.
check "wrong tag: the process ends" [ "$(run_scenario wrong-tag.json)" = 0 ]
check "wrong tag: fatal line" last_is "$log" "ERROR;Fatal error, the process ends: Deserialization error: found type: $(printf '\a') expected: 5"
check "wrong tag: no orderly end" bash -c '! grep -q "Closed pipes" "$1"' _ "$log"
check "truncated StartNAT: the process ends" [ "$(run_scenario truncated.json)" = 0 ]
check "truncated StartNAT: fatal line" \
  bash -c '[[ "$(sed -e "s/\r$//" -e "s/^[^;]*;//" "$1" | tail -n 1)" == "ERROR;Fatal error, the process ends: Deserialization error: "* ]]' _ "$log"
check "15-byte GUID: the process ends" [ "$(run_scenario short-guid.json)" = 0 ]
check "15-byte GUID: fatal line" last_is "$log" \
  "ERROR;Fatal error, the process ends: Error in deserialization of uint8 vector representing a Guid: expected 16 as vector length."

# No ndisapi.dll: the VPN does not come up, and the daemon goes on serving.
guid="{6B29FC40-CA47-1067-B31D-00DD010662DA}"
check "no driver: StartVPN answers status 0 and later requests are answered" [ "$(run_scenario no-driver.json)" = 0 ]
check "no driver: request logged" has "$log" \
  "INFO;Received StartVPNRequest message: SupervisorMACAddress: 02:00:00:00:00:01, VpnPromiscuousMode: false, GUID: $guid, name: "
if grep -q FilterDriversPublisher "$root/NetworkDriver/SessionFactory.cpp" 2>/dev/null; then
  check "no driver: adapter open attempted" has "$log" "INFO;Opening virtual Ethernet adapter (GUID: $guid)."
  check "no driver: adapter open failed" has "$log" "INFO;Error opening Virtual Ethernet adapter (GUID: $guid)."
  check "no driver: orderly end" last_is "$log" "INFO;Closed pipes"
else
  echo "skip no driver: adapter log lines (the sessions are not wired to the filter driver in this tree)"
fi

echo "--- wine stage: $failures failed, $(($(date +%s) - began)) s"
[ "$failures" -eq 0 ]
