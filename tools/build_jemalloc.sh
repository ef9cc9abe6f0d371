#!/usr/bin/env bash
# Builds the allocator that libnimbra.so carries inside itself: Debian's jemalloc source,
# with the public prefix "je", as a position-independent static archive.
#
#   tools/build_jemalloc.sh [PREFIX]      PREFIX defaults to build/jemalloc
#
# The packaged library cannot be used: it is compiled for the initial-exec TLS model, and a
# JVM that loads such a library late runs out of static TLS space.
#
# The source comes from the Debian mirror that this machine already uses, and apt checks its
# signature. The machine's own lists are left alone; a private copy of their Debian entries,
# turned into deb-src entries, lives in the build tree together with its own package lists.
#
# A stamp in PREFIX records what was built and how. While it matches, nothing is done.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
prefix=${1:-$root/build/jemalloc}
jobs=${JOBS:-$(nproc)}

configure_flags=(
  --with-jemalloc-prefix=je
  --with-private-namespace=nimbra_
  --disable-initial-exec-tls
  --disable-cxx
  --disable-shared
  --enable-static
  --disable-doc
)
# A CFLAGS of our own replaces configure's default, which would add -g3.
cflags="-O3 -funroll-loops -g0 -fPIC"
archive=lib/libjemalloc_pic.a
stamp_text="jemalloc | ${configure_flags[*]} | $cflags"

die() {
  printf 'jemalloc: %s\n' "$*" >&2
  exit 1
}

is_current() {
  [[ -f $prefix/stamp && -f $prefix/$archive && -f $prefix/include/jemalloc/jemalloc.h ]] &&
    [[ $(<"$prefix/stamp") == "$stamp_text" ]]
}

if is_current; then
  exit 0
fi

mkdir -p "$prefix"
prefix=$(cd "$prefix" && pwd)
work=$prefix.work
# Two builds that start together (two presets, say) must not share a work folder.
exec 9>"$prefix.lock"
flock 9
if is_current; then
  exit 0
fi

command -v apt-get >/dev/null || die "no apt-get here, so Debian's source package is out of reach.
Configure jemalloc 5 yourself with: ${configure_flags[*]}
and name its install folder with JEMALLOC_ROOT (make) or -DJEMALLOC_ROOT (cmake)."

rm -rf "$work"
mkdir -p "$work"/{sources,lists/partial,cache/archives/partial,source}

# ---- private package sources ------------------------------------------------------------

# Succeeds for the suites of the Debian release itself; other vendors' suites carry names of
# their own ("nodistro", "tool-bookworm").
codename=$(. /etc/os-release && printf '%s' "${VERSION_CODENAME:-stable}")
suites="^($codename|stable|oldstable|testing|unstable|sid)(-updates|-security|/updates)?$"

# One-line lists: deb [options] uri suite component...
convert_list() {
  awk -v suites="$suites" '
    /^[[:space:]]*deb(-src)?[[:space:]]/ {
      sub(/[[:space:]]*#.*/, "")
      options = ""
      if (match($0, /\[[^]]*\]/)) {
        options = substr($0, RSTART, RLENGTH) " "
        $0 = substr($0, 1, RSTART - 1) " " substr($0, RSTART + RLENGTH)
      }
      if (options ~ /signed-by=/ && options !~ /debian-archive/) next
      if ($2 ~ /^cdrom:/ || $3 !~ suites) next
      for (i = 4; i <= NF; i++)
        if ($i == "main") { print "deb-src " options $2 " " $3 " main"; next }
    }' "$1"
}

