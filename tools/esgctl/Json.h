#ifndef ESGCTL_JSON_H
#define ESGCTL_JSON_H

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "Services.h"

namespace esgctl {

/// What a Service or a Content fragment says beyond the records: "id", "number" (of the channel, as
/// 33.1), "titles" and "synopses" (of {text, lang}), "ratings" (of {system, value}),
/// "audio_languages", "text_languages" and "icons". Absent members are left out.
///
/// Reads a fragment in any of the forms that encoders send: with or without namespaces, texts as
/// attribute or as content. Null where the text is no XML. All strings are valid UTF-8.
Json::Value ParseFacts(const std::string& xml);

/// What the fragments of some listings say.
struct Facts {
  std::vector<Json::Value> services;            ///< one for each listing; null: no fragment
  std::map<std::string, Json::Value> contents;  ///< by the content id of a programme
};

/// The record as the protocol has it.
Json::Value RecordToJson(const Showing& showing);

/// A programme for scripts: stable names, times in Unix seconds, absent members left out.
Json::Value ProgramToJson(const Showing& showing);
/// The same with what the fragments say, of which `service` is what that of its service says.
Json::Value ProgramToJson(const Showing& showing, const Facts& facts, const Json::Value& service);

/// The services, each with its programmes; with `facts` these are in full.
Json::Value ListingsToJson(const Listings& listings, const Facts* facts = nullptr);

/// "number", "alias", "id" and "name", as far as they are known.
Json::Value ServiceToJson(const Service& service);

/// The text with a line end: indented, or on one line. It is valid UTF-8, and what a terminal would
/// obey is escaped.
enum class Layout { Indented, OneLine };
std::string JsonText(const Json::Value& value, Layout layout = Layout::Indented);

}  // namespace esgctl

#endif
