#!/usr/bin/env bash
# End-to-end benchmark of kestrin-upload-server: builds the server in Release (build-release/)
# when needed, then runs bench/e2e_bench.py against it (one 256 MiB upload beside the network
# and disk floors, then 2,000 uploads of 4 KiB over 16 connections). Extra arguments go to
# the Python script (--help lists them).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

if [[ ! -f build-release/CMakeCache.txt ]]; then
    cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release > /dev/null
fi
cmake --build build-release -j 2 --target kestrin-upload-server small_upload_client \
    large_upload_client small_file_floor > /dev/null

exec python3 -B "$root/bench/e2e_bench.py" --server "$root/build-release/host/kestrin-upload-server" \
    --client "$root/build-release/bench/small_upload_client" \
    --large-client "$root/build-release/bench/large_upload_client" \
    --floor "$root/build-release/bench/small_file_floor" "$@"
