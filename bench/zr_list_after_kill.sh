#!/usr/bin/env bash
# `zr list` right after a host with two modules was killed with SIGKILL: its wall time, and
# whether it still lists the dead host's modules (it may, until the directory finds the host
# dead; it never waits on them).
#
#   bench/zr_list_after_kill.sh [path/to/zr] [runs]   (default: build-bench/tools/zr/zr, 5 runs)
source "$(dirname "$0")/zr_network.sh"
runs=${2:-5}
serve directory -e SoundLevel --log-level error
for run in $(seq "$runs"); do
  "$zr" host --name victim --memory --device tone:440 --log-level error >"$work/victim.log" 2>&1 &
  victim=$!
  until "$zr" list --format jsonl 2>/dev/null | grep -q '"name":"ZRAudioDevice"'; do sleep 0.05; done
  kill -9 "$victim"
  wait "$victim" 2>/dev/null || true
  start=$(date +%s.%N)
  listed=$("$zr" list --format jsonl | grep -cE '"name":"(ZRMemory|ZRAudioDevice)"' || true)
  end=$(date +%s.%N)
  awk -v s="$start" -v e="$end" -v n="$listed" -v r="$run" \
    'BEGIN { printf "run %d: zr list %.3f s, dead host modules listed: %d\n", r, e - s, n }'
done
