#!/usr/bin/env bash
# Start requests that cannot be met, and frames no one should send: a missing adapter, a
# pool larger than the ephemeral ports (a pool short of descriptors is unit-tested), overlapping
# redirect rules, then thousands of random and lying frames from both sides.
# Every request gets its answer and the daemon keeps translating and finally exits cleanly.
source "$(dirname "$0")/lib.sh"
require_namespaces
nat_topology

for port in 80 81; do mkdir -p "$WORK/www$port" && echo "port $port" > "$WORK/www$port/index.html"; done
serve_http in 10.1.0.2 80 "$WORK/www80"
serve_http in 10.1.0.2 81 "$WORK/www81"
serve_http ext 0.0.0.0 8000 "$WORK/www80"
udp_service ext 0.0.0.0 5353

# answer N PREFIX: the daemon's Nth answer, as the peer printed it, begins with PREFIX.
answer() {
  wait_for 10 eval "[ \$(grep -c '^<- ' '$WORK/peer.log') -ge $1 ]" || true
  [[ "$(grep '^<- ' "$WORK/peer.log" | sed -n "${1}p")" == "<- $2"* ]]
}

# --- 1. Requests that cannot be met.
in_ns nd sysctl -qw net.ipv4.ip_local_port_range="40000 40009"   # ten ephemeral ports
absent='{"interface": "nope1", "absent": true, "mac": "02:00:00:00:00:09", "ip": "10.7.0.1/24"}'
rule() {  # rule TO_PORT
  echo "{\"fromAdapter\": \"nd-ext\", \"fromPort\": 8080, \"protocol\": \"TCP\", \"toAdapter\": \"nd-int\",
         \"toIp\": \"10.1.0.2\", \"toPort\": $1, \"httpHostTranslation\": true}"
}
cat > "$WORK/bad.json" <<JSON
{"steps": [
  {"send": "StartNAT", "mappings": [{"external": "nd-ext", "internal": $absent}], $(pools 5 5), "expect": {}},
  {"waitFile": "$WORK/absent-checked", "within": 60},
  {"send": "StartNAT", $MAP, $(pools 5 20), "expect": {}},
  {"waitFile": "$WORK/ports-restored", "within": 60},
  {"send": "StartNAT", $MAP, "rules": [$(rule 80), $(rule 81)], $(pools 300 300), "expect": {}},
  {"waitFile": "$WORK/blasted", "within": 90},
  {"send": "StopNAT", "expect": {}},
  {"send": "InitializeConfiguration", "HandleVirtualMachine": false, "expect": {"result": 1}},
  {"closePipe": true},
  {"expectExit": {"code": 0, "within": 10}}
]}
JSON
bg in_ns nd "$PEER" --daemon "$DAEMON" --scenario "$WORK/bad.json" > "$WORK/peer.log" 2>&1
peer=$!

check "StartNAT with a missing internal adapter: result 0, and why" eval 'answer 1 "type 9 (StartNAT), result 0 " &&
  log_has "ERROR;Unable to register the drivers for Arp cache." "ERROR;Error opening NAT: ArpCache registration failed"'
check "the daemon host still reaches both sides" reaches nd 198.51.100.2 10.1.0.2
touch "$WORK/absent-checked"

check "a UDP pool of 20 with ten ephemeral ports: result 0, the shortage with the real counts, none for TCP" \
  eval 'answer 2 "type 9 (StartNAT), result 0 " &&
    log_has "ERROR;NAT: error reserving UDP ports, required: 20 reserved: 10" \
      "ERROR;Error opening NAT: error reserving TCP/UDP ports" && fails log_has "error reserving TCP ports"'
in_ns nd sysctl -qw net.ipv4.ip_local_port_range="32768 60999"
touch "$WORK/ports-restored"

# Two rules publish the same port: the session comes up and the first rule wins.
check "overlapping rules: result 1" answer 3 "type 9 (StartNAT), result 1 "

# --- 2. Random and lying frames at the opened NAT from both sides.
cat > "$WORK/blast.py" <<'PY'
import random, socket, struct, sys
iface, count, rnd, mac = sys.argv[1], int(sys.argv[2]), random.Random(int(sys.argv[3])), sys.argv[4]
hosts = [a.split(",") for a in sys.argv[5:9]]  # sources, destinations, source ports, destination ports
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
s.bind((iface, 0))
eth = bytes.fromhex(mac.replace(":", "")) + s.getsockname()[4]
payloads = [b"", b"PORT 10,1,0,2,4,1\r\n", b"227 Entering Passive Mode (10,1,0,2,19,137)\r\n", b"PORT 999,1,2\r\n",
            b"GET / HTTP/1.1\r\nHost: 10.1.0.2\r\n\r\n", b"GET / HTTP/1.1\r\nHost:",
            b"229 Entering Extended (|||6446|)\r\n"]
