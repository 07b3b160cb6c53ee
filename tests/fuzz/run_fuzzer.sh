#!/usr/bin/env bash
# Builds the libFuzzer targets with Clang into their own build tree (incrementally) and
# runs paste_fuzzer for a bounded time on the seed records. Fails on a crash, a leak, an
# input slower than 10 s or a run over 2 GB.
#
#   run_fuzzer.sh SOURCE_DIR FUZZ_BUILD_DIR SECONDS
set -euo pipefail
source_dir=$1 build_dir=$2 seconds=$3

if [[ ! -f "$build_dir/CMakeCache.txt" ]]; then
  CC=clang CXX=clang++ cmake -S "$source_dir" -B "$build_dir" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQF_FUZZ=ON -DQF_BUILD_TESTS=OFF -DQF_BUILD_BENCH=OFF \
    >/dev/null
fi
cmake --build "$build_dir" --target paste_fuzzer >/dev/null

corpus=$(mktemp -d)
trap 'rm -rf "$corpus"' EXIT
cp "$source_dir"/tests/fuzz/seeds/*.json "$corpus"/
# An input that fails is kept in the build tree as crash-*, leak-* or timeout-*.
mkdir -p "$build_dir/fuzz-artifacts"
export ASAN_OPTIONS=detect_leaks=1
"$build_dir/tests/fuzz/paste_fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
  -dict="$source_dir/tests/fuzz/record.dict" -artifact_prefix="$build_dir/fuzz-artifacts/" \
  -print_final_stats=1 "$corpus" 2>&1 | tail -n 40
