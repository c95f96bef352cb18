#!/usr/bin/env bash
# The main job: builds everything (installing what is missing) and runs norvaned.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
norvane_install_deps

echo "==> Building everything in build/"
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)"
echo "==> Running build/norvaned"
./build/norvaned
