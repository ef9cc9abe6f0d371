#!/usr/bin/env bash
# Runs every native operation at once under the thread sanitizer, in memory and with values on disk;
# for "make stress" and "make check". One report, one lock out of rank or one wrong value ends it.
#
#   tools/stress.sh SECONDS [SEED]
#
# Expects a configured build/tsan. There is no list of suppressions.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
seconds=${1:-3600}
if [[ ! $seconds =~ ^[0-9]+$ ]]; then
  printf 'stress: "%s" is no number of seconds\n' "$seconds" >&2
  exit 2
fi
if [[ -n ${2:-} ]]; then
  export NIMBRA_TEST_SEED=$2
fi

cmake --build --preset tsan --parallel "${JOBS:-$(nproc)}" --target nimbra_tests
# The suites take the time in equal parts, one after the other.
suites=(LibraryInMemory LibraryWithOverflow SweepStress)
export NIMBRA_STRESS_SECONDS=$(((seconds + ${#suites[@]} - 1) / ${#suites[@]}))
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
for suite in "${suites[@]}"; do
  build/tsan/tests/nimbra_tests --gtest_brief=1 --gtest_filter="$suite.*"
done
