#ifndef TESTS_GUIDE_FILES_H
#define TESTS_GUIDE_FILES_H

#include <zlib.h>

#include <memory>
#include <string>
#include <vector>

#include "Folder.h"

namespace esg::guide {

/// Collects the reported lines.
struct Reports {
  std::vector<std::string> lines;
  const Report report = [this](const std::string& line) { lines.push_back(line); };
};

/// `before`: the weight of the fragments read before.
inline std::shared_ptr<const File> ReadFile(const std::string& name, std::string bytes,
                                            std::size_t before = 0) {
  pugi::xml_document document;
  auto file = std::make_shared<File>();
  file->name = name;
  std::atomic<std::size_t> weight{before};
  ReadBytes(*file, bytes, document, nullptr, weight);
  return file;
}

/// A delivery unit of Content fragments.
inline std::string Unit(const std::vector<std::string>& fragments) {
  std::string table;
  std::string body;
  for (const std::string& xml : fragments) {
    table += std::string(10, '\0') + static_cast<char>(body.size() >> 8) +
             static_cast<char>(body.size());
    body += std::string("\0\2", 2) + xml;
  }
  return std::string(8, '\0') + static_cast<char>(fragments.size()) + table + body;
}

inline std::string Gzip(std::string bytes) {
  z_stream stream{};
  deflateInit2(&stream, 1, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
  std::string packed(deflateBound(&stream, bytes.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(bytes.data());
  stream.avail_in = static_cast<uInt>(bytes.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  deflate(&stream, Z_FINISH);
  packed.resize(stream.total_out);
  deflateEnd(&stream);
  return packed;
}

}  // namespace esg::guide

#endif
