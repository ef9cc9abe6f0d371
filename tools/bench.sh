#!/usr/bin/env bash
# Builds and runs the native benchmarks, then the Java ones: the map beside a map on the heap, how
# cost follows the size of a map, and what disk overflow costs in memory. Arguments go to the first Java runner; --quick shortens all.
# Tables and raw results stay in build/bench.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
java=java
if [[ -n ${JAVA_HOME:-} && -x $JAVA_HOME/bin/java ]]; then
  java=$JAVA_HOME/bin/java
fi

native_options=(--benchmark_out=build/bench/native.json --benchmark_out_format=json)
scaling_options=()
for argument; do
  if [[ $argument == --quick ]]; then
    scaling_options=(--quick)
    native_options+=(--benchmark_min_time=0.02 --benchmark_repetitions=3)
  fi
done
mkdir -p build/bench

printf '==== native ====\n'
cmake --build --preset bench --parallel "${JOBS:-$(nproc)}"
build/release/bench/nimbra_bench "${native_options[@]}" | tee build/bench/native.md

printf '\n==== Java ====\n'
"$java" -jar java/nimbra-bench/target/benchmarks.jar "$@"

printf '\n==== cost by size ====\n'
"$java" -cp java/nimbra-bench/target/benchmarks.jar \
  com.velt.rz.corvane.nimbra.bench.ScalingMain build/bench "${scaling_options[@]}"

printf '\n==== disk overflow, everything in memory ====\n'
"$java" -cp java/nimbra-bench/target/benchmarks.jar \
  com.velt.rz.corvane.nimbra.bench.OverflowMain build/bench "${scaling_options[@]}"
