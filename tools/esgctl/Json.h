#ifndef ESGCTL_JSON_H
#define ESGCTL_JSON_H

#include <json/value.h>

#include <string>

#include "Fragments.h"
#include "Services.h"
#include "Time.h"

class FCESGProgramInfo;

namespace esgctl {

/// A programme for scripts: stable names, times in Unix seconds, absent members left out.
Json::Value ProgramToJson(const FCESGProgramInfo& program, const Service& service,
                          const Clock& clock);

/// Adds what the fragments of a programme and of its service say.
void AddFacts(Json::Value& program, const Facts& content, const Facts& service);

/// "number", "alias", "id" and "name", as far as they are known.
Json::Value ServiceToJson(const Service& service);

/// The text with a line end: indented, or on one line. It is valid UTF-8, and what a terminal would
/// obey is escaped.
enum class Layout { Indented, OneLine };
std::string JsonText(const Json::Value& value, Layout layout);

}  // namespace esgctl

#endif
