#!/usr/bin/env bash
# Measures pauses and response times with many live entries, off the heap and on it. Arguments go to
# the program: --quick, --gigabytes, --warm-up, --seconds, --rate, --threads, --value-bytes, --docs.
# pauses.md, pauses.json and pauses.svg stay in build/bench, logs in build/bench/pauses.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
java=java
if [[ -n ${JAVA_HOME:-} && -x $JAVA_HOME/bin/java ]]; then
  java=$JAVA_HOME/bin/java
fi

exec "$java" -Xmx256m -cp java/nimbra-bench/target/benchmarks.jar \
  com.velt.rz.corvane.nimbra.bench.PausesMain "$@"
