#!/usr/bin/env bash
# Installs the Debian packages that the build needs, and only those that are missing.
#
#   tools/setup.sh          what build, test, demo and bench need
#   tools/setup.sh check    also what the linters and the second compiler need
#   tools/setup.sh profile  also what counts instructions
#   tools/setup.sh peers    also what one of the stores in bench-peers is recommended to run with
#
# A run that finds everything in place asks dpkg's database once and touches nothing.
set -euo pipefail

packages=(
  build-essential binutils cmake ninja-build
  dpkg-dev ca-certificates util-linux
  openjdk-17-jdk-headless maven
  libgtest-dev libgmock-dev libbenchmark-dev
)
check_packages=(clang clang-format clang-tidy libclang-rt-14-dev)
profile_packages=(valgrind perl)
peers_packages=(libjemalloc2)

die() {
  printf 'setup: %s\n' "$*" >&2
  exit 1
}

case "${1:-}" in
  "") ;;
  check) packages+=("${check_packages[@]}") ;;
  profile) packages+=("${profile_packages[@]}") ;;
  peers) packages+=("${peers_packages[@]}") ;;
  *) die "unknown argument '$1' (expected nothing, 'check', 'profile' or 'peers')" ;;
esac

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
  die "this is not a Debian system (no dpkg-query or apt-get).
Install the counterparts of these packages yourself, then run the build with SETUP=no:
  ${packages[*]}"
fi

# dpkg-query also exits non-zero when it has never heard of one of the names, which is an
# answer here and not an error; the status of the pipeline is therefore that of sed.
installed=$(
  set +o pipefail
  dpkg-query --show --showformat='${binary:Package} ${db:Status-Status}\n' "${packages[@]}" \
    2>/dev/null | sed -n 's/^\([^: ]*\)\(:[^ ]*\)\{0,1\} installed$/\1/p'
)

missing=()
for package in "${packages[@]}"; do
  grep -qxF -- "$package" <<<"$installed" || missing+=("$package")
done
if ((${#missing[@]} == 0)); then
  exit 0
fi

as_root=()
if (($(id -u) != 0)); then
  command -v sudo >/dev/null || die "these packages are missing: ${missing[*]}
Installing them needs root; run this as root, or install sudo."
  as_root=(sudo)
fi

apt_get() {
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get \
    -o DPkg::Lock::Timeout=300 -o Acquire::Retries=3 "$@"
}

# The package lists of a fresh machine are empty and those of an old one point at versions
# that the mirror no longer has, so they are refreshed whenever something must be fetched.
printf 'setup: installing %s\n' "${missing[*]}"
apt_get -qq update || die "apt-get update failed (see above)"
apt_get -qq -y --no-install-recommends install "${missing[@]}" ||
  die "apt-get could not install: ${missing[*]}"
