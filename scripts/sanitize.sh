#!/usr/bin/env bash
# The sanitizer stages: the whole test suite built with AddressSanitizer, LeakSanitizer and
# UndefinedBehaviorSanitizer (build-asan), then the tests that run threads built with
# ThreadSanitizer (build-tsan). Any report stops the stage and fails the run. Expects the
# packages of scripts/setup.sh.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

stage=${1:-all}

if [[ $stage == all || $stage == asan ]]; then
  echo "== sanitize: AddressSanitizer, LeakSanitizer, UndefinedBehaviorSanitizer"
  export ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:abort_on_error=0
  export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
  export LSAN_OPTIONS="suppressions=$PWD/scripts/lsan-suppressions.txt"
  cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQF_SANITIZE=ON \
    -DQF_BUILD_BENCH=OFF >/dev/null
  cmake --build build-asan
  # The fuzzing test builds its own instrumented tree; the main stage runs it.
  ctest --test-dir build-asan --output-on-failure --parallel 2 -E '^fuzz$'
fi

if [[ $stage == all || $stage == tsan ]]; then
  echo "== sanitize: ThreadSanitizer"
  export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
  cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQF_TSAN=ON \
    -DQF_BUILD_BENCH=OFF >/dev/null
  # Atoms made from several threads, the module's per-thread failure records, the service
  # provider's counts, and the editor's server (its network thread and the main queue).
  cmake --build build-tsan --target kr_tests pdfcore_tests module_tests host_tests qfforms \
    qf-forms-module
  ctest --test-dir build-tsan --output-on-failure \
    -R 'Thread|Concurrent|qfforms_editor_server|web_editor'
fi
