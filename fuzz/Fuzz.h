#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

// A failed check is a finding in every type of build.
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

/// The input of the fuzzer, which is taken from its front.
struct Input {
  Input(const std::uint8_t* data, std::size_t size)
      : rest(reinterpret_cast<const char*>(data), size) {
    ++inputs;
  }
  /// The next bytes, or as many as are left.
  std::string Bytes(std::size_t size = std::string::npos) {
    std::string bytes(rest.substr(0, size));
    rest.remove_prefix(bytes.size());
    return bytes;
  }
  /// The next number. Bytes that are missing are 0.
  template <class Number>
  Number Take() {
    Number number = 0;
    const std::string bytes = Bytes(sizeof(number));
    std::memcpy(&number, bytes.data(), bytes.size());
    return number;
  }

  std::string_view rest;
};

/// A static object for a case that a target must reach with some of its inputs. If none reaches it,
/// the process fails when it ends. A run over one input does not: that is how a finding is
/// examined. libFuzzer precedes it by an empty input.
struct Goal {
  ~Goal() {
    if (!reached && inputs > 2) {
      std::fprintf(stderr, "None of %lu inputs reached: %s\n", inputs, name);
      std::_Exit(EXIT_FAILURE);
    }
  }
  const char* name;
  bool reached = false;
};

}  // namespace fuzz

#endif
