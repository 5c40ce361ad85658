#!/usr/bin/env bash
# The one command that installs what is missing, builds the upload server and serves its
# demo page on http://127.0.0.1:8080/, storing uploads in ./uploads. Ctrl-C stops it.
# Extra arguments go to the server (see --help), e.g. --listen 0.0.0.0:8080.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

"$root/scripts/bootstrap.sh"

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build -j "$(nproc)" --target kestrin-upload-server

echo "serving http://127.0.0.1:8080/ from $root/uploads (Ctrl-C stops)"
exec "$root/build/host/kestrin-upload-server" --listen 127.0.0.1:8080 --dir "$root/uploads" "$@"
