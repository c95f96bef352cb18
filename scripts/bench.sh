#!/usr/bin/env bash
# Builds the benchmarks in build-bench/ (release build) and runs them. On demand only, never in
# CI: figures are compared within one run, on one machine. Extra arguments go to the benchmark
# program (for example --benchmark_filter=Frame).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
NORVANE_PACKAGES+=(libbenchmark-dev libdeflate-dev)
norvane_install_deps

echo "==> Release build with benchmarks in build-bench/"
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DNORVANE_BENCH=ON -DNORVANE_TESTS=OFF >/dev/null
cmake --build build-bench -j "$(nproc 2>/dev/null || echo 2)" --target FeedBench
echo "==> Codec, line ends and cipher"
build-bench/FeedBench "$@"
