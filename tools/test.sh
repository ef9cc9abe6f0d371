#!/usr/bin/env bash
# Runs the tests and closes with one summary. Both halves run even when the first fails.
#
#   tools/test.sh all|native
#
# Expects configured build trees and, for "all", a built build/libnimbra.so.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
mode=${1:-all}
jobs=${JOBS:-$(nproc)}
passed=0
failed=0
summary=()

heading() { printf '\n==== %s ====\n' "$*"; }

# Adds a line to the summary: name, tests, failures.
count() {
  summary+=("$(printf '%-8s %6d tests, %d failed' "$1" "$2" "$3")")
  passed=$((passed + $2 - $3))
  failed=$((failed + $3))
}

native() {
  heading "native tests"
  local results=build/debug/results
  rm -rf "$results"
  if ! cmake --build --preset debug --parallel "$jobs"; then
    summary+=("native   did not build")
    failed=$((failed + 1))
    return
  fi
  local outcome=0
  ctest --preset debug --parallel "$jobs" || outcome=1
  # The first two figures of a Google Test report are those of the whole shard.
  local tests=0 failures=0 file figures
  for file in "$results"/*.json; do
    if [[ -f $file ]]; then
      figures=$(sed -n 's/^ *"\(tests\|failures\)": *\([0-9]*\),.*/\2/p' "$file" | head -n 2)
      tests=$((tests + $(sed -n 1p <<<"$figures")))
      failures=$((failures + $(sed -n 2p <<<"$figures")))
    fi
  done
  if ((outcome != 0 && failures == 0)); then
    # A process that dies leaves no report; it still counts.
    summary+=("native   a test process died, see above")
    tests=$((tests + 1))
    failures=1
  fi
  count native "$tests" "$failures"
}

java() {
  heading "Java tests"
  find java -type d -name surefire-reports -prune -exec rm -rf {} +
  touch build/java.stamp.new
  local outcome=0
  if tools/mvn.sh verify; then
    # What Maven has packaged on the way needs no packaging again.
    mv build/java.stamp.new build/java.stamp
  else
    outcome=1
  fi
  local figures tests failures
  figures=$(find java -path '*/surefire-reports/TEST-*.xml' -exec grep -h -m 1 '<testsuite ' {} + |
    awk '
      function number(name) {
        if (!match($0, " " name "=\"[0-9]+\"")) return 0
        return substr($0, RSTART + length(name) + 3, RLENGTH - length(name) - 4) + 0
      }
      { tests += number("tests"); bad += number("failures") + number("errors") }
      END { print tests + 0, bad + 0 }')
  read -r tests failures <<<"$figures"
  if ((outcome != 0 && failures == 0)); then
    summary+=("java     the build failed, see above")
    tests=$((tests + 1))
    failures=1
  fi
  count java "$tests" "$failures"
}

case $mode in
  all)
    native
    java
    ;;
  native) native ;;
  *)
    printf 'test: unknown argument %s\n' "$mode" >&2
    exit 2
    ;;
esac

if ((passed + failed == 0)); then
  summary+=("no test ran")
fi
heading "summary"
printf '%s\n' "${summary[@]}"
printf '%d passed, %d failed\n' "$passed" "$failed"
((failed == 0 && passed > 0))
