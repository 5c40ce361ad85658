#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, ASan, UBSan) and runs each one for the given
# number of seconds (default 60), as many at once as there are cores, starting from its
# committed seeds. New inputs go to a scratch corpus, so the committed one stays small; a
# crash leaves its input in fuzz/findings/ and fails the run. fuzz/<target>.dict, where present, gives the fuzzer the
# tokens of its input format.
#   ./scripts/fuzz.sh 600            every target for ten minutes
#   ./scripts/fuzz.sh 600 PipelineFuzz   one target
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
only=${2:-}

cmake -S "$root" -B "$root/build-fuzz" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_COMPILER=clang++ -DKESTRIN_BUILD_FUZZ=ON -DKESTRIN_BUILD_TESTS=OFF \
    -DKESTRIN_BUILD_BENCH=OFF > /dev/null
# The fuzz targets alone: the rest of the tree is built and tested by the other builds.
cmake --build "$root/build-fuzz" -j "$(nproc)" --target fuzz_targets

mkdir -p "$root/fuzz/findings"
reports=$(mktemp -d)
trap 'rm -rf "$reports"' EXIT

# One target's run; its report and its verdict go to files, as targets run side by side.
fuzz_one() {
    local target=$1 name scratch seeds options=()
    name=$(basename "$target")
    scratch=$(mktemp -d)
    seeds="$root/fuzz/corpus/$name"
    [[ -f "$root/fuzz/$name.dict" ]] && options+=(-dict="$root/fuzz/$name.dict")
    {
        echo "--- $name for ${seconds}s"
        if ! ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1 \
            UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
            "$target" "$scratch" ${seeds:+"$seeds"} "${options[@]}" \
            -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
            -artifact_prefix="$root/fuzz/findings/$name-" > "$scratch.log" 2>&1; then
            tail -60 "$scratch.log"
            echo failed > "$reports/$name.failed"
        else
            grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb|cov: ' "$scratch.log" |
                tail -3
        fi
    } > "$reports/$name.report"
    rm -rf "$scratch" "$scratch.log"
}

# As many targets at once as there are cores: each fuzzer uses one.
for target in "$root"/build-fuzz/fuzz/*Fuzz; do
    [[ -n "$only" && "$(basename "$target")" != "$only" ]] && continue
    while (($(jobs -rp | wc -l) >= $(nproc))); do
        wait -n || true
    done
    fuzz_one "$target" &
done
wait
cat "$reports"/*.report
! compgen -G "$reports/*.failed" > /dev/null
