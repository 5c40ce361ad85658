#!/usr/bin/env bash
# The one command that installs what is missing, builds everything and runs every test:
# the GoogleTest suites and end-to-end tests (the short hostile-load run among them), the
# same suites and most attacks under AddressSanitizer and UndefinedBehaviorSanitizer, the
# concurrency tests and the attacks on connections under ThreadSanitizer, and a short run of
# each fuzz target.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

"$root/scripts/bootstrap.sh" --tests

jobs=$(nproc)
stage() { printf '\n=== %s\n' "$*"; }

stage "build and test (RelWithDebInfo)"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTRIN_BUILD_TESTS=ON \
    -DKESTRIN_BUILD_BENCH=ON > /dev/null
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"
# Benchmarks are measured in a Release build; here they only have to run. The end-to-end one
# fails when an upload gets no 200 or a stored file has the wrong size.
./build/bench/multipart_pipeline_bench --benchmark_min_time=0.01 > /dev/null
python3 -B bench/e2e_bench.py --server build/host/kestrin-upload-server \
    --client build/bench/small_upload_client --large-client build/bench/large_upload_client \
    --floor build/bench/small_file_floor --size-mib 8 --repeat 1 --small-count 64 \
    --connections 4 > /dev/null

# Sanitized builds optimise less and keep only line tables for their reports: at -O2 -g the
# server alone took five minutes to compile under ASan and UBSan, at -O1 -g1 under two.
sanitized="-O1 -g1 -DNDEBUG"

stage "AddressSanitizer + UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$sanitized" -DKESTRIN_SANITIZE=address,undefined \
    -DKESTRIN_BUILD_BENCH=OFF > /dev/null
cmake --build build-asan -j "$jobs"
export ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1:halt_on_error=1:abort_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
ctest --test-dir build-asan --output-on-failure -j "$jobs" -L 'unit|concurrency'
# The server under attack, checked: the memory shares of one address and of one /48, floods,
# many files, the service threads kept busy, cross-site requests, smuggling, a stop mid-body
# and one with uploads queued, a password flood, a filled disk, a TLS handshake flood, an
# upload quota and a file quota, addresses sprayed past its table and across the /64s of one
# /48, a page flood. Not the rows that bound memory use (the sanitizer's own memory is
# counted) nor the one that runs out of descriptors (the sanitizer needs some for its own
# checks).
python3 -B bench/hostile_load.py build-asan/host/kestrin-upload-server \
    --only 1c,1d,4,5,6,4b,8,9,9b,10,11,12,14,14b,15,16,17,18,18b,18c,18d,19
unset ASAN_OPTIONS UBSAN_OPTIONS

stage "ThreadSanitizer (concurrency tests)"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$sanitized" -DKESTRIN_SANITIZE=thread \
    -DKESTRIN_BUILD_BENCH=OFF > /dev/null
# Only what runs under it: the unit suites ran under the other sanitizers already.
cmake --build build-tsan -j "$jobs" --target kestrin-upload-server concurrency_tests
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
ctest --test-dir build-tsan --output-on-failure -L concurrency --no-tests=error
# Sessions, timers, evictions, shares and the stop cross IO and service threads: the same
# attacks, memory bounds aside, against the server under ThreadSanitizer.
python3 -B bench/hostile_load.py build-tsan/host/kestrin-upload-server \
    --only 1c,1d,4,5,6,4b,7,8,9b,10,11,14,14b,15,16,18,18c,19
unset TSAN_OPTIONS

if compgen -G "fuzz/*Fuzz.cpp" > /dev/null; then
    stage "fuzz targets (60 s each)"
    "$root/scripts/fuzz.sh" 60
fi

echo
echo "all test stages passed"
