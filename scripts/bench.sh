#!/usr/bin/env bash
# Builds the benchmarks in build-bench/ (release build) and runs them: FeedBench (codec, line ends,
# cipher), then FeedLoad (the real norvaned and norvane clients on 127.0.0.1). On demand only,
# never in CI: figures are compared within one run, on one machine. Arguments before "--" go to
# FeedBench (for example --benchmark_filter=Frame), those after it to FeedLoad (for example
# --quick or --case a,f; FeedLoad --help lists them):
#   bash scripts/bench.sh --benchmark_filter=Frame -- --quick
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
NORVANE_PACKAGES+=(libbenchmark-dev libdeflate-dev)
norvane_install_deps

echo "==> Release build with benchmarks in build-bench/"
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DNORVANE_BENCH=ON -DNORVANE_TESTS=OFF >/dev/null
cmake --build build-bench -j "$(nproc 2>/dev/null || echo 2)" --target FeedBench FeedLoad

micro=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do micro+=("$1"); shift; done
[ $# -gt 0 ] && shift  # the "--"

echo "==> Codec, line ends and cipher"
build-bench/FeedBench "${micro[@]}"
echo "==> End to end: norvaned and norvane clients on 127.0.0.1"
build-bench/FeedLoad "$@"
