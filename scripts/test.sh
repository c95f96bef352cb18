#!/usr/bin/env bash
# Builds everything and runs every test twice: a plain build with warnings as errors, then a
# build under AddressSanitizer and UndefinedBehaviorSanitizer. Also checks the source format, and
# runs each fuzzer of fuzz/ briefly (25 s, two at a time): a finding fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
norvane_install_deps test

jobs=$(nproc 2>/dev/null || echo 2)

echo "==> Checking source format (clang-format)"
git ls-files '*.cpp' '*.h' 2>/dev/null | xargs -r clang-format --dry-run --Werror

echo "==> Plain build in build/"
cmake -S . -B build -DNORVANE_WERROR=ON >/dev/null
cmake --build build -j "$jobs"
echo "==> Tests (plain build)"
ctest --test-dir build --output-on-failure -j "$jobs"

echo "==> Sanitizer build in build-asan/ (address, undefined)"
cmake -S . -B build-asan -DNORVANE_WERROR=ON -DNORVANE_SANITIZE=address,undefined \
  -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build-asan -j "$jobs"
echo "==> Tests (sanitizer build)"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"
echo "==> Fuzzers (scripts/fuzz.sh; run it with -t SECONDS for longer runs)"
bash scripts/fuzz.sh -t 25 -j "$jobs"
echo "==> All tests passed in both builds"
