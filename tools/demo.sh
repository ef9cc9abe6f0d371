#!/usr/bin/env bash
# Runs the demonstration that "make demo" has built; arguments go to the program. With the one
# argument "diagnostics" it runs the example of docs/troubleshooting.md instead, with "overflow" as
# the first one the demonstration of values on disk.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
java=java
if [[ -n ${JAVA_HOME:-} && -x $JAVA_HOME/bin/java ]]; then
  java=$JAVA_HOME/bin/java
fi

jar=$root/java/nimbra-demo/target/nimbra-demo.jar
if [[ ! -f $jar ]]; then
  printf 'demo: %s is not built; "make demo" builds and runs it\n' "$jar" >&2
  exit 2
fi
if [[ ${1:-} == diagnostics ]]; then
  # The example prints the reports itself; what goes to the logger as well would be in the way.
  exec "$java" -Djava.util.logging.config.file=/dev/null -cp "$jar" \
    com.velt.rz.corvane.nimbra.demo.DiagnosticsExample
fi
if [[ ${1:-} == overflow ]]; then
  shift
  # The class files stay on the heap, to be compared with.
  exec "$java" -Xmx512m -cp "$jar" com.velt.rz.corvane.nimbra.demo.OverflowDemo "$@"
fi
# A small heap on purpose: the entries live outside it.
exec "$java" -Xmx1g -jar "$jar" "$@"
