#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need
# (clang and its runtimes: the libFuzzer targets of fuzz/).
# Runs as root; does nothing when everything is there already.
set -euo pipefail
PACKAGES=(build-essential cmake ninja-build pkg-config git
  libgtest-dev libgmock-dev libbenchmark-dev libomp-dev
  libinsighttoolkit5-dev libgdcm-tools zlib1g-dev libdeflate-dev python3-nibabel clang-format
  clang libclang-rt-dev ccache)
missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  apt-get install -y --no-install-recommends "${missing[@]}"
fi
