#!/usr/bin/env bash
# Uses the whole public face for some minutes and compares the end with the start; for "make soak".
#
#   tools/soak.sh [MINUTES [SEED]]
#
# The heap is fixed and touched beforehand, and glibc keeps few arenas and maps larger blocks one
# by one, so that resident memory moves with the native library's memory and with little else.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
java=java
if [[ -n ${JAVA_HOME:-} && -x $JAVA_HOME/bin/java ]]; then
  java=$JAVA_HOME/bin/java
fi

minutes=${1:-30}
if [[ ! $minutes =~ ^[1-9][0-9]*$ ]]; then
  printf 'soak: "%s" is no number of minutes\n' "$minutes" >&2
  exit 2
fi
shift $(($# > 0 ? 1 : 0))

tools/mvn.sh -q -pl nimbra test-compile
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# A copy, so that a build beside a long run does not pull its files away.
cp -r java/nimbra/target/classes java/nimbra/target/test-classes build/libnimbra.so "$work"
mkdir "$work/values"

export MALLOC_ARENA_MAX=2 MALLOC_MMAP_THRESHOLD_=16384
"$java" -Xms256m -Xmx256m -XX:+AlwaysPreTouch -XX:+UseSerialGC -Xcheck:jni \
  -Dnimbra.log.level=0 -Dnimbra.library.path="$work/libnimbra.so" \
  -cp "$work/classes:$work/test-classes" com.velt.rz.corvane.nimbra.Soak \
  "$work/values" "$((minutes * 60))" "$@" | tee "$work/log"
if grep -qE 'WARNING in native method|WARNING: JNI|FATAL ERROR in native' "$work/log"; then
  printf 'soak: the checks of JNI calls have printed warnings, see above\n' >&2
  exit 1
fi
