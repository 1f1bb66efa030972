#!/usr/bin/env bash
# Builds and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
bash scripts/build.sh
cd build
ctest --output-on-failure -j "${JOBS:-$(nproc)}" "$@"
