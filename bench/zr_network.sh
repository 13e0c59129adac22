# Sourced by the benchmarks that start zr hosts: `zr` from $1 (default the bench build), a
# scratch directory, `serve` for a host with a directory of their own, and the hosts in `hosts`
# killed at exit.
set -euo pipefail
cd "$(dirname "$0")/.."
zr=${1:-build-bench/tools/zr/zr}
[ -x "$zr" ] || { echo "no zr at $zr: ./setup.sh bench builds one" >&2; exit 1; }
work=$(mktemp -d)
# serve NAME [ARG]...: `zr host --name NAME` serving the directory on a port the system picks,
# its log in $work/NAME.log; ZR_DIRECTORY says where once it serves.
serve() {
  local name=$1
  shift
  "$zr" host --name "$name" --serve-directory --directory tcp://127.0.0.1:0 "$@" \
    >"$work/$name.log" 2>&1 &
  hosts+=($!)
  until grep -q "serves the directory at" "$work/$name.log"; do
    kill -0 "${hosts[-1]}" 2>/dev/null || { cat "$work/$name.log" >&2; exit 1; }
    sleep 0.05
  done
  export ZR_DIRECTORY=$(sed -n 's/.*serves the directory at //p' "$work/$name.log")
}
hosts=()
cleanup() {
  for h in "${hosts[@]}"; do kill "$h" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
