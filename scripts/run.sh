#!/usr/bin/env bash
# The main job: builds norvaned (installing what is missing) and runs it.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
norvane_install_deps

echo "==> Building norvaned in build/"
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target norvaned
echo "==> Running build/norvaned"
./build/norvaned
