#!/usr/bin/env bash
# FTP through a published port: a real vsftpd on the internal host, a real client outside;
# beside it a published web server whose requests get their HTTP Host field rewritten.
# Passive (PASV) and active (PORT) downloads through a rule without and
# a rule with source translation; then listings by the extended commands (EPSV, EPRT).
source "$(dirname "$0")/lib.sh"
require_namespaces
nat_topology

# The anonymous session runs as the ftp user, who must reach the files.
chmod 755 "$WORK"
mkdir -p "$WORK/ftp"
head -c 4000000 /dev/urandom > "$WORK/ftp/big.bin"
echo "hello over ftp" > "$WORK/ftp/small.txt"
chmod -R a+rX "$WORK/ftp"

# Active-mode data connections come from the port below the control port, as FTP servers
# usually do (connect_from_port_20): that is the connection the daemon expects for a PORT.
cat > "$WORK/vsftpd.conf" <<CONF
listen=YES
listen_address=10.1.0.2
anon_root=$WORK/ftp
connect_from_port_20=YES
seccomp_sandbox=NO
isolate=NO
isolate_network=NO
secure_chroot_dir=/var/run/vsftpd/empty
xferlog_enable=YES
log_ftp_protocol=YES
vsftpd_log_file=$WORK/vsftpd.log
CONF
bg ip netns exec "in$TAG" vsftpd "$WORK/vsftpd.conf"
wait_for 10 in_ns in bash -c "echo > /dev/tcp/10.1.0.2/21" || { echo "vsftpd did not start"; exit 1; }

# Port 21 leaves the client's address alone: the server's default route is the daemon, so its
# answers come back through it anyway, and vsftpd checks that data connections come from the
# control connection's peer, which holds either way. Port 2121 translates the source as well,
# for a server that could not route back: it then only ever sees the daemon's internal address.
# Port 8080 leads to a web server there, with the HTTP Host field rewritten.
rule() {  # rule FROM_PORT TO_PORT TRANSLATE_SOURCE FLAG
  echo "{\"fromAdapter\": \"nd-ext\", \"fromPort\": $1, \"protocol\": \"TCP\", \"toAdapter\": \"nd-int\",
         \"toIp\": \"10.1.0.2\", \"toPort\": $2, \"translateSource\": $3, \"$4\": true}"
}
start_session NAT "$(pools 40 10), \"rules\": [$(rule 21 21 false ftpSupport), $(rule 2121 21 true ftpSupport),
  $(rule 8080 80 false httpHostTranslation)]"
make_www "page" 1
serve_http in 10.1.0.2 80 "$WORK/www"
check "port 8080: the web server saw the real client and the Host field rewritten" \
  eval "[ \"\$(page ext http://198.51.100.1:8080/page.html)\" = page ] &&
        grep -qF 'client=198.51.100.2 host=10.1.0.2 path=/page.html' '$WORK/http_in.log'"

# curl would otherwise ignore the address of a 227 reply and reuse the control connection's; the
# internal address the server names there is unreachable outside, so a passive download proves
# that the daemon put its external address there.
ftp_curl() { in_ns ext curl -sS --max-time 30 --no-ftp-skip-pasv-ip "$@"; }
listing() { [ "$(ftp_curl "${@:2}" | sort | tr '\n' ' ')" = "$1" ]; }

for port in 21 2121; do
  url=ftp://198.51.100.1:$port
  ftp_curl --disable-epsv -o "$WORK/pasv$port.bin" "$url/big.bin"
  check "port $port: passive (PASV) download of 4 MB arrives intact" cmp -s "$WORK/ftp/big.bin" "$WORK/pasv$port.bin"
  ftp_curl --disable-eprt -P 198.51.100.2 -o "$WORK/port$port.bin" "$url/big.bin"
  check "port $port: active (PORT) download of 4 MB arrives intact" cmp -s "$WORK/ftp/big.bin" "$WORK/port$port.bin"
done

# (The start-up probe above connected from 10.1.0.2 itself; only sessions that logged in count.)
check "the server saw the real client through port 21 and only the daemon through port 2121" \
  bash -c "grep -Eo 'OK LOGIN: Client \"[0-9.]+\"' '$WORK/vsftpd.log' | sort -u | tr '\n' ' ' |
           grep -qx 'OK LOGIN: Client \"10.1.0.1\" OK LOGIN: Client \"198.51.100.2\" '"
check "PORT reaches the server naming the address it knows the client by" \
  bash -c "grep -q 'Client \"198.51.100.2\", \"PORT 198,51,100,2,' '$WORK/vsftpd.log' &&
           grep -q 'Client \"10.1.0.1\", \"PORT 10,1,0,1,' '$WORK/vsftpd.log'"

# The extended forms carry the port alone (EPSV) or an address and port (EPRT).
check "extended passive (EPSV) listing" listing "big.bin small.txt " -l ftp://198.51.100.1:2121/
check "extended active (EPRT) listing" listing "big.bin small.txt " -P 198.51.100.2 -l ftp://198.51.100.1:2121/
check "the server was asked for EPSV and EPRT, the latter naming the daemon's internal address" \
  bash -c "grep -q '\"EPSV\"' '$WORK/vsftpd.log' && grep -q '\"EPRT |1|10.1.0.1|' '$WORK/vsftpd.log'"
echo PASS
