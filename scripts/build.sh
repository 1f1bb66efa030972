#!/usr/bin/env bash
# Configures and builds into build/ (Release). Extra arguments go to cmake.
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-$(nproc)}
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release "$@"
cmake --build build -j "$JOBS"
