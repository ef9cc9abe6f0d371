# Turns the output of callgrind_annotate into rows "instructions an operation<tab>percent<tab>function".
# Variables: count (operations that were counted), rows (how many to print).

/^ *[0-9,]+ \( *[0-9.]+%\)/ {
  if (printed >= rows || /PROGRAM TOTALS/) next
  number = $1
  gsub(/,/, "", number)
  percent = $0
  sub(/^[^(]*\( */, "", percent)
  sub(/%.*/, "", percent)
  name = $0
  sub(/^[^)]*\) +/, "", name)
  sub(/ \[[^]]*\]$/, "", name)
  sub(/^[^:]*:/, "", name)
  gsub(/\(anonymous namespace\)::/, "", name)
  gsub(/nimbra::/, "", name)
  # The benchmark's own frames.
  if (name ~ /^(main'2|std::_Function_handler|void bench::runAll|main)/) next
  sub(/\(.*/, "", name)
  sub(/@@.*/, "", name)
  sub(/^Java_com_velt_rz_corvane_/, "Java_", name)
  printf "%.1f\t%s\t%s\n", number / count, percent, name
  printed++
}
