#!/usr/bin/env bash
# Start requests that cannot be met, and frames no one should send: missing adapters,
# pools larger than the system gives (too few ephemeral ports; too few descriptors),
# overlapping redirect rules, then thousands of random and lying frames from both sides.
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
go_on() { touch "$WORK/$1"; }
nat_works() {
  test "$(page in http://198.51.100.2:8000/index.html)" = "port 80" && test "$(udp_ask in 198.51.100.2 5353 ping)" = "echo:ping"
}
published_works() { test "$(page ext http://198.51.100.1:8080/index.html)" = "port 80"; }

# --- 1. Descriptors run out: a daemon allowed 64 open files asked for 100 TCP ports.
cat > "$WORK/nofile.json" <<JSON
{"steps": [
  {"send": "StartNAT", $MAP, $(pools 100 5), "expect": {"result": 0}},
  {"send": "StartNAT", $MAP, $(pools 10 10), "expect": {"result": 1}},
  {"closePipe": true},
  {"expectExit": {"code": 0, "within": 10}}
]}
JSON
# The sanitizers need descriptors of their own (to report, even to check a pointer), so a
# sanitized daemon cannot meaningfully be starved of them.
if ldd "$DAEMON" | grep -qE "libasan|libubsan"; then
  echo "skip - descriptor exhaustion (sanitized build)"
else
  in_ns nd prlimit --nofile=64:64 "$PEER" --daemon "$DAEMON" --scenario "$WORK/nofile.json" > "$WORK/peer.log" 2>&1 &&
    status=0 || status=$?
  reserved=$(sed -n 's/.*ERROR;NAT: error reserving TCP ports, required: 100 reserved: \([0-9]*\)$/\1/p' "$LOG")
  check "with 64 descriptors a 100-port TCP pool is refused: result 0, $reserved reserved, the failure logged" \
    bash -c "grep -q '^<- type 9 (StartNAT), result 0 ' '$WORK/peer.log' && [ '${reserved:-100}' -lt 100 ] &&
             grep -q 'ERROR;Error opening NAT: error reserving TCP/UDP ports' '$LOG'"
  check "the next start fits once the failed pool is gone: result 1, clean exit" \
    bash -c "[ $status -eq 0 ] && grep -q '^<- type 9 (StartNAT), result 1 ' '$WORK/peer.log'"
  mv "$LOG" "$WORK/nofile_log.txt"
fi

