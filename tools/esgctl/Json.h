#ifndef ESGCTL_JSON_H
#define ESGCTL_JSON_H

#include <json/value.h>

#include <string>

#include "Time.h"

class FCESGProgramInfo;

namespace esgctl {

/// A programme for scripts: Unix seconds, and nothing that the guide did not give.
Json::Value ProgramToJson(const FCESGProgramInfo& program, const Clock& clock);

enum class Layout { Indented, OneLine };

/// JSON text in valid UTF-8 that no terminal takes for commands, with a line end.
std::string JsonText(const Json::Value& value, Layout layout);

}  // namespace esgctl

#endif
