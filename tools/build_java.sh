#!/usr/bin/env bash
# Packages the Java side around build/libnimbra.so. Does nothing while no input is newer than
# the last run.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
stamp=build/java.stamp

# Source folders count as inputs too: their time changes when a file is removed. Module folders
# do not, since Maven creates its output folder there.
inputs_changed() {
  [[ -f $stamp && ! build/libnimbra.so -nt $stamp ]] || return 0
  compgen -G 'java/nimbra/target/nimbra-*.jar' >/dev/null || return 0
  [[ -f java/nimbra-demo/target/nimbra-demo.jar ]] || return 0
  [[ -n $(find java -name target -prune -o \
    \( -name pom.xml -o -path '*/src/*' \) -newer "$stamp" -print -quit) ]]
}

if inputs_changed; then
  printf 'java: packaging\n'
  # Dated before the run, so that an edit during the run is not lost.
  touch build/java.stamp.new
  tools/mvn.sh package -Dmaven.test.skip=true
  mv build/java.stamp.new "$stamp"
fi
