#!/usr/bin/env bash
# Fresh machine to running demo: installs every package, builds, runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
bash scripts/build.sh
./build/zrreg demo
