#!/usr/bin/env bash
# Runs the stress of two maps whose values go to disk all the time; for "make stress-overflow".
#
#   tools/stress_overflow.sh SECONDS [SEED [MIB]]
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
java=java
if [[ -n ${JAVA_HOME:-} && -x $JAVA_HOME/bin/java ]]; then
  java=$JAVA_HOME/bin/java
fi

seconds=${1:-60}
if [[ ! $seconds =~ ^[0-9]+$ ]]; then
  printf 'stress-overflow: "%s" is no number of seconds\n' "$seconds" >&2
  exit 2
fi
shift $(($# > 0 ? 1 : 0))

tools/mvn.sh -q -pl nimbra test-compile
values=$(mktemp -d)
trap 'rm -rf "$values"' EXIT
target=java/nimbra/target
"$java" -Xcheck:jni -Xmx512m -Dnimbra.log.level=0 -Dnimbra.library.path=build/libnimbra.so \
  -cp "$target/classes:$target/test-classes" com.velt.rz.corvane.nimbra.OverflowStress \
  "$values" "$seconds" "$@"
