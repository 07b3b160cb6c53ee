#!/usr/bin/env bash
# Builds the libFuzzer targets with Clang into their own build tree (incrementally) and
# runs each of them for a bounded time on its seeds: paste_fuzzer and action_fuzzer on
# records (seeds/paste, seeds/action, with record.dict), open_fuzzer on the corpus of real
# forms, the repository's sample form and the PDFs of seeds/open, session_fuzzer from
# nothing. Fails when a target finds a crash, a leak, an input slower than 10 s or a run
# over 2 GB, after running the others; prints each target's final statistics.
#
#   run_fuzzers.sh SOURCE_DIR FUZZ_BUILD_DIR [CORPUS_DIR [SECONDS]]
#
# Seconds per target: $QF_FUZZ_SECONDS, else SECONDS, else 45. QF_FUZZ_TARGETS: the
# targets to run (default all four, space-separated). Inputs that fail are kept in
# FUZZ_BUILD_DIR/fuzz-artifacts as TARGET-crash-*, -leak-*, -timeout-* or -oom-*; the
# inputs each run kept stay in FUZZ_BUILD_DIR/fuzz-corpus/TARGET for the next run.
set -euo pipefail
source_dir=$1 build_dir=$2 corpus_dir=${3:-}
seconds=${QF_FUZZ_SECONDS:-${4:-45}}
targets=${QF_FUZZ_TARGETS:-paste_fuzzer action_fuzzer open_fuzzer session_fuzzer}
fuzz="$source_dir/fuzz"

started=$SECONDS
if [[ ! -f "$build_dir/CMakeCache.txt" ]]; then
  CC=clang CXX=clang++ cmake -S "$source_dir" -B "$build_dir" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQF_FUZZ=ON -DQF_BUILD_TESTS=OFF -DQF_BUILD_BENCH=OFF \
    >/dev/null
fi
# shellcheck disable=SC2086 # one word per target
cmake --build "$build_dir" --target $targets -j2 >/dev/null
echo "== fuzz: build $((SECONDS - started)) s"

artifacts="$build_dir/fuzz-artifacts"
mkdir -p "$artifacts"
export ASAN_OPTIONS=detect_leaks=1
export LSAN_OPTIONS="suppressions=$source_dir/scripts/lsan-suppressions.txt"
failed=()
for target in $targets; do
  corpus="$build_dir/fuzz-corpus/$target"
  mkdir -p "$corpus"
  args=()
  case $target in
    paste_fuzzer) cp "$fuzz"/seeds/paste/*.json "$corpus"/; args=(-dict="$fuzz/record.dict") ;;
    action_fuzzer) cp "$fuzz"/seeds/action/*.json "$corpus"/; args=(-dict="$fuzz/record.dict") ;;
    open_fuzzer)
      cp "$fuzz"/seeds/open/*.pdf "$source_dir/samples/field-types.pdf" "$corpus"/
      if [[ -n $corpus_dir && -d $corpus_dir ]]; then
        cp "$corpus_dir"/*.pdf "$corpus"/
      else
        echo "open_fuzzer: no corpus of forms (${corpus_dir:-none given}); seeds only"
      fi
      args=(-dict="$fuzz/pdf.dict") ;;
  esac
  echo "== fuzz: $target, ${seconds} s"
  log="$build_dir/$target.log"
  status=0
  "$build_dir/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="$artifacts/$target-" -print_final_stats=1 "${args[@]}" "$corpus" \
    >"$log" 2>&1 || status=$?
  if [[ $status -ne 0 ]]; then
    # What went wrong: the sanitizer's report and the input kept.
    grep -E -A40 '==ERROR|^SUMMARY|libFuzzer: |_fuzzer: ' "$log" | head -n 80 || tail -n 40 "$log"
    grep -E 'Test unit written|artifact_prefix' "$log" || true
    failed+=("$target")
  fi
  grep -E '^Done |^stat::' "$log" || tail -n 5 "$log"
done
echo "== fuzz: total $((SECONDS - started)) s"
if [[ ${#failed[@]} -ne 0 ]]; then
  echo "fuzz: failed: ${failed[*]}"
  exit 1
fi
