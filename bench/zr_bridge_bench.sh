#!/usr/bin/env bash
# What the live bridge costs and how fast it delivers: one host with SoundLevel and VoiceActivity
# on speech paced at real time in 10 ms buffers, both at a 10 ms period, and `zr bridge` as a
# process of its own; VIEWERS reference clients (default 20) each subscribed to every channel.
# Over SECONDS (default 5, after 2 s of warm-up) it prints the bridge's and the host's CPU (% of
# one core, from /proc/PID/stat), the messages per second per viewer, the SoundLevel/Levels rate
# against the 10 ms period, and the latency from capture to viewer (p50/p99; it includes the
# 10 ms buffer the levels are computed over), then the bridge's row of `zr top`.
#   bench/zr_bridge_bench.sh [ZR] [SECONDS] [VIEWERS] [NPM_DIR]
# NPM_DIR (default build/npm, where ./setup.sh build installs them) holds the reference client.
source "$(dirname "$0")/zr_network.sh"
seconds=${2:-5}
viewers=${3:-20}
npm=${4:-build/npm}
period=10
[ -d "$npm/node_modules/@foxglove/ws-protocol" ] ||
  { echo "no reference client in $npm: ./setup.sh build installs it" >&2; exit 1; }

# The line of LOG that has TEXT, once the process PID writes it.
line() {
  until grep -m1 "$3" "$2"; do
    kill -0 "$1" 2>/dev/null || { cat "$2" >&2; exit 1; }
    sleep 0.05
  done
}

# Speech for the whole run, so that VoiceActivity has something to say: the sample, repeated.
sox data/sample.wav "$work/speech.wav" repeat $(((seconds + 30) / 10))
serve benchhost --device "$work/speech.wav" --realtime --buffer $((16000 * period / 1000)) \
  --memory -e SoundLevel -e VoiceActivity
host=${hosts[-1]}
line "$host" "$work/benchhost.log" serving >/dev/null
# The period: a subscriber that asks for it, updated once so that the extractor applies it.
for x in SoundLevel VoiceActivity; do
  "$zr" call $x subscribe bench.period $period 0.0
  "$zr" call $x updatePeriod bench.period $period
done
"$zr" bridge --port 0 --name bench >"$work/bridge.log" 2>&1 &
hosts+=($!)
bridge=$!
url=$(line "$bridge" "$work/bridge.log" "bridge on" | grep -o 'http://[^ ]*')
ZR_BENCH_AFTER="'$zr' top --once -f jsonl | grep '\"type\":\"bridge\"' || true" \
  node bench/zr_bridge_bench.cjs "$npm" "$url" "$viewers" "$seconds" "$period" \
  "$(getconf CLK_TCK)" "bridge=$bridge" "host=$host"
