#!/usr/bin/env bash
# Everything that is slower or fussier than the tests: formatting of both languages, clang-tidy,
# the native tests under the address, undefined-behaviour and thread sanitizers, and twenty seconds
# of every operation at once. All parts run; the last lines say which of them failed.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
jobs=${JOBS:-$(nproc)}
failures=()

part() {
  local name=$1
  shift
  printf '\n==== %s ====\n' "$name"
  "$@" || failures+=("$name")
}

shopt -s nullglob
cpp_files=({src,tests,bench,fuzz}/*.{h,cpp})

tidy() {
  # The debug tree supplies the compile commands; one process a file, as they are independent.
  cmake --build --preset debug --target jni_headers &&
    printf '%s\0' src/*.cpp | grep -zvxF src/nb_alloc_system.cpp |
    xargs -0 -n 1 -P "$jobs" clang-tidy -p build/debug --quiet 2>/dev/null
}

sanitized() {
  cmake --build --preset "$1" --parallel "$jobs" --target nimbra_tests &&
    ctest --preset "$1" --parallel "$jobs"
}

part "C++ format" clang-format --dry-run -Werror "${cpp_files[@]}"
part "Java format" tools/mvn.sh --fail-at-end spotless:check
part "clang-tidy" tidy
part "address and undefined-behaviour sanitizers" sanitized asan
part "thread sanitizer" sanitized tsan
part "stress under the thread sanitizer" tools/stress.sh 20

printf '\n==== summary ====\n'
if ((${#failures[@]} > 0)); then
  printf 'FAILED: %s\n' "${failures[@]}"
  exit 1
fi
printf 'all checks passed\n'
