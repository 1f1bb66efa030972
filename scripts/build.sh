#!/usr/bin/env bash
# Configures and builds into build/ (Release). Extra arguments go to cmake.
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-$(nproc)}
# Paths below the checkout are hashed relative to it, so build trees of other
# checkouts share the compiler cache.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release "$@"
cmake --build build -j "$JOBS"
