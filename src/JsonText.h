#ifndef SRC_JSON_TEXT_H
#define SRC_JSON_TEXT_H

#include <json/json.h>

#include <memory>
#include <string>

/// JSON text of the protocol: the JSON library's own defaults both ways.
///
/// Every call has a writer and a reader of its own. What makes them is shared: filling in its
/// default settings costs as much as a small answer, and after that it is only read. It is never
/// destroyed, so that threads which still call while the process ends find it.
namespace json {

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

}  // namespace json

#endif
