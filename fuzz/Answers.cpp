// The text of an answer, read directly and through the JSON library: the direct reader gives the
// same or declines.

#include <optional>

#include "DirectReader.h"
#include "ESGMarshal.h"
#include "Fuzz.h"
#include "JsonText.h"

namespace {

fuzz::Goal programme{"a programme read directly"};
fuzz::Goal list{"a list of two read directly"};
fuzz::Goal fragment{"a fragment read directly"};
fuzz::Goal declined{"declined what the JSON library reads"};

std::string Written(const FCESGProgramInfo& program) {
  Json::Value value;
  FCESGProgramInfo::ToJson(program, value);
  return json::ToText(value);
}
std::string Written(const ESGProgramMap& programs) {
  std::string text;
  for (const auto& [key, program] : programs) {
    text += std::to_string(key) + Written(program);
  }
  return text;
}
std::string Written(const std::string& xmlFragment) { return xmlFragment; }

/// What the JSON library makes of it, in the steps of a query that blocks.
template <class Result>
bool Prescribed(std::string text, bool (*read)(Json::Value&, Result&), Result& result) {
  Json::Value reply;
  Json::Value again;
  try {
    return ESGMarshal::ParseToJson(text, reply) && json::Parse(json::ToText(reply), again) &&
           again["ret"].asBool() && read(reply, result);
  } catch (const Json::Exception&) {
    return false;
  }
}

/// What the direct reader has read.
template <class Result>
std::optional<Result> Compare(const std::string& text, bool (*read)(Json::Value&, Result&)) {
  std::string padded = text;
  padded.append(direct::kPadding, '"');
  Result directly;
  Result prescribed;
  const bool isRead = direct::Read(padded.data(), text.size(), directly);
  const bool isPrescribed = Prescribed(text, read, prescribed);
  assert(!isRead || (isPrescribed && Written(directly) == Written(prescribed)));
  declined.reached |= isPrescribed && !isRead;
  return isRead ? std::make_optional(directly) : std::nullopt;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = fuzz::Input(data, size).Bytes();
  programme.reached |=
      Compare<FCESGProgramInfo>(text, &ESGMarshal::JsonToESGProgramInfo).has_value();
  const auto programs = Compare<ESGProgramMap>(text, &ESGMarshal::JsonToESGProgramMap);
  list.reached |= programs && programs->size() > 1;
  fragment.reached |= !Compare<std::string>(text, &ESGMarshal::JsonToXml).value_or("").empty();
  return 0;
}
