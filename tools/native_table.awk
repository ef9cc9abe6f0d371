# Turns the rows of nimbra_native, with the instructions that callgrind counted, into Markdown
# tables, or with format=json into one JSON array. Called by tools/bench_native.sh.

function keep(list, value) {
  if (!((list, value) in seen)) {
    seen[list, value] = 1
    members[list, ++sizes[list]] = value
  }
}

function time_of(operation, road) { return time[n, b, operation, road] }

function goal_of(operation) {
  if (operation ~ /^get/) return 1.5
  return operation == "remove" ? 0 : 2
}

# Misses that wait for each other: the bucket's slot, the records of the chain, key and value side
# by side. A key that is not there is looked for among all of its chain, one that is there among
# half of what stands before it.
function misses_of(operation) {
  if (operation == "get miss" || operation == "insert") return 1 + load[n, b]
  return 3 + load[n, b] / 2
}

# Half of an allocation and a free for each block that is only made or only freed.
function allocation_of(operation,    all) {
  all = time_of("allocate and free the record", "component") \
      + time_of("allocate and free the key", "component") \
      + time_of("allocate and free the value", "component")
  if (operation == "insert" || operation == "remove") return all / 2
  return operation == "update" ? time_of("allocate and free the value", "component") : 0
}

function copy_of(operation) {
  return operation ~ /miss|remove/ ? 0 : time_of("copy the value", "component")
}

function with_commas(number,    text, grouped) {
  text = number ""
  while (length(text) > 3) {
    grouped = "," substr(text, length(text) - 2) grouped
    text = substr(text, 1, length(text) - 3)
  }
  return text grouped
}

$1 == "load" { load[$2, $3] = $4; keep("case", $2 SUBSEP $3) }
$1 == "time" { time[$2, $3, $4, $5] = $6; spread[$2, $3, $4, $5] = $7 }
$1 == "instructions" { instructions[$2, $3, $4, $5] = $6 }

function print_json(    i, o, r, first, part) {
  printf "["
  for (i = 1; i <= sizes["case"]; i++) {
    split(members["case", i], part, SUBSEP)
    n = part[1]
    b = part[2]
    for (o = 1; o <= operations; o++) {
      for (r = 1; r <= 3; r++) {
        printf "%s\n  {\"operation\": \"%s\", \"road\": \"%s\", \"entries\": %d, " \
          "\"valueBytes\": %d, \"ns\": %.2f, \"overlappedNs\": %.2f, \"spreadPercent\": %d, " \
          "\"instructions\": %d}", first++ ? "," : "", operation[o], road[r], n, b,
          time_of(operation[o], road[r]), time_of(operation[o], road[r] ", overlapped"),
          spread[n, b, operation[o], road[r]], instructions[n, b, operation[o], road[r]]
      }
    }
  }
  print "\n]"
}

function print_case(    o, r, ratio, goal, reached, floor) {
  printf "\n### %s entries, values of %s bytes\n\n", with_commas(n), with_commas(b)
  print "| operation | natives of | ns | ± | floor ns | ratio | goal | reached | instructions |" \
        " floor's | overlapped ns | floor ns | ratio |"
  print "|---|---|--:|--:|--:|--:|--:|---|--:|--:|--:|--:|--:|"
  for (o = 1; o <= operations; o++) {
    floor = time_of(operation[o], "floor")
    goal = goal_of(operation[o])
    for (r = 1; r <= 2; r++) {
      ratio = time_of(operation[o], road[r]) / floor
      reached = goal == 0 ? "" : ratio <= goal ? "yes" : "no"
      printf "| %s | %s | %.1f | %d %% | %.1f | %.2f | %s | %s | %s | %s | %.1f | %.1f | %.2f |\n",
        operation[o], road[r], time_of(operation[o], road[r]),
        spread[n, b, operation[o], road[r]], floor, ratio, goal == 0 ? "" : goal, reached,
        with_commas(instructions[n, b, operation[o], road[r]]),
        with_commas(instructions[n, b, operation[o], "floor"]),
        time_of(operation[o], road[r] ", overlapped"),
        time_of(operation[o], "floor, overlapped"),
        time_of(operation[o], road[r] ", overlapped") / time_of(operation[o], "floor, overlapped")
    }
  }
}

function print_parts(    i, o, part, lock, allocation, copy, misses, sum) {
  print "\n### What the floor is made of\n"
  print "| entries | value bytes | operation | lock and unlock | allocate, free | copy |" \
        " misses in a row | ns each | sum | floor in one loop |"
  print "|--:|--:|---|--:|--:|--:|--:|--:|--:|--:|"
  for (i = 1; i <= sizes["case"]; i++) {
    split(members["case", i], part, SUBSEP)
    n = part[1]
    b = part[2]
    for (o = 1; o <= operations; o++) {
      lock = time_of("lock and unlock", "component")
      allocation = allocation_of(operation[o])
      copy = copy_of(operation[o])
      misses = misses_of(operation[o])
      sum = lock + allocation + copy + misses * time_of("dependent miss", "component")
      printf "| %s | %s | %s | %.1f | %.1f | %.1f | %.2f | %.1f | %.1f | %.1f |\n",
        with_commas(n), with_commas(b), operation[o], lock, allocation, copy, misses,
        time_of("dependent miss", "component"), sum, time_of(operation[o], "floor")
    }
  }
}

END {
  operations = split("get hit,get miss,insert,update,remove", operation, ",")
  split("face,contract,floor", road, ",")
  if (format == "json") {
    print_json()
    exit
  }
  print "Made by `make bench-native`. Times are processor time, medians; ± is half the distance of" \
        " the fastest and\nthe slowest repetition."
  for (c = 1; c <= sizes["case"]; c++) {
    split(members["case", c], part, SUBSEP)
    n = part[1]
    b = part[2]
    print_case()
  }
  print_parts()
}
