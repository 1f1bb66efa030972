#!/usr/bin/env bash
# Prints how many lines the tests have against the code (C++ sources and
# headers under tests/ and src/); the project keeps tests at a quarter to a
# third of the code.
set -euo pipefail
cd "$(dirname "$0")/.."
count() { find "$1" \( -name '*.cpp' -o -name '*.h' \) -print0 | xargs -0 cat | wc -l; }
src=$(count src)
tests=$(count tests)
awk -v s="$src" -v t="$tests" \
  'BEGIN { printf "test lines: %d of %d lines of src/ (%.1f %%; the aim is 25 to 33 %%)\n", t, s, 100 * t / s }'
