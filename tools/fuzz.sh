#!/usr/bin/env bash
# Runs every fuzz target for a while: the native ones under libFuzzer and the sanitizers, then the
# Java ones under Jazzer.
#
#   tools/fuzz.sh SECONDS [TARGET...]    seconds for each target; all targets when none is named,
#                                        "java" names the Java ones together
#
# A run begins with the committed inputs and what earlier runs have found. New inputs stay in
# build/fuzz/corpus, the inputs of failures in build/fuzz/failures. Expects a configured
# build/fuzz and, for the Java targets, a built build/libnimbra.so.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
seconds=${1:-60}
shift || true
jobs=${JOBS:-$(nproc)}
found=build/fuzz/corpus
failures=build/fuzz/failures
logs=build/fuzz/logs
mkdir -p "$found" "$failures" "$logs"

[[ $seconds =~ ^[1-9][0-9]*$ ]] || {
  printf 'fuzz: the number of seconds is %s\n' "$seconds" >&2
  exit 2
}

native=()
java=no
if (($# == 0)); then
  for folder in fuzz/corpus/*/; do native+=("$(basename "$folder")"); done
  java=yes
fi
for name in "$@"; do
  if [[ $name == java ]]; then java=yes; else native+=("$name"); fi
done

fuzz_one() {
  local name=$1
  mkdir -p "$found/$name"
  # 512 bytes are more than a hundred operations. The fixtures count the library's blocks
  # themselves, and the replay under the address sanitizer looks for leaks; doing so after every
  # input would take most of the time.
  if ! "build/fuzz/fuzz/fuzz_$name" -max_total_time="$seconds" -max_len=512 -timeout=20 \
    -detect_leaks=0 -print_final_stats=1 -artifact_prefix="$failures/$name-" \
    "$found/$name" "fuzz/corpus/$name" >"$logs/$name.log" 2>&1; then
    tail -n 60 "$logs/$name.log"
    printf 'FAILED %s, see %s\n' "$name" "$logs/$name.log"
    return 1
  fi
  printf '%-16s %10s inputs, %s\n' "$name" \
    "$(sed -n 's/^stat::number_of_executed_units: *//p' "$logs/$name.log")" \
    "$(grep -o 'cov: [0-9]* ft: [0-9]*' "$logs/$name.log" | tail -n 1)"
}

# Short backtraces and a small quarantine: the programs are short, and speed finds more.
export ASAN_OPTIONS=malloc_context_size=8:quarantine_size_mb=32:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1

outcome=0
if ((${#native[@]} > 0)); then
  cmake --build --preset fuzz --parallel "$jobs"
  export -f fuzz_one
  export seconds found failures logs
  printf '%s\0' "${native[@]}" | xargs -0 -n 1 -P "$jobs" bash -c 'fuzz_one "$1"' _ || outcome=1
fi

# ---- Java --------------------------------------------------------------------------------------

fuzz_java() {
  local package=com.velt.rz.corvane class=$1 method=$2
  local log=$root/$logs/java_$method.log inputs=$root/$found/java_$method
  local committed=src/test/resources/com/velt/rz/corvane/${class//.//}Inputs/$method
  mkdir -p "$inputs"
  if ! java -Xmx512m -Dnimbra.log.level=0 -cp "$classpath" com.code_intelligence.jazzer.Jazzer \
    --target_class="$package.$class" --target_method="$method" \
    --instrumentation_includes="$package.**" --reproducer_path="$root/$failures" \
    -artifact_prefix="$root/$failures/java_$method-" -max_len=2000 \
    -max_total_time="$seconds" "$inputs" "$committed" >"$log" 2>&1; then
    tail -n 60 "$log"
    printf 'FAILED %s, see %s\n' "$method" "$log"
    return 1
  fi
  printf '%-40s %s\n' "$method" \
    "$(sed -n 's/^#\([0-9]*\).*DONE *\(cov: [0-9]* ft: [0-9]*\).*/\1 inputs, \2/p' "$log")"
}

if [[ $java == yes ]]; then
  root=$PWD
  tools/mvn.sh --projects nimbra,nimbra-fuzz test-compile dependency:build-classpath \
    -Dmdep.outputFile="$root/build/fuzz/classpath" -Dmdep.includeScope=test
  classpath=target/test-classes:$(<build/fuzz/classpath)
  cd java/nimbra-fuzz
  while read -r class method; do
    fuzz_java "$class" "$method" </dev/null || outcome=1
  done <<'EOF'
nimbra.CodecsFuzzTest decodedObjectsHaveTheSameBytes
nimbra.CodecsFuzzTest stringsSurviveOrAreRefused
nimbra.CodecsFuzzTest buffersAreReadBetweenPositionAndLimit
nimbra.MapOptionsFuzzTest optionsAreCheckedAndMapsWork
nimbra.overflow.ValueFrameFuzzTest damagedValuesAreNeverRead
io.offheap.util.LevelFuzzTest readsWhatTheRulesSay
EOF
fi
exit "$outcome"
