#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

// A failed check is a finding, in every build type.
#undef NDEBUG
#include <cassert>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

inline unsigned long inputs = 0;

/// What the fuzzer offers, taken off its front.
struct Input {
  Input(const std::uint8_t* data, std::size_t size)
      : rest(reinterpret_cast<const char*>(data), size) {
    ++inputs;
  }
  /// That many bytes, or as many as there are.
  std::string Bytes(std::size_t size = std::string::npos) {
    std::string bytes(rest.substr(0, size));
    rest.remove_prefix(bytes.size());
    return bytes;
  }
  /// A number; 0 where nothing is left.
  template <class Number>
  Number Take() {
    Number number = 0;
    const std::string bytes = Bytes(sizeof(number));
    std::memcpy(&number, bytes.data(), bytes.size());
    return number;
  }

  std::string_view rest;
};

/// A static object for a place that a target is there to get to: a run that did not fails when the
/// process ends. Not so one over a single input, which is how a finding is looked into; libFuzzer
/// puts an empty input in front of it.
struct Goal {
  ~Goal() {
    if (!reached && inputs > 2) {
      std::fprintf(stderr, "None of %lu inputs got to: %s\n", inputs, name);
      std::_Exit(EXIT_FAILURE);
    }
  }
  const char* name;
  bool reached = false;
};

}  // namespace fuzz

#endif
