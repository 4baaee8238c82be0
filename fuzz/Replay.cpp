// Gives every file of a folder to a target.

#include <filesystem>
#include <fstream>
#include <iterator>

#include "Fuzz.h"

int main(int /*argc*/, char** argv) {
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  return fuzz::inputs > 2 ? EXIT_SUCCESS : EXIT_FAILURE;
}
