#ifndef ESGCTL_FRAGMENTS_H
#define ESGCTL_FRAGMENTS_H

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

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

}  // namespace esgctl

#endif
