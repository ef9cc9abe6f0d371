#!/usr/bin/env bash
# Writes the bills of materials of a release to build/sbom, in the CycloneDX format: one of what the
# Java artifacts bring along, one of what is linked into libnimbra.so. Arguments go to Maven.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
die() {
  printf 'sbom: %s\n' "$*" >&2
  exit 1
}

out=build/sbom
library=build/libnimbra.so
header=${JEMALLOC_ROOT:-build/jemalloc}/include/jemalloc/jemalloc.h
[[ -f $library ]] || die "$library is not built"
mkdir -p "$out"

# The benchmarks are no part of a release.
tools/mvn.sh -q -pl '!nimbra-bench,!nimbra-peers' "$@" org.cyclonedx:cyclonedx-maven-plugin:makeAggregateBom
cp java/target/nimbra-java.cdx.json "$out"

version=$(sed -n 's/.*<version>\([^<]*\)<.*/\1/p' java/pom.xml | head -n 1)
jemalloc=$(sed -n 's/^#define JEMALLOC_VERSION "\([0-9.]*\).*/\1/p' "$header")
compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' build/release/CMakeCache.txt)
gcc=$("$compiler" -dumpfullversion)
[[ $version =~ ^[0-9]+\.[0-9]+ && $jemalloc =~ ^[0-9]+\.[0-9]+ && $gcc =~ ^[0-9]+\.[0-9]+ ]] ||
  die "cannot tell the versions: nimbra '$version', jemalloc '$jemalloc', gcc '$gcc'"
sum=$(sha256sum "$library" | cut -d ' ' -f 1)

component() {
  printf '    {"type": "library", "bom-ref": "%s", "name": "%s", "version": "%s",\n' "$1" "$1" "$2"
  printf '     "licenses": [{"expression": "%s"}], "purl": "pkg:generic/%s@%s"}' "$3" "$1" "$2"
}
exception='GPL-3.0-or-later WITH GCC-exception-3.1'
{
  printf '{\n  "bomFormat": "CycloneDX", "specVersion": "1.6", "version": 1,\n'
  printf '  "metadata": {"component": {"type": "library", "bom-ref": "libnimbra.so",\n'
  printf '    "name": "libnimbra.so", "version": "%s",\n' "$version"
  printf '    "hashes": [{"alg": "SHA-256", "content": "%s"}]}},\n  "components": [\n' "$sum"
  component jemalloc "$jemalloc" BSD-2-Clause
  printf ',\n'
  component libstdc++ "$gcc" "$exception"
  printf ',\n'
  component libgcc "$gcc" "$exception"
  printf '\n  ],\n  "dependencies": [{"ref": "libnimbra.so", '
  printf '"dependsOn": ["jemalloc", "libstdc++", "libgcc"]}]\n}\n'
} >"$out/nimbra-native.cdx.json"
printf 'sbom: %s\n' "$out"/*.json
