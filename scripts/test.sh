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

stage "AddressSanitizer + UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKESTRIN_SANITIZE=address,undefined -DKESTRIN_BUILD_BENCH=OFF > /dev/null
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1:halt_on_error=1:abort_on_error=1 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    ctest --test-dir build-asan --output-on-failure -j "$jobs" -L 'unit|concurrency'

stage "ThreadSanitizer (concurrency tests)"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKESTRIN_SANITIZE=thread -DKESTRIN_BUILD_BENCH=OFF > /dev/null
cmake --build build-tsan -j "$jobs"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir build-tsan --output-on-failure -L concurrency --no-tests=error

if compgen -G "fuzz/*Fuzz.cpp" > /dev/null; then
    stage "fuzz targets (60 s each)"
    "$root/scripts/fuzz.sh" 60
fi

echo
echo "all test stages passed"
