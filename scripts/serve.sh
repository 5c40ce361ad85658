#!/usr/bin/env bash
# The one command that installs what is missing, builds the upload server and serves its
# demo page on http://127.0.0.1:8080/, storing uploads in ./uploads. Ctrl-C stops it.
# Extra arguments go to the server (see --help), e.g. --listen 0.0.0.0:8080.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

"$root/scripts/bootstrap.sh"

# Only the server: serving needs no test framework, browser or npm package.
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTRIN_BUILD_TESTS=OFF \
    -DKESTRIN_BUILD_BENCH=OFF > /dev/null
cmake --build build -j "$(nproc)" --target kestrin-upload-server

# The server prints the address it really listens on; a --dir or --listen given here wins over
# the defaults before it.
exec "$root/build/host/kestrin-upload-server" --dir "$root/uploads" "$@"
