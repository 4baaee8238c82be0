#include "ESGMarshal.h"

#include "JsonText.h"
#include "RecordMembers.h"

namespace json = esg::json;

namespace {

template <class Field>
bool Put(const char* key, const Field& field, Json::Value& target) {
  target[key] = json::ToValue(field);
  return true;
}

template <class Field>
bool Get(const Json::Value& source, const char* key, Field& field) {
  json::FromValue(json::Find(source, key), field);
  return true;
}

constexpr char kGlobalServiceId[] = "global_service_id";
constexpr char kPath[] = "path";
constexpr char kStartTime[] = "start_time";
constexpr char kDuration[] = "duration";
constexpr char kPosition[] = "eRelative_Position";
constexpr char kContentId[] = "ContentId";
constexpr char kXmlFragment[] = "xmlFragment";
constexpr char kBB[] = "BB";
constexpr char kProgramMap[] = "ESGProgramMap";
constexpr char kKey[] = "key";

}  // namespace

namespace ESGMarshal {

bool global_service_id_ToJson(const std::string& globalServiceId, Json::Value& target) {
  return Put(kGlobalServiceId, globalServiceId, target);
}
bool JsonTo_global_service_id(Json::Value& source, std::string& globalServiceId) {
  return Get(source, kGlobalServiceId, globalServiceId);
}

bool PathToJson(const std::string& path, Json::Value& target) { return Put(kPath, path, target); }
bool JsonToPath(Json::Value& source, std::string& path) { return Get(source, kPath, path); }

bool StartTimeToJson(unsigned int startTime, Json::Value& target) {
  return Put(kStartTime, startTime, target);
}
bool JsonToStartTime(Json::Value& source, unsigned int& startTime) {
  return Get(source, kStartTime, startTime);
}

bool DurationToJson(unsigned int duration, Json::Value& target) {
  return Put(kDuration, duration, target);
}
bool JsonToDuration(Json::Value& source, unsigned int& duration) {
  return Get(source, kDuration, duration);
}

bool eRelative_PositionToJson(eRelative_Position position, Json::Value& target) {
  return Put(kPosition, static_cast<int>(position), target);
}
bool JsonToeRelative_Position(Json::Value& source, eRelative_Position& position) {
  int value = 0;
  Get(source, kPosition, value);
  position = static_cast<eRelative_Position>(value);
  return true;
}

bool ContentIdToJson(const std::string& contentId, Json::Value& target) {
  return Put(kContentId, contentId, target);
}
bool JsonToContentId(Json::Value& source, std::string& contentId) {
  return Get(source, kContentId, contentId);
}

bool XmlToJson(std::string& xmlFragment, Json::Value& target) {
  return Put(kXmlFragment, xmlFragment, target);
}
bool JsonToXml(Json::Value& source, std::string& xmlFragment) {
  return Get(source, kXmlFragment, xmlFragment);
}

bool BBToJson(bool bb, Json::Value& target) { return Put(kBB, bb, target); }
bool JsonToBB(Json::Value& source, bool& bb) { return Get(source, kBB, bb); }

bool ESGProgramInfoToJson(const FCESGProgramInfo& program, Json::Value& target) {
  return FCESGProgramInfo::ToJson(program, target);
}
bool JsonToESGProgramInfo(Json::Value& source, FCESGProgramInfo& program) {
  return FCESGProgramInfo::FromJson(source, program);
}

bool ESGProgramMapToJson(std::map<unsigned int, FCESGProgramInfo>& programs, Json::Value& target) {
  for (const auto& [key, program] : programs) {
    Json::Value element;
    FCESGProgramInfo::ToJson(program, element);
    Put(kKey, key, element);
    target[kProgramMap].append(std::move(element));
  }
  return true;
}

bool JsonToESGProgramMap(Json::Value& source, std::map<unsigned int, FCESGProgramInfo>& programs) {
  const Json::Value& list = json::Touch(source, kProgramMap);
  const Json::ArrayIndex size = list.size();
  for (Json::ArrayIndex index = 0; index < size; ++index) {
    const Json::Value& element = json::Element(list, index);
    const unsigned int key = json::Touch(element, kKey).asUInt();
    FCESGProgramInfo program;
    json::Read(element, program);
    // Services list programmes in the order of their keys, so the next one usually belongs at the
    // end.
    programs.insert_or_assign(programs.end(), key, std::move(program));
  }
  return true;
}

bool ParseToJson(std::string& text, Json::Value& result) {
  const auto reader = json::NewReader();
  return reader != nullptr && json::Parse(*reader, text, result);
}

}  // namespace ESGMarshal