# --- 2. One daemon through everything else.
in_ns nd sysctl -qw net.ipv4.ip_local_port_range="40000 40009"   # ten ephemeral ports
absent='{"interface": "nope1", "absent": true, "mac": "02:00:00:00:00:09", "ip": "10.7.0.1/24"}'
rule() {  # rule TO_PORT
  echo "{\"fromAdapter\": \"nd-ext\", \"fromPort\": 8080, \"protocol\": \"TCP\", \"toAdapter\": \"nd-int\",
         \"toIp\": \"10.1.0.2\", \"toPort\": $1, \"httpHostTranslation\": true}"
}
cat > "$WORK/bad.json" <<JSON
{"steps": [
  {"send": "StartVPN", "SupervisorMACAddress": "02:00:00:00:0e:01", "adapters": ["nope0"], "expect": {}},
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
in_ns nd "$PEER" --daemon "$DAEMON" --scenario "$WORK/bad.json" > "$WORK/peer.log" 2>&1 &
peer=$!
_pids+=($peer)

check "StartVPN on a missing interface: result 0, the adapter named in the log" eval 'answer 1 "type 3 (StartVPN), result 0 " &&
  log_has "Error opening Virtual Ethernet adapter (GUID: {65706F6E-0030-0000-0000-000000000000})."'
check "StartNAT with a missing internal adapter: result 0, and why" eval 'answer 2 "type 9 (StartNAT), result 0 " &&
  log_has "ERROR;Unable to register the drivers for Arp cache." "ERROR;Error opening NAT: ArpCache registration failed"'
check "the daemon host still reaches both sides" reaches nd 198.51.100.2 10.1.0.2
go_on absent-checked

check "a UDP pool of 20 with ten ephemeral ports: result 0, the shortage with the real counts" \
  eval 'answer 3 "type 9 (StartNAT), result 0 " && log_has "ERROR;NAT: error reserving UDP ports, required: 20 reserved: 10" \
                                                            "ERROR;Error opening NAT: error reserving TCP/UDP ports"'
check "the TCP pool of 5 was not reported short" fails log_has "error reserving TCP ports"
in_ns nd sysctl -qw net.ipv4.ip_local_port_range="32768 60999"
go_on ports-restored

# Two rules publish the same port: the session comes up and the first rule wins.
check "overlapping rules: result 1" answer 4 "type 9 (StartNAT), result 1 "
check "the published port leads to the first rule's target" published_works
check "source translation works" nat_works

# --- 3. Random and lying frames at the opened NAT from both sides.
cat > "$WORK/blast.py" <<'PY'
import os, random, socket, struct, sys
iface, count, seed, role = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4]
peer_mac = bytes.fromhex(sys.argv[5].replace(":", ""))
rnd = random.Random(seed)
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
s.bind((iface, 0))
own = bytes.fromhex(open("/sys/class/net/%s/address" % iface).read().strip().replace(":", ""))
def ip(text): return socket.inet_aton(text)
if role == "internal":   # an internal host, a few flows to a few places (the pools stay big enough)
    sources, dests = ["10.1.0.2", "10.1.0.9", "172.16.0.1"], ["198.51.100.2", "203.0.113.10", "198.51.100.77"]
    sports, dports = [1111, 2222, 3333, 4444], [21, 80, 5353, 8000]
else:                    # the outside: anyone, towards the published and the pool ports
    sources, dests = ["198.51.100.2", "203.0.113.10", "8.8.8.8", "198.51.100.1"], ["198.51.100.1"]
    sports, dports = [80, 21, 5353, 53, 8000], [8080, 21, 40000, 45000, 60000]
payloads = [b"", b"PORT 10,1,0,2,4,1\r\n", b"227 Entering Passive Mode (10,1,0,2,19,137)\r\n",
            b"GET / HTTP/1.1\r\nHost: 10.1.0.2\r\n\r\n", b"GET / HTTP/1.1\r\nHost:", b"PORT 999,1,2\r\n",
            b"EPSV\r\n229 Entering Extended Passive Mode (|||6446|)\r\n"]
def junk(n): return bytes(rnd.getrandbits(8) for _ in range(n))
def dst_mac(): return rnd.choice([peer_mac] * 6 + [b"\xff" * 6, b"\x01\x00\x5e\x00\x00\x01", junk(6)])
def ipv4(proto, payload):
    ihl = rnd.choice([5] * 12 + [0, 1, 4, 6, 15])
    total = rnd.choice([20 + len(payload)] * 8 + [0, 19, 65535, rnd.getrandbits(16)])
    frag = rnd.choice([0] * 8 + [0x2000, 0x2000 | rnd.getrandbits(13), rnd.getrandbits(13), 0x4000])
    header = struct.pack("!BBHHHBBH4s4s", 0x40 | ihl, 0, total, rnd.choice([7, 8, rnd.getrandbits(16)]), frag,
                         rnd.choice([64, 0, 1]), proto, rnd.getrandbits(16), ip(rnd.choice(sources)), ip(rnd.choice(dests)))
    return header + junk(max(0, (ihl - 5) * 4) if rnd.random() < 0.5 else 0) + payload
def tcp():
    offset = rnd.choice([5] * 8 + [0, 4, 8, 15])
    flags = rnd.choice([0x02, 0x10, 0x18, 0x11, 0x04, 0x12, 0x01, rnd.getrandbits(8)])
    h = struct.pack("!HHIIBBHHH", rnd.choice(sports), rnd.choice(dports), rnd.getrandbits(32), rnd.getrandbits(32),
                    offset << 4, flags, 65535, rnd.getrandbits(16), 0)
    return h + junk(rnd.choice([0, 4, 40])) + rnd.choice(payloads)
def udp():
    body = rnd.choice(payloads) + junk(rnd.choice([0, 3, 100]))
    return struct.pack("!HHHH", rnd.choice(sports), rnd.choice(dports), rnd.choice([8 + len(body), 0, 7, 65535]), 0) + body
def arp():
    return struct.pack("!HHBBH", 1, 0x0800, rnd.choice([6, 0, 255]), rnd.choice([4, 0, 16]), rnd.choice([1, 2, 2, 3])) + \
        junk(6) + ip("100.64.%d.%d" % (rnd.getrandbits(8), rnd.getrandbits(8))) + junk(6) + junk(4)
sent = 0
for i in range(count):
    kind = rnd.random()
    if kind < 0.15:    frame = junk(rnd.randint(1, 1514))                                        # noise, runts included
    elif kind < 0.25:  frame = dst_mac() + own + b"\x08\x00" + junk(rnd.randint(0, 40))          # IPv4 runts
    elif kind < 0.35:  frame = dst_mac() + own + b"\x08\x06" + arp()[:rnd.choice([0, 8, 20, 28])]
    else:
        proto = rnd.choice([6, 6, 17, 17, 1, rnd.getrandbits(8)])
        body = tcp() if proto == 6 else udp() if proto == 17 else junk(rnd.randint(0, 60))
        frame = dst_mac() + own + b"\x08\x00" + ipv4(proto, body)
        if rnd.random() < 0.2: frame = frame[:rnd.randint(14, len(frame))]                       # cut anywhere
    frame = frame[:1514]
    try: s.send(frame); sent += 1
    except OSError: pass
print(sent)
PY
SEED=${SEED:-$RANDOM}
ND_INT_MAC=$(in_ns nd cat /sys/class/net/nd-int/address)
ND_EXT_MAC=$(in_ns nd cat /sys/class/net/nd-ext/address)
ip netns exec "ext$TAG" tcpdump -Z root -i ext0 -n -U -w "$WORK/out.pcap" "ether src $ND_EXT_MAC and src host 198.51.100.1" 2> "$WORK/tcpdump.err" &
dump=$!
wait_for 10 grep -q "listening on" "$WORK/tcpdump.err"
from_inside=$(in_ns in python3 "$WORK/blast.py" in0 "${BLAST_FRAMES:-4000}" "$SEED" internal "$ND_INT_MAC")
from_outside=$(in_ns ext python3 "$WORK/blast.py" ext0 "$(( ${BLAST_FRAMES:-4000} / 2 ))" "$((SEED + 1))" external "$ND_EXT_MAC")
echo "     (seed $SEED: $from_inside frames from inside, $from_outside from outside)"
sleep 1  # let the daemon's queue drain before counting what it translated
kill -INT $dump; wait $dump 2>/dev/null || true
translated=$(tcpdump -r "$WORK/out.pcap" -n 2>/dev/null | wc -l)
echo "     ($translated of them translated out of nd-ext)"
check "thousands of frames went out" test $((from_inside + from_outside)) -ge 5000
check "and the daemon translated a good share of them (not all refused at the door)" test "$translated" -ge 200
check "the daemon is still running" daemon_running nd
check "source translation, the published port and the daemon host's own traffic still work" \
  eval "nat_works && published_works && reaches nd 198.51.100.2 10.1.0.2"
go_on blasted

check "StopNAT is answered, and so is a request after it" eval 'answer 5 "type 10 (StopNAT), empty" &&
  answer 6 "type 1 (InitializeConfiguration), result 1 "'
wait "$peer" && status=0 || status=$?
check "the daemon exits with 0 when the pipe closes" \
  bash -c "[ $status -eq 0 ] && grep -q -- '-- daemon exited with status 0' '$WORK/peer.log'"
echo PASS
