#!/usr/bin/env bash
# Sets up a Debian 12 machine for qf-forms and builds it into ./build.
# Installs the missing packages with apt-get (as root, or through sudo), then
# configures and builds. Safe to run again: when everything is installed it goes
# straight to the (incremental) build.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

packages=(
  build-essential cmake ninja-build pkg-config
  libqpdf-dev qpdf nlohmann-json3-dev libvalijson-dev libboost-dev
  libharfbuzz-dev libfreetype-dev libfontconfig-dev fonts-dejavu-core fonts-ipafont-gothic
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  python3 python3-pypdf python3-pycryptodome poppler-utils poppler-data mupdf-tools
  clang libclang-rt-14-dev
  chromium
)
# Node.js and npm for the editor's page: the machine's own when it has them.
if ! command -v npm >/dev/null; then
  packages+=(nodejs npm)
fi

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)
  if [[ "$status" != installed ]]; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo=()
  if [[ $(id -u) -ne 0 ]]; then
    if command -v sudo >/dev/null; then
      sudo=(sudo)
    else
      echo "setup: run as root to install: ${missing[*]}" >&2
      exit 1
    fi
  fi
  export DEBIAN_FRONTEND=noninteractive
  "${sudo[@]}" apt-get update
  "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}" </dev/null
fi

# The editor's page takes pdf.js and, for its browser tests, playwright-core from npm, as
# the lock file pins them; after this nothing needs the network.
if [[ ! -f Web/node_modules/.package-lock.json ||
      Web/package-lock.json -nt Web/node_modules/.package-lock.json ]]; then
  echo "setup: installing the editor's npm packages"
  npm ci --prefix Web --no-audit --no-fund </dev/null
fi

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build
