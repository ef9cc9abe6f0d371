#!/usr/bin/env bash
# Races pairs of Java calls where they meet native memory; for "make jcstress".
#
#   tools/jcstress.sh [MODE [TEST]]    MODE: sanity, quick (default), default, tough, stress;
#                                      TEST: a regular expression over the tests' names
#
# Expects a built build/libnimbra.so. The report is build/jcstress/index.html.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD
java=java
if [[ -n ${JAVA_HOME:-} && -x $JAVA_HOME/bin/java ]]; then
  java=$JAVA_HOME/bin/java
fi

tools/mvn.sh -q -pl nimbra,nimbra-jcstress -DskipTests package
results=build/jcstress
mkdir -p "$results"
cd "$results"
target=$root/java/nimbra-jcstress/target
flags="-Xmx256m -Dnimbra.log.level=0 -Dnimbra.library.path=$root/build/libnimbra.so"
mode=${1:-quick}
# The short modes take one kind of virtual machine; the long ones all that the harness knows.
case $mode in
  sanity | quick) machines=(-jvmArgs "$flags" -sc false) ;;
  *) machines=(-jvmArgsPrepend "$flags") ;;
esac
# Every state is a map with native memory of its own, so strides are short.
exec "$java" -cp "$target/classes:$target/modules/*" org.openjdk.jcstress.Main \
  -m "$mode" -t "${2:-.*}" -r . -strideSize 16 -strideCount 8 "${machines[@]}"
