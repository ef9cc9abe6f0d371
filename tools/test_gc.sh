#!/usr/bin/env bash
# Runs the whole Java suite with the checks of JNI calls (-Xcheck:jni), once for every JDK found and
# every garbage collector that it ships; for "make test-gc". A warning of the checks is a failure.
#
#   tools/test_gc.sh
#
# What a run prints stays in build/test-gc.
#
# Environment: JDKS, the JDKs' folders (default: all from 17 on below /usr/lib/jvm, and JAVA_HOME);
# COLLECTORS (default: Serial Parallel G1 Z Shenandoah, where present).
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
read -ra collectors <<<"${COLLECTORS:-Serial Parallel G1 Z Shenandoah}"
warning='WARNING in native method|WARNING: JNI|FATAL ERROR in native'

# The JDKs' real folders: several names may lead to one.
jdks=()
for candidate in ${JDKS:-/usr/lib/jvm/* ${JAVA_HOME:-}}; do
  if [[ -x $candidate/bin/javac ]]; then
    jdk=$(readlink -f "$candidate")
    version=$("$jdk/bin/java" -version 2>&1 | sed -n '1s/.* version "\([0-9]*\).*/\1/p')
    if ((version >= 17)) && [[ " ${jdks[*]} " != *" $jdk "* ]]; then
      jdks+=("$jdk")
    fi
  fi
done
if ((${#jdks[@]} == 0)); then
  printf 'test-gc: no JDK from 17 on found\n' >&2
  exit 2
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tools/mvn.sh -q -pl nimbra test-compile dependency:build-classpath \
  -Dmdep.includeScope=test -Dmdep.outputFile="$work/classpath"
target=java/nimbra/target
classpath=$target/test-classes:$target/classes:$(<"$work/classpath")

# Lincheck has an execution of its own in "make test".
# CheckedJniTest would run the suite a second time; a soak chooses its collector itself.
suite() {
  "$1/bin/java" -Xcheck:jni -Xmx512m "-XX:+Use$2GC" -Dnimbra.log.level=0 \
    "-Dnimbra.test.collector=$2" -cp "$classpath" \
    org.junit.platform.console.ConsoleLauncher execute --disable-banner --disable-ansi-colors \
    --details=summary --fail-if-no-tests --select-package=com.velt.rz.corvane \
    --exclude-tag=overflow --exclude-tag=lincheck --exclude-classname='.*\.(CheckedJniTest|SoakTest)'
}

logs=build/test-gc
mkdir -p "$logs"
failed=0
rows=()
for jdk in "${jdks[@]}"; do
  for collector in "${collectors[@]}"; do
    name="$(basename "$jdk"), $collector"
    if ! "$jdk/bin/java" "-XX:+Use${collector}GC" -version >/dev/null 2>&1; then
      rows+=("$name: not in this JDK")
      continue
    fi
    printf 'test-gc: %s\n' "$name"
    log=$logs/$(basename "$jdk")-$collector.log
    begun=$SECONDS
    outcome=passed
    suite "$jdk" "$collector" >"$log" 2>&1 || outcome=FAILED
    warnings=$(grep -cE "$warning" "$log") || warnings=0
    tests=$(sed -n 's/^\[ *\([0-9]*\) tests successful *\]$/\1/p' "$log" | tail -n 1)
    if [[ $outcome == FAILED || $warnings -gt 0 ]]; then
      # The tests that failed, those of child processes among them, and what came of them.
      grep -A2 -E '^ *JUnit Jupiter:' "$log" | head -n 60 || :
      tail -n 20 "$log"
      grep -E "$warning" "$log" | sort | uniq -c | head -n 20 || :
      failed=1
    fi
    rows+=("$name: ${tests:-0} tests $outcome, $warnings warnings, $((SECONDS - begun)) s")
    printf 'test-gc: %s\n' "${rows[-1]}"
  done
done

printf '\n==== summary ====\n'
printf '%s\n' "${rows[@]}"
((failed == 0))
