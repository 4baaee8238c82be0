#ifndef SRC_JSON_TEXT_H
#define SRC_JSON_TEXT_H

#include <json/json.h>

#include <memory>
#include <string>

/// Reads and writes the JSON text of the protocol, with the defaults of the JSON library.
///
/// Every call has its own writer and reader. The factories are shared: filling in their default
/// settings costs as much as a small reply, and after that they are only read. They are never
/// destroyed, because other threads may still call while the process ends.
namespace esg::json {

inline std::string ToText(const Json::Value& value) {
  static const auto* const factory = new Json::StreamWriterBuilder();
  return Json::writeString(*factory, value);
}

inline std::unique_ptr<Json::CharReader> NewReader() {
  static const auto* const factory = new Json::CharReaderBuilder();
  return std::unique_ptr<Json::CharReader>(factory->newCharReader());
}

inline bool Parse(Json::CharReader& reader, const std::string& text, Json::Value& result) {
  std::string errors;
  return reader.parse(text.data(), text.data() + text.size(), &result, &errors);
}

}  // namespace esg::json

#endif
