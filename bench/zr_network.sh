# Sourced by the benchmarks that start zr hosts: `zr` from $1 (default the bench build), a
# directory address of their own, a scratch directory, and the hosts in `hosts` killed at exit.
set -euo pipefail
cd "$(dirname "$0")/.."
zr=${1:-build-bench/tools/zr/zr}
[ -x "$zr" ] || { echo "no zr at $zr: ./setup.sh bench builds one" >&2; exit 1; }
port=$((20000 + RANDOM % 20000))
export ZR_DIRECTORY=tcp://127.0.0.1:$port
work=$(mktemp -d)
hosts=()
cleanup() {
  for h in "${hosts[@]}"; do kill "$h" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
