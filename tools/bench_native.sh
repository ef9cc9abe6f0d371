#!/usr/bin/env bash
# The native roads of get, insert, update and remove beside their floor: times, instructions as
# callgrind counts them, and where those instructions go.
#
#   tools/bench_native.sh [--quick] [--docs DIR] [--entries N,...] [--value-bytes B,...]
#
# Leaves native-floor.md, native-floor.json and native-profile.md in build/bench. --docs also puts
# the tables between the marks "native:begin" and "native:end" of DIR/performance.md. A case that
# does not fit into memory is left out and named.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
program=build/release/bench/nimbra_native
out=build/bench
entries=10000,1000000
value_bytes=64,256,4096
docs=
quick=no

die() {
  printf 'bench-native: %s\n' "$*" >&2
  exit 1
}

while (($# > 0)); do
  case $1 in
    --quick) quick=yes ;;
    --docs | --entries | --value-bytes)
      (($# > 1)) || die "$1 needs a value"
      case $1 in
        --docs) docs=$2 ;;
        --entries) entries=$2 ;;
        --value-bytes) value_bytes=$2 ;;
      esac
      shift
      ;;
    *) die "unknown argument '$1' (expected --quick, --docs, --entries or --value-bytes)" ;;
  esac
  shift
done
for list in "$entries" "$value_bytes"; do
  [[ $list =~ ^[0-9]+(,[0-9]+)*$ ]] || die "'$list' is not a list of whole numbers"
done
if [[ -n $docs ]] && ! grep -qs '^<!-- native:begin -->$' "$docs/performance.md"; then
  die "$docs/performance.md has no line '<!-- native:begin -->'"
fi
options=()
if [[ $quick == yes ]]; then
  entries=10000
  options=(--benchmark_repetitions=3 --benchmark_min_time=0.02)
fi

if [[ ${SETUP:-yes} != no ]]; then tools/setup.sh profile; fi
# CMake looks for callgrind's header again, which may have come just now.
cmake --preset release >/dev/null
cmake --build --preset bench --parallel "${JOBS:-$(nproc)}"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$out"
rows=$scratch/rows
profile=$out/native-profile.md
omitted=()
cat >"$profile" <<'TEXT'
# Where the instructions of the native roads go

Callgrind, instructions for one operation. "with callees" counts what a function calls, too. A
virtual machine is not there: Java arrays are plain memory, and crossings cost nothing.
TEXT

# callgrind's dumps of one case: a row of totals for each, and for the profiled case its functions.
read_dumps() {
  local dump name total batch
  for dump in "$scratch"/dump.*; do
    name=$(sed -n 's/^desc: Trigger: Client Request: //p' "$dump")
    [[ -n $name ]] || continue
    total=$(sed -n 's/^totals: //p' "$dump")
    batch=$(awk -F'\t' -v name="$name" '$1 == "counted" && $4 "\t" $5 == name { print $6 }' \
      "$scratch/counted")
    awk -v n="$1" -v b="$2" -v name="$name" -v total="$total" -v batch="$batch" \
      'BEGIN { printf "instructions\t%s\t%s\t%s\t%.0f\n", n, b, name, total / batch }' >>"$rows"
    if [[ $3 == yes && $name != *floor ]]; then list_functions "$dump" "$name" "$batch"; fi
  done
}

list_functions() {
  local kind
  {
    printf '\n## %s, by the natives of the %s\n' "${2%%$'\t'*}" "${2##*$'\t'}"
    for kind in yes no; do
      if [[ $kind == yes ]]; then printf '\n| with callees | %% | function |\n'; else
        printf '\n| by itself | %% | function |\n'
      fi
      printf -- '|--:|--:|---|\n'
      callgrind_annotate --inclusive=$kind --threshold=100 "$1" 2>/dev/null |
        awk -v count="$3" -v rows=25 -f tools/native_profile.awk |
        awk -F'\t' '{ printf "| %s | %s | `%s` |\n", $1, $2, $3 }'
    done
  } >>"$profile"
}

profiled=yes # the first case in the middle of the value sizes
for n in ${entries//,/ }; do
  for b in ${value_bytes//,/ }; do
    # Two stores of rounded blocks, the requests, the array of the pointer chase.
    need=$((n * (2 * (b * 5 / 4 + 320) + 200) / 1024 + 1200000))
    have=$(awk '/^MemAvailable:/ { print $2 }' /proc/meminfo)
    if ((need > have)); then
      omitted+=("$n entries of $b bytes: need about $((need / 1024)) MiB, $((have / 1024)) MiB are available")
      printf 'left out: %s\n' "${omitted[-1]}"
      continue
    fi
    printf '%s entries of %s bytes\n' "$n" "$b"
    "$program" --entries "$n" --value-bytes "$b" "${options[@]}" >>"$rows"
    rm -f "$scratch"/dump*
    valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$scratch/dump" \
      "$program" --entries "$n" --value-bytes "$b" --count >"$scratch/counted" \
      2>"$scratch/valgrind.log" || die "$(tail -n 20 "$scratch/valgrind.log")"
    [[ $b == 64 && $value_bytes == *,* ]] && show=no || show=$profiled
    read_dumps "$n" "$b" "$show"
    [[ $show == yes ]] && profiled=no
  done
done

[[ -s $rows ]] || die "no case fits into memory"
awk -F'\t' -f tools/native_table.awk "$rows" >"$out/native-floor.md"
for case in "${omitted[@]}"; do printf '\nLeft out: %s.\n' "$case" >>"$out/native-floor.md"; done
awk -F'\t' -v format=json -f tools/native_table.awk "$rows" >"$out/native-floor.json"
cat "$out/native-floor.md"

if [[ -n $docs ]]; then
  awk -v table="$out/native-floor.md" '
    /^<!-- native:begin -->$/ {
      print
      print ""
      while ((getline line < table) > 0) print line
      print ""
      inside = 1
    }
    /^<!-- native:end -->$/ { inside = 0 }
    !inside { print }
  ' "$docs/performance.md" >"$scratch/performance.md"
  cp "$scratch/performance.md" "$docs/performance.md"
fi
