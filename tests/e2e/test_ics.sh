#!/usr/bin/env bash
# Internet connection sharing: an internal host reaches hosts beyond the shared adapter over
# ICMP, TCP and UDP and they only see the shared adapter's address; traffic to the private
# ranges (10/8, 172.16/12, 192.168/16) is left alone, except name look-ups and the proxy.
source "$(dirname "$0")/lib.sh"
require_namespaces
nat_topology
in_ns nd sysctl -qw net.ipv4.ping_group_range="0 2147483647"  # ping sockets hold the echo identifiers
public=(203.0.113.10 172.15.0.10 172.32.0.10)
private=(192.168.77.10 10.99.0.10 172.16.0.10 172.31.255.10)
for address in "${public[@]:1}" "${private[@]}" 192.168.77.53 192.168.77.80; do  # 203.0.113.10 is there
  in_ns ext ip addr add "$address/32" dev lo
done
make_www "external page" 1  # big downloads through ICS: in the sessions test
serve_http ext 0.0.0.0 8000 "$WORK/www"
serve_http ext 192.168.77.80 3128 "$WORK/www"
udp_service ext 198.51.100.2 5353
udp_service ext 192.168.77.53 5353
udp_service ext 192.168.77.53 53
start_session ICS "\"sharedAdapter\": \"nd-ext\", \"internalAdapters\": [\"nd-int\"], $(pools 20 10),
  \"proxy\": {\"ip\": \"192.168.77.80\", \"port\": 3128, \"mac\": \"$(in_ns ext cat /sys/class/net/ext0/address)\"}"
check "the engine is the sharing one" log_has "ICS process successfully initialized"
check "echo identifiers are held by ping sockets" fails log_has "error reserving ICMP identifiers"

# Forwarding is off: only what the daemon translates crosses. Two pings at once with
# different identifiers are both answered, and the host's own ping meanwhile as well.
ping5() { in_ns "$1" ping -q -c 5 -i 0.2 -W 2 "${@:3}" 203.0.113.10 > "$WORK/ping_$2" 2>&1; }
ping5 in 1111 -e 1111 & p1=$!
ping5 in 2222 -e 2222 & p2=$!
ping5 nd host & p3=$!
wait $p1 $p2 $p3 || true
for who in 1111 2222 host; do check "every echo of ping $who came back" grep -q ' 5 received' "$WORK/ping_$who"; done

# "Left alone" must be visible, not merely "did not arrive": the daemon's namespace now
# forwards, and the external side routes the internal network back through it. A frame
# passed on untranslated arrives with the internal host's own address, a translated one
# with the shared address.
in_ns nd sysctl -qw net.ipv4.ip_forward=1
in_ns ext ip route add 10.1.0.0/24 via 198.51.100.1
# page_seen URL_HOST CLIENT: the page comes, and the server saw only CLIENT asking for it.
page_seen() {
  test "$(page in "http://$1/page.html")" = "external page" && grep -q "client=$2 host=$1 " "$WORK/http_ext.log" &&
    ! grep "host=$1 " "$WORK/http_ext.log" | grep -vq "client=$2 "
}
for case in "${public[@]/%/:8000 198.51.100.1}" "${private[@]/%/:8000 10.1.0.2}" \
            "192.168.77.80:3128 198.51.100.1" "192.168.77.80:8000 10.1.0.2"; do
  check "a page from ${case% *}, which saw ${case#* }" page_seen $case
done

answers=$(udp_ask in 198.51.100.2 5353 a; udp_ask in 192.168.77.53 5353 b; udp_ask in 192.168.77.53 53 c)
check "UDP to an external host, a private host and a private name server" \
  test "$answers" = "$(printf 'echo:%s\n' a b c)"
check "the external UDP service and the resolver saw only the shared address, the private one the host" \
  test "$(udp_clients 198.51.100.2 5353)|$(udp_clients 192.168.77.53 53)|$(udp_clients 192.168.77.53 5353)" = \
       "client=198.51.100.1 |client=198.51.100.1 |client=10.1.0.2 "
echo PASS
