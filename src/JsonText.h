#ifndef SRC_JSON_TEXT_H
#define SRC_JSON_TEXT_H

#include <json/json.h>

#include <memory>
#include <string>

/// JSON text of the protocol: the JSON library's own defaults both ways.
namespace json {

inline std::string ToText(const Json::Value& value) {
  return Json::writeString(Json::StreamWriterBuilder(), value);
}

inline bool Parse(const std::string& text, Json::Value& result) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  std::string errors;
  return reader != nullptr &&
         reader->parse(text.data(), text.data() + text.size(), &result, &errors);
}

}  // namespace json

#endif