def frame():  # a few templates filled at random: TCP, UDP, ICMP echo, ARP from ever new senders in 100.64/16
    src, dst = (socket.inet_aton(rnd.choice(h)) for h in hosts[:2])
    sport, dport, body = *(int(rnd.choice(h)) for h in hosts[2:]), rnd.choice(payloads)
    kind = rnd.choice([6, 6, 17, 17, 1, 0x806])
    if kind == 0x806:
        return eth + struct.pack("!HHHBBH6s4s6s4s", kind, 1, 0x800, 6, 4, rnd.choice([1, 2]), eth[6:],
                                 b"\x64\x40" + rnd.randbytes(2), bytes(6), dst)
    l4 = {6: struct.pack("!HHIIBBHHH", sport, dport, rnd.getrandbits(32), 0, 0x50, rnd.choice([2, 16, 24, 17, 4]),
                         65535, 0, 0),
          17: struct.pack("!HHHH", sport, dport, 8 + len(body), 0), 1: struct.pack("!BBHHH", 8, 0, 0, sport, 1)}[kind]
    ip = struct.pack("!HBBHHHBBH4s4s", 0x800, 0x45, 0, 20 + len(l4) + len(body), 1, 0, 64, kind, 0, src, dst)
    return eth + ip + l4 + body
sent = 0
for i in range(count):
    f = bytearray(frame() if rnd.random() < 0.9 else rnd.randbytes(rnd.randint(1, 1514)))  # or pure noise
    for _ in range(rnd.choice([0, 1, 2, 4, 8])):  # lies in the headers, but not in the flow's addresses and ports
        at = rnd.choice([0, 12, 14, 16, 20, 22, 23, 38, 46, 47, 56, 60]) + rnd.randrange(2)
        f[min(at, len(f) - 1)] = rnd.getrandbits(8)
    try: s.send(f[:rnd.randint(1, len(f))] if rnd.random() < 0.2 else f); sent += 1  # cut anywhere, runts too
    except OSError: pass
print(sent)
PY
SEED=${SEED:-$RANDOM}
ND_INT_MAC=$(in_ns nd cat /sys/class/net/nd-int/address)
ND_EXT_MAC=$(in_ns nd cat /sys/class/net/nd-ext/address)
ip netns exec "ext$TAG" tcpdump -Z root -i ext0 -n -U -w "$WORK/out.pcap" \
  "ether src $ND_EXT_MAC and src host 198.51.100.1" 2> "$WORK/tcpdump.err" &
dump=$!
wait_for 10 grep -q "listening on" "$WORK/tcpdump.err"
# An internal host's few flows to a few places (the pools stay big enough); anyone outside, towards
# the published and the pool ports.
from_inside=$(in_ns in python3 "$WORK/blast.py" in0 "${BLAST_FRAMES:-4000}" "$SEED" "$ND_INT_MAC" \
  10.1.0.2,10.1.0.9,172.16.0.1 198.51.100.2,203.0.113.10 1111,2222,3333 21,80,5353)
from_outside=$(in_ns ext python3 "$WORK/blast.py" ext0 "$(( ${BLAST_FRAMES:-4000} / 2 ))" "$((SEED + 1))" \
  "$ND_EXT_MAC" 198.51.100.2,8.8.8.8,198.51.100.1 198.51.100.1 80,21,53 8080,21,40000,60000)
echo "     (seed $SEED: $from_inside frames from inside, $from_outside from outside)"
sleep 1  # let the daemon's queue drain before counting what it translated
kill -INT $dump; wait $dump 2>/dev/null || true
translated=$(tcpdump -r "$WORK/out.pcap" -n 2>/dev/null | wc -l)
check "thousands of frames went out, and the daemon translated a good share of them out of nd-ext ($translated)" \
  test $((from_inside + from_outside)) -ge 5000 -a "$translated" -ge 200
check "source translation, the published port (to the first rule's target) and the host's own traffic work" \
  eval 'test "$(page in http://198.51.100.2:8000/index.html)|$(page ext http://198.51.100.1:8080/index.html)" = \
    "port 80|port 80" && test "$(udp_ask in 198.51.100.2 5353 ping)" = echo:ping && reaches nd 198.51.100.2 10.1.0.2'
touch "$WORK/blasted"

check "StopNAT is answered, and so is a request after it" eval 'answer 4 "type 10 (StopNAT), empty" &&
  answer 5 "type 1 (InitializeConfiguration), result 1 "'
wait "$peer" && status=0 || status=$?
check "the daemon exits with 0 when the pipe closes" \
  bash -c "[ $status -eq 0 ] && grep -q -- '-- daemon exited with status 0' '$WORK/peer.log'"
echo PASS
