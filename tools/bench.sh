#!/usr/bin/env bash
# Builds and runs the native benchmarks, then the Java ones; arguments go to the Java runner.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
java=java
if [[ -n ${JAVA_HOME:-} && -x $JAVA_HOME/bin/java ]]; then
  java=$JAVA_HOME/bin/java
fi

printf '==== native ====\n'
cmake --build --preset bench --parallel "${JOBS:-$(nproc)}"
build/release/bench/nimbra_bench

printf '\n==== Java ====\n'
exec "$java" -jar java/nimbra-bench/target/benchmarks.jar "$@"
