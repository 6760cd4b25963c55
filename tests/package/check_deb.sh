#!/usr/bin/env bash
# Checks a built networkdriver .deb without installing it: its fields, its file list, and the
# packaged ndpeer driving the packaged daemon through the control scenario, both run from a
# copy extracted into a temporary folder (the end-to-end helpers' work folder and log).
#   tests/package/check_deb.sh build/package/networkdriver_<version>_amd64.deb
source "$(dirname "$0")/../e2e/lib.sh"
deb=$(realpath "$1")

version=$(sed -n 's/^project(NetworkDriver VERSION \([0-9.]*\).*/\1/p' "$ND_SOURCE_DIR/CMakeLists.txt")
check "version $version, from the project, also in the file name" \
  test "$(dpkg-deb -f "$deb" Version) $(basename "$deb")" = "$version networkdriver_${version}_amd64.deb"
depends=$(dpkg-deb -f "$deb" Depends)
check "depends on the C and C++ run-time libraries ($depends)" \
  eval '[[ $depends == *"libc6 (>="* && $depends == *"libstdc++6 (>="* ]]'

{
  printf '%s\n' /usr/sbin/NetworkDriver /usr/bin/ndpeer /usr/share/man/man8/NetworkDriver.8.gz \
    /usr/share/man/man1/ndpeer.1.gz /usr/share/doc/networkdriver/copyright /usr/share/doc/networkdriver/changelog.gz
  cd "$ND_SOURCE_DIR/tools/scenarios" && printf '/usr/share/networkdriver/scenarios/%s\n' *.json
} | sort > "$WORK/expected"
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./|/|' | sort > "$WORK/actual"
check "the package holds exactly the programs, scenarios, manual pages and documents" \
  diff -u "$WORK/expected" "$WORK/actual"

dpkg-deb -x "$deb" "$WORK/tree"
check "the packaged ndpeer ran the control scenario against the packaged daemon" \
  "$WORK/tree/usr/bin/ndpeer" --daemon "$WORK/tree/usr/sbin/NetworkDriver" \
  --scenario "$WORK/tree/usr/share/networkdriver/scenarios/control.json"
check "the packaged daemon logged its start and its end" \
  eval 'grep -q "Network Driver .* started\." "$LOG" && log_has "Closed pipes"'
echo "PASS"
