#!/usr/bin/env bash
# Installs every Debian package the build, the server and its Debian package need; with --tests,
# also what the tests need (sanitizers, a browser and its npm driver, curl, HAProxy for several
# instances, systemd's unit checker). Run as root on Debian 12. Quick
# when everything is already there: apt-get runs only for what is missing.
set -euo pipefail

packages=(
    cmake ninja-build g++ pkg-config dpkg-dev
    libboost-dev libcrypt-dev libssl-dev libcli11-dev prometheus-cpp-dev
)
tests=0
if [[ "${1:-}" == "--tests" ]]; then
    tests=1
    packages+=(
        libgtest-dev libgmock-dev libbenchmark-dev
        clang libclang-rt-14-dev
        curl openssl python3 procps time
        chromium nodejs npm
        haproxy systemd
    )
fi

# A node.js from another source (such as one that bundles npm) serves as well as Debian's,
# whose npm package cannot be installed beside it.
declare -A commands=([nodejs]=node [npm]=npm)

missing=()
for package in "${packages[@]}"; do
    if [[ -n "${commands[$package]:-}" ]] && command -v "${commands[$package]}" > /dev/null; then
        continue
    fi
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

if ((${#missing[@]})); then
    echo "bootstrap: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The browser test drives Debian's chromium through playwright-core from the npm registry.
root=$(cd "$(dirname "$0")/.." && pwd)
if ((tests)) && [[ -f "$root/tests/e2e/package.json" && ! -d "$root/tests/e2e/node_modules/playwright-core" ]]; then
    echo "bootstrap: installing the browser test's npm packages"
    (cd "$root/tests/e2e" && npm ci --no-audit --no-fund --loglevel=error)
fi
