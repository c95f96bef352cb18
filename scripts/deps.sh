#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, only when one is missing.
# Sourced by run.sh and test.sh; usable on its own: bash scripts/deps.sh [test]
set -euo pipefail

NORVANE_PACKAGES=(g++ cmake make pkg-config zlib1g-dev libcpp-httplib-dev libgtest-dev
  libgmock-dev libssl-dev clang-format dpkg-dev)
# Only for the tests: the browser that the web view's test drives, and the script that drives it;
# clang, libclang-rt-dev (libFuzzer and the sanitizer runtimes) and llvm (llvm-symbolizer, for
# readable stacks), which build and run the fuzzers in fuzz/.
NORVANE_TEST_PACKAGES=(chromium python3 clang libclang-rt-dev llvm)

# norvane_install_deps [test]: the build packages, and with "test" the test packages as well.
norvane_install_deps() {
  local wanted=("${NORVANE_PACKAGES[@]}")
  if [ "${1:-}" = test ]; then wanted+=("${NORVANE_TEST_PACKAGES[@]}"); fi
  local missing=()
  local pkg
  for pkg in "${wanted[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("$pkg")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then
    echo "==> Dependencies present: ${wanted[*]}"
    return 0
  fi
  echo "==> Installing missing packages: ${missing[*]}"
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  norvane_install_deps "$@"
fi
