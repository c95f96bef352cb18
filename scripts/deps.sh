#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, only when one is missing.
# Sourced by run.sh and test.sh; usable on its own: bash scripts/deps.sh
set -euo pipefail

NORVANE_PACKAGES=(g++ cmake make zlib1g-dev libgtest-dev libgmock-dev libssl-dev clang-format
  dpkg-dev)

norvane_install_deps() {
  local missing=()
  local pkg
  for pkg in "${NORVANE_PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("$pkg")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then
    echo "==> Build dependencies present: ${NORVANE_PACKAGES[*]}"
    return 0
  fi
  echo "==> Installing missing packages: ${missing[*]}"
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  $sudo apt-get update -q
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  norvane_install_deps
fi