# deb822 lists: stanzas of fields, set apart by empty lines; a field continues on indented
# lines. A stanza is kept when it names a Debian suite and "main", and when its key is either
# Debian's own file or given in the stanza itself.
convert_sources() {
  awk -v suites="$suites" '
    function value(name,    i, text, inside, line) {
      text = ""; inside = 0
      for (i = 1; i <= count; i++) {
        line = lines[i]
        if (line ~ /^[[:space:]]/) { if (inside) text = text " " line; continue }
        inside = (tolower(substr(line, 1, length(name) + 1)) == tolower(name) ":")
        if (inside) text = substr(line, length(name) + 2)
      }
      return text
    }
    function flush(    i, n, words, kept, main, inside, key) {
      if (count == 0) return
      n = split(value("Suites"), words, /[[:space:]]+/); kept = ""
      for (i = 1; i <= n; i++) if (words[i] ~ suites) kept = kept " " words[i]
      n = split(value("Components"), words, /[[:space:]]+/); main = 0
      for (i = 1; i <= n; i++) if (words[i] == "main") main = 1
      key = value("Signed-By")
      if (kept != "" && main && tolower(value("Enabled")) !~ /no|false|0/ &&
          value("URIs") !~ /cdrom:/ &&
          (key ~ /^[[:space:]]*$/ || key ~ /debian-archive/ || key ~ /BEGIN PGP/)) {
        print "Types: deb-src\nSuites:" kept "\nComponents: main"
        inside = 0
        for (i = 1; i <= count; i++) {
          if (lines[i] !~ /^[[:space:]]/)
            inside = (lines[i] !~ /^([Tt]ypes|[Ss]uites|[Cc]omponents|[Aa]rchitectures):/)
          if (inside) print lines[i]
        }
        print ""
      }
      count = 0
    }
    /^#/ { next }
    /^[[:space:]]*$/ { flush(); next }
    { lines[++count] = $0 }
    END { flush() }' "$1"
}

number=0
for list in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
  if [[ -r $list ]]; then
    number=$((number + 1))
    convert_list "$list" >"$work/sources/from$number.list"
  fi
done
for list in /etc/apt/sources.list.d/*.sources; do
  if [[ -r $list ]]; then
    number=$((number + 1))
    convert_sources "$list" >"$work/sources/from$number.sources"
  fi
done
find "$work/sources" -type f -empty -delete
if [[ -z $(find "$work/sources" -type f) ]]; then
  die "found no Debian '$codename main' entry in /etc/apt/sources.list or sources.list.d"
fi

# The hooks that packages hang on "apt-get update" belong to the system's own lists. apt's
# unprivileged download user may not be able to enter the build tree, so the download runs as
# whoever runs this script.
cat >"$work/apt.conf" <<CONF
#clear APT::Update::Pre-Invoke;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
APT::Sandbox::User "$(id -un)";
APT::Get::AllowUnauthenticated "false";
Acquire::Languages "none";
Acquire::Retries "3";
Dir::Etc::sourcelist "/dev/null";
Dir::Etc::sourceparts "$work/sources/";
Dir::State::lists "$work/lists/";
Dir::Cache "$work/cache/";
CONF

printf 'jemalloc: fetching the source package\n'
log=$work/log
run() {
  if ! "$@" >>"$log" 2>&1; then
    tail -n 40 "$log" >&2
    die "'$1' failed; the whole log is $log"
  fi
}
# A list that passed for Debian's but cannot be read fails the update as a whole; whether the
# source is to be had decides.
if ! apt-get -c "$work/apt.conf" -q update >>"$log" 2>&1; then
  printf 'jemalloc: some package lists could not be read; going on\n' >>"$log"
fi
cd "$work/source"
run apt-get -c "$work/apt.conf" -q source jemalloc
sources=(jemalloc-*/)
[[ -x ${sources[0]}configure ]] || die "the source package has no configure script; see $log"

# ---- build ------------------------------------------------------------------------------

cd "${sources[0]}"
printf 'jemalloc: building %s on %s cores\n' "${sources[0]%/}" "$jobs"
run ./configure --prefix="$prefix" "${configure_flags[@]}" CFLAGS="$cflags"
run make -j"$jobs" "$archive"

rm -f "$prefix/stamp"
mkdir -p "$prefix/include/jemalloc" "$prefix/lib"
cp include/jemalloc/jemalloc.h "$prefix/include/jemalloc/"
cp "$archive" "$prefix/$archive"
cp COPYING "$prefix/COPYING"
printf '%s\n' "$stamp_text" >"$prefix/stamp"
rm -rf "$work"
printf 'jemalloc: ready\n'
