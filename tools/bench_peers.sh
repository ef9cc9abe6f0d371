#!/usr/bin/env bash
# Measures the map beside other stores. The first argument is what to measure: peers, or scale for
# cost by number of entries; the others go to the program. Results stay in build/bench.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
java=java
if [[ -n ${JAVA_HOME:-} && -x $JAVA_HOME/bin/java ]]; then
  java=$JAVA_HOME/bin/java
fi

case ${1:-} in
  peers) main=PeersMain ;;
  scale) main=ScaleMain ;;
  *)
    printf 'bench_peers: say peers or scale\n' >&2
    exit 2
    ;;
esac
shift

# OHC's documentation recommends to preload jemalloc; the launcher does so for OHC alone.
jemalloc=$(ldconfig -p | awk '$1 == "libjemalloc.so.2" { print $NF; exit }')
if [[ -n $jemalloc ]]; then
  export NIMBRA_PEERS_JEMALLOC=$jemalloc
else
  printf 'bench_peers: no libjemalloc.so.2 is installed, OHC runs with the C library'"'"'s allocator\n' >&2
fi

exec "$java" -Xmx256m -cp java/nimbra-peers/target/peers.jar \
  "com.velt.rz.corvane.nimbra.peers.$main" "$@"
