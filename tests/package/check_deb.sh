#!/usr/bin/env bash
# Checks a built networkdriver .deb without installing it: its fields, its file list, and the
# packaged ndpeer driving the packaged daemon through the control scenario, both run from a
# copy extracted into a temporary root.
#   tests/package/check_deb.sh build/package/networkdriver_<version>_amd64.deb
set -euo pipefail
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
deb=$(realpath "$1")
root=$(mktemp -d /tmp/ndpkg.XXXXXX)
trap 'rm -rf "$root"' EXIT

check() {
  local what=$1; shift
  if "$@"; then echo "ok   - $what"; else echo "FAIL - $what"; exit 1; fi
}

version=$(sed -n 's/^project(NetworkDriver VERSION \([0-9.]*\).*/\1/p' "$source_dir/CMakeLists.txt")
check "version $version, from the project" test "$(dpkg-deb -f "$deb" Version)" = "$version"
check "named networkdriver_${version}_amd64.deb" test "$(basename "$deb")" = "networkdriver_${version}_amd64.deb"
depends=$(dpkg-deb -f "$deb" Depends)
check "depends on the C and C++ run-time libraries ($depends)" \
  eval '[[ $depends == *"libc6 (>="* && $depends == *"libstdc++6 (>="* ]]'

{
  printf '%s\n' /usr/sbin/NetworkDriver /usr/bin/ndpeer \
    /usr/share/man/man8/NetworkDriver.8.gz /usr/share/man/man1/ndpeer.1.gz \
    /usr/share/doc/networkdriver/copyright /usr/share/doc/networkdriver/changelog.gz
  for scenario in "$source_dir"/tools/scenarios/*.json; do
    echo "/usr/share/networkdriver/scenarios/$(basename "$scenario")"
  done
} | sort > "$root/expected"
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./|/|' | sort > "$root/actual"
check "the package holds exactly the programs, scenarios, manual pages and documents" \
  diff -u "$root/expected" "$root/actual"

dpkg-deb -x "$deb" "$root/tree"
export NETWORKDRIVER_APPDATA_DIR=$root/appdata
check "the packaged ndpeer ran the control scenario against the packaged daemon" \
  "$root/tree/usr/bin/ndpeer" --pipe-dir "$root/pipes" --daemon "$root/tree/usr/sbin/NetworkDriver" \
  --scenario "$root/tree/usr/share/networkdriver/scenarios/control.json"
check "the packaged daemon logged its start and its end" \
  bash -c 'grep -q "Network Driver .* started\." "$@" && grep -q "Closed pipes" "$@"' _ \
  "$NETWORKDRIVER_APPDATA_DIR"/*/*/Runtime/NetworkDriver_log_0.txt
echo "PASS"
