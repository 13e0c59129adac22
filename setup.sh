#!/usr/bin/env bash
# One entry point for machines and people: installs what the project needs (Debian packages),
# configures, builds, and runs the demo or the tests.
#
#   ./setup.sh demo        set up, build, run the demo pipeline
#   ./setup.sh test        set up, build, run the whole test suite
#   ./setup.sh asan        the test suite in an AddressSanitizer + UBSan build (build-asan/)
#   ./setup.sh tsan        the concurrency tests in a ThreadSanitizer build (build-tsan/)
#   ./setup.sh bench       build and run the benchmarks (build-bench/)
#   ./setup.sh example     install into a temporary prefix, build examples/peakmeter against it
#                          and run it through the installed zr
#   ./setup.sh fuzz [SECONDS]  fuzz the wire decoder (two thirds of the time) and the recording
#                          reader (clang + libFuzzer, build-fuzz/), default 60 s in all
#   ./setup.sh format      check that every C++ file is as clang-format leaves it (.clang-format)
#   ./setup.sh deps        only install the packages
#   ./setup.sh build       only install and build (build/)
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(
  build-essential cmake ninja-build pkg-config git
  libboost-dev libboost-thread-dev libboost-system-dev
  libsndfile1-dev libasound2-dev libsamplerate0-dev libfftw3-dev
  libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  gnuplot-nox espeak-ng sox
  # the live-latency benchmark keeps the other core busy with it
  stress-ng
  libzmq3-dev cppzmq-dev libmsgpack-cxx-dev
  # zr's allocator
  libjemalloc-dev
  # recordings: the container's chunk codecs and CRC-32; node runs the reference implementation
  # the container's tests compare with (npm comes with it, or below)
  libzstd-dev liblz4-dev zlib1g-dev nodejs
  # the bridge's page is tested in a headless browser
  chromium
  clang libfuzzer-14-dev clang-format
  # for Debian's /usr/bin/python3, which the Python client and its extractors run on (not a python3
  # that comes first on the PATH)
  python3-zmq python3-msgpack python3-pytest python3-numpy
  # the client's reader of recordings decompresses their chunks with these
  python3-zstandard python3-lz4
  # SoundLocalization's evaluation (tools/loceval): room simulation
  python3-scipy
)

install_deps() {
  local missing=()
  for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  local sudo=()
  if [ "$(id -u)" -ne 0 ]; then sudo=(sudo); fi
  echo "setup: installing ${missing[*]}" >&2
  "${sudo[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
}

# install_npm DIR: the reference implementations' npm packages that the tests of the recording
# container and the bridge run, pinned by tests/npm/package-lock.json, into DIR/npm (never the
# source tree).
install_npm() {
  local dir=$1/npm lock=tests/npm/package-lock.json
  if ! command -v npm >/dev/null 2>&1; then
    # Debian's nodejs comes without npm; another nodejs may bring its own (and conflict with it).
    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then sudo=(sudo); fi
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends npm >/dev/null
  fi
  if cmp -s "$lock" "$dir/package-lock.json" && [ -d "$dir/node_modules" ]; then
    return 0
  fi
  mkdir -p "$dir"
  cp tests/npm/package.json "$lock" "$dir/"
  npm ci --prefix "$dir" --ignore-scripts --no-audit --no-fund --loglevel=error
}

# build DIR [cmake options...]
build() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$(nproc)"
}

run_tests() {
  local dir=$1
  shift
  ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" --timeout 300 "$@"
}

cmd=${1:-test}
case "$cmd" in
  deps) install_deps ;;
  build) install_deps; build build -DZR_BUILD_BENCHMARKS=ON; install_npm build ;;
  format)
    install_deps
    git ls-files -z -- '*.cpp' '*.h' | xargs -0 clang-format --dry-run -Werror
    echo "format: every C++ file is formatted"
    ;;
  test)
    install_deps
    build build -DZR_BUILD_BENCHMARKS=ON
    install_npm build
    run_tests build
    ;;
  asan)
    install_deps
    build build-asan -DZR_SANITIZE=address,undefined
    install_npm build-asan
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 run_tests build-asan
    ;;
  tsan)
    install_deps
    build build-tsan -DZR_SANITIZE=thread
    install_npm build-tsan
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" run_tests build-tsan -L concurrency
    ;;
  bench)
    install_deps
    build build-bench -DCMAKE_BUILD_TYPE=Release -DZR_BUILD_TESTS=OFF -DZR_BUILD_BENCHMARKS=ON
    for b in build-bench/bench/bench_*; do [ -x "$b" ] && "$b"; done
    bench/zr_run_speed.sh build-bench/tools/zr/zr
    bench/zr_run_remote_speed.sh build-bench/tools/zr/zr
    bench/zr_list_after_kill.sh build-bench/tools/zr/zr
    # live latency with the machine's other core busy
    stress-ng --cpu 1 --timeout 120 >/dev/null &
    build-bench/bench/bench_pipeline_remote --benchmark_filter=Live
    kill %% 2>/dev/null || true
    /usr/bin/python3 bench/bench_python_extractor.py build-bench/tools/zr/zr
    ;;
  example)
    install_deps
    build build -DZR_BUILD_BENCHMARKS=ON
    prefix=$(mktemp -d)
    cmake --install build --prefix "$prefix" >/dev/null
    rm -rf build-example
    cmake -S examples/peakmeter -B build-example -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
    cmake --build build-example
    "$prefix/bin/zr" run --load build-example/libpeakmeter.so --extractor PeakMeter --format jsonl \
      --output build-example/peaks.jsonl
    echo "example: $(wc -l < build-example/peaks.jsonl) results from the installed zr"
    test "$(wc -l < build-example/peaks.jsonl)" -gt 50
    rm -rf "$prefix"
    ;;
  fuzz)
    install_deps
    seconds=${2:-60}
    CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DZR_BUILD_TESTS=OFF -DZR_BUILD_FUZZERS=ON >/dev/null
    cmake --build build-fuzz -j "$(nproc)" --target zrnet_fuzz_decoder zrnet_fuzz_seeds \
      zrmcap_fuzz_reader zrmcap_fuzz_seeds
    mkdir -p build-fuzz/corpus build-fuzz/seeds build-fuzz/corpus-mcap build-fuzz/seeds-mcap
    build-fuzz/libzrnet/zrnet_fuzz_seeds build-fuzz/seeds
    build-fuzz/libzrmcap/zrmcap_fuzz_seeds build-fuzz/seeds-mcap
    # The grown corpora stay in build-fuzz/corpus* for the next run; crashes land in build-fuzz/.
    build-fuzz/libzrnet/zrnet_fuzz_decoder -max_total_time=$((seconds * 2 / 3)) -max_len=4096 \
      -artifact_prefix=build-fuzz/ build-fuzz/corpus build-fuzz/seeds
    build-fuzz/libzrmcap/zrmcap_fuzz_reader -max_total_time=$((seconds - seconds * 2 / 3)) \
      -max_len=8192 -artifact_prefix=build-fuzz/mcap- build-fuzz/corpus-mcap build-fuzz/seeds-mcap
    ;;
  demo)
    install_deps
    build build -DZR_BUILD_BENCHMARKS=ON
    ./build/tools/zr/zr run
    ;;
  *)
    echo "usage: $0 demo|test|asan|tsan|bench|example|fuzz [SECONDS]|format|deps|build" >&2
    exit 2
    ;;
esac
