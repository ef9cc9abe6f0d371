// Command lines of the native programs: `--name value` pairs with whole numbers.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace nimbra::bench {

// The number behind an option. Ends the program with status 2 and a message that names option and
// value when it is no whole number between the bounds.
inline uint64_t numberOf(const char* option, std::string_view value, uint64_t least,
                         uint64_t most) {
  uint64_t number = 0;
  const char* end = value.data() + value.size();
  const auto [stop, error] = std::from_chars(value.data(), end, number);
  if (error != std::errc() || stop != end || value.empty() || number < least || number > most) {
    std::fprintf(stderr, "%s is '%.*s', but has to be a whole number between %llu and %llu\n",
                 option, static_cast<int>(value.size()), value.data(),
                 static_cast<unsigned long long>(least), static_cast<unsigned long long>(most));
    std::exit(2);
  }
  return number;
}

// The value behind the option at `at`, which then stands on the value. Ends the program with
// status 2 when there is none.
inline const char* valueBehind(int count, char** arguments, int* at) {
  if (*at + 1 >= count) {
    std::fprintf(stderr, "%s needs a value\n", arguments[*at]);
    std::exit(2);
  }
  return arguments[++*at];
}

}  // namespace nimbra::bench
