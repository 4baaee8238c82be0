// The text of an answer, read directly and through the JSON library: the direct reader gives the
// same or declines.

#include <optional>

#include "DirectReader.h"
#include "ESGMarshal.h"
#include "Fuzz.h"
#include "JsonText.h"

namespace json = esg::json;
namespace direct = esg::direct;

namespace {

fuzz::Goal programme{"a programme read directly"};
fuzz::Goal list{"a list of two read directly"};
fuzz::Goal inPieces{"a list read in two pieces"};
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
    return ESGMarshal::ParseToJson(text, reply) &&
           ESGMarshal::ParseToJson(text = json::ToText(reply), again) && again["ret"].asBool() &&
           read(reply, result);
  } catch (const Json::Exception&) {
    return false;
  }
}

/// What the direct reader has read.
template <class Result>
std::optional<Result> Compare(const std::string& text, bool (*read)(Json::Value&, Result&),
                              bool (*readDirectly)(std::string_view, Result&) = nullptr) {
  Result directly;
  Result prescribed;
  const bool isRead =
      readDirectly != nullptr ? readDirectly(text, directly) : direct::Read(text, directly);
  const bool isPrescribed = Prescribed(text, read, prescribed);
  assert(!isRead || (isPrescribed && Written(directly) == Written(prescribed)));
  declined.reached |= isPrescribed && !isRead && readDirectly == nullptr;
  return isRead ? std::make_optional(directly) : std::nullopt;
}

/// Too long for one piece by a few bytes.
bool ReadPieces(std::string_view text, ESGProgramMap& result) {
  return direct::ReadInPieces(text, result, text.size() - text.size() / 4);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = fuzz::Input(data, size).Bytes();
  programme.reached |=
      Compare<FCESGProgramInfo>(text, &ESGMarshal::JsonToESGProgramInfo).has_value();
  const auto programs = Compare<ESGProgramMap>(text, &ESGMarshal::JsonToESGProgramMap);
  list.reached |= programs && programs->size() > 1;
  inPieces.reached |=
      Compare<ESGProgramMap>(text, &ESGMarshal::JsonToESGProgramMap, &ReadPieces).has_value();
  fragment.reached |= !Compare<std::string>(text, &ESGMarshal::JsonToXml).value_or("").empty();
  return 0;
}
