#!/usr/bin/env bash
# Builds and runs the native benchmarks, then the Java ones; arguments go to the Java runner.
# --quick shortens both. Tables and raw results stay in build/bench.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
java=java
if [[ -n ${JAVA_HOME:-} && -x $JAVA_HOME/bin/java ]]; then
  java=$JAVA_HOME/bin/java
fi

native_options=(--benchmark_out=build/bench/native.json --benchmark_out_format=json)
for argument; do
  if [[ $argument == --quick ]]; then
    native_options+=(--benchmark_min_time=0.02 --benchmark_repetitions=3)
  fi
done
mkdir -p build/bench

printf '==== native ====\n'
cmake --build --preset bench --parallel "${JOBS:-$(nproc)}"
build/release/bench/nimbra_bench "${native_options[@]}" | tee build/bench/native.md

printf '\n==== Java ====\n'
exec "$java" -jar java/nimbra-bench/target/benchmarks.jar "$@"
