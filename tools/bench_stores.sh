#!/usr/bin/env bash
# Measures stores that values could be paged out to, beside plain file I/O. Arguments go to the
# program: --values, --rounds, --stores. The table stays in build/bench/stores.md.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
java=java
if [[ -n ${JAVA_HOME:-} && -x $JAVA_HOME/bin/java ]]; then
  java=$JAVA_HOME/bin/java
fi

# LMDB's Java binding looks into direct buffers.
exec "$java" -Xmx1g \
  --add-opens java.base/java.nio=ALL-UNNAMED --add-opens java.base/sun.nio.ch=ALL-UNNAMED \
  -cp java/nimbra-bench/target/benchmarks.jar \
  com.velt.rz.corvane.nimbra.bench.ValueStoreMain "$@"
