#!/usr/bin/env bash
# Builds and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
# However the run ends, the last line says how the tests weigh against the code.
root=$PWD
trap 'bash "$root/scripts/test-ratio.sh" || true' EXIT
bash scripts/deps.sh
bash scripts/build.sh
cd build
ctest --output-on-failure -j "${JOBS:-$(nproc)}" "$@"
