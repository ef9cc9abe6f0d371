#!/usr/bin/env bash
# Runs the demonstration that "make demo" has built; arguments go to the program.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
java=java
if [[ -n ${JAVA_HOME:-} && -x $JAVA_HOME/bin/java ]]; then
  java=$JAVA_HOME/bin/java
fi

# The one jar of a module, whatever its version; sources and javadoc are not it.
jar_of() {
  local jars
  jars=$(find "$root/java/$1/target" -maxdepth 1 -name "$1-*.jar" \
    ! -name '*-sources.jar' ! -name '*-javadoc.jar' ! -name '*-tests.jar' 2>/dev/null | sort)
  if [[ -z $jars || $jars == *$'\n'* ]]; then
    printf 'demo: expected one jar of %s, found: %s\n' "$1" "${jars:-none}" >&2
    exit 2
  fi
  printf '%s' "$jars"
}

demo=$(jar_of nimbra-demo)
nimbra=$(jar_of nimbra)
# A small heap on purpose: the entries live outside it.
exec "$java" -Xmx1g -cp "$demo:$nimbra" com.velt.rz.corvane.nimbra.demo.Main "$@"
