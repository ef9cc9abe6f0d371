#!/usr/bin/env bash
# Pins by checksum what Maven fetches: dependencies, plugins, and what those fetch by themselves.
#
#   tools/dependencies.sh check     builds in a local repository of its own, build/m2, and fails for
#                                   every jar or pom in it that java/dependencies.sha256 does not
#                                   list, or lists with another checksum; then the same files in the
#                                   repository that the other targets use
#   tools/dependencies.sh update    writes java/dependencies.sha256 anew, for a changed version;
#                                   read the difference before it is committed
#
# The first run fetches everything, later ones work offline (MAVEN_ARGS=-o). Debian's packages, and
# with them the source of jemalloc, carry signatures that apt checks: see build_jemalloc.sh.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
list=$PWD/java/dependencies.sha256
own=$PWD/build/m2

die() {
  printf 'dependencies: %s\n' "$*" >&2
  exit 1
}

# One test, for what the test runner fetches when it runs; and the goals that no phase calls.
fetch() {
  mkdir -p "$own"
  local arguments=()
  read -ra arguments <<<"${MAVEN_ARGS:-}"
  tools/mvn.sh -q "${arguments[@]}" -Dmaven.repo.local="$own" -Dtest=CodecsTest \
    -Dsurefire.failIfNoSpecifiedTests=false verify spotless:check dependency:build-classpath \
    -Dmdep.outputFile="$PWD/build/classpath.txt" >build/dependencies.log 2>&1 ||
    die "the build failed; see build/dependencies.log"
  # That goal refuses to work offline; what it had fetched is compared all the same.
  if [[ " ${arguments[*]} " == *" -o "* ]]; then
    return
  fi
  tools/sbom.sh "${arguments[@]}" -Dmaven.repo.local="$own" >>build/dependencies.log 2>&1 ||
    die "the bill of materials failed; see build/dependencies.log"
}

sums() {
  (cd "$own" && find . -path ./com/velt -prune -o -type f \( -name '*.jar' -o -name '*.pom' \) \
    -printf '%P\0' | LC_ALL=C sort -z | xargs -0 sha256sum)
}

case ${1:-} in
  update)
    fetch
    sums >"$list.new"
    mv "$list.new" "$list"
    printf 'dependencies: %d files listed\n' "$(wc -l <"$list")"
    ;;
  check)
    [[ -s $list ]] || die "no $list"
    fetch
    # Lines that only the fetched files have: unlisted, or changed.
    wrong=$(LC_ALL=C comm -13 <(LC_ALL=C sort "$list") <(sums | LC_ALL=C sort))
    [[ -z $wrong ]] || die "not as in java/dependencies.sha256:
$wrong"
    used=${HOME}/.m2/repository
    if [[ -d $used ]]; then
      (cd "$used" && sha256sum --check --quiet --ignore-missing "$list") ||
        die "$used has files that are not as in java/dependencies.sha256"
    fi
    printf 'dependencies: %d files as listed\n' "$(sums | wc -l)"
    ;;
  *) die "say check or update" ;;
esac
