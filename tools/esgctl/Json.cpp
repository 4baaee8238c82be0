#include "Json.h"

#include <glib.h>
#include <json/writer.h>

#include <regex>

#include "common/Text.h"

namespace esgctl {
namespace {

/// Sets a member unless the value is empty or 0.
void Put(Json::Value& target, const std::string& name, const Json::Value& value) {
  const bool nothing = value.isNumeric()  ? value.asInt64() == 0
                       : value.isString() ? value.asString().empty()
                                          : value.empty();
  if (!nothing) {
    target[name] = value;
  }
}

/// The record's members under the names for scripts.
Json::Value Renamed(const Json::Value& record) {
  static const std::map<std::string, std::string> kNames = {
      {"eventID", "content_id"}, {"globalServiceId", "service"}, {"contentIcons", "icons"},
      {"mimeType", "mime_type"}, {"dataSize", "data_size"},      {"Start", "start"}};
  if (!record.isObject() && !record.isArray()) {
    return record;
  }
  Json::Value result(record.type());
  for (auto member = record.begin(); member != record.end(); ++member) {
    if (record.isArray()) {
      result.append(Renamed(*member));
    } else {
      const auto name = kNames.find(member.name());
      Put(result, name == kNames.end() ? member.name() : name->second, Renamed(*member));
    }
  }
  return result;
}

}  // namespace

Json::Value RecordToJson(const Showing& showing) {
  Json::Value record;
  FCESGProgramInfo::ToJson(showing.program, record);
  return record;
}

Json::Value ProgramToJson(const Showing& showing) {
  Json::Value record = RecordToJson(showing);
  const Json::Value extension = Renamed(record["privateExt"]);
  record.removeMember("privateExt");
  Json::Value value = Renamed(record);
  for (const std::string& list : extension.getMemberNames()) {
    value[list] = extension[list];
  }
  if (showing.program.GetStartTime() != 0) {
    value["start"] = static_cast<Json::Int64>(showing.start);
    value["end"] = static_cast<Json::Int64>(showing.end);
    value["duration"] = showing.program.Duration();
  } else {
    value.removeMember("duration");
  }
  Put(value, "service", showing.service->id);
  Put(value, "channel", showing.service->number);
  Put(value, "channel_name", showing.service->name);
  return value;
}

Json::Value ProgramToJson(const Showing& showing, const Facts& facts, const Json::Value& service) {
  Json::Value program = ProgramToJson(showing);
  const std::string& id = showing.program.GetEventID();
  const Json::Value& content = facts.contents.at(id);
  for (const char* const name : {"titles", "synopses", "ratings"}) {
    Put(program, name, content[name]);
  }
  for (const char* const name : {"audio_languages", "text_languages"}) {
    Put(program, name, content[name].empty() ? service[name] : content[name]);
  }
  Put(program, "channel_icons", service["icons"]);
  // The usual form of an episode's content id: two letters, the series, and the episode in it.
  static const std::regex pattern("(EP\\d{8})(\\d{4})");
  std::smatch parts;
  if (std::regex_match(id, parts, pattern)) {
    program["series"] = parts.str(1);
    program["episode"] = parts.str(2);
  }
  return program;
}

Json::Value ListingsToJson(const Listings& listings, const Facts* facts) {
  Json::Value rows(Json::arrayValue);
  for (const Listing& listing : listings) {
    const Json::ArrayIndex i = rows.size();
    Json::Value& row = rows.append(ServiceToJson(*listing.service));
    row["programmes"] = Json::arrayValue;
    for (const Showing& showing : listing.showings) {
      row["programmes"].append(facts == nullptr
                                   ? ProgramToJson(showing)
                                   : ProgramToJson(showing, *facts, facts->services[i]));
    }
  }
  return rows;
}

Json::Value ServiceToJson(const Service& service) {
  Json::Value value(Json::objectValue);
  Put(value, "number", service.number);
  Put(value, "alias", service.alias);
  Put(value, "id", service.id);
  Put(value, "name", service.name);
  return value;
}

std::string JsonText(const Json::Value& value, Layout layout) {
  Json::StreamWriterBuilder builder;
  builder["emitUTF8"] = true;
  builder["indentation"] = layout == Layout::Indented ? "  " : "";
  const std::string written = Json::writeString(builder, value) + '\n';
  g_autofree char* valid = g_utf8_make_valid(written.data(), static_cast<gssize>(written.size()));
  std::string text;
  const char* next = nullptr;
  for (const char* at = valid; *at != '\0'; at = next) {
    next = g_utf8_next_char(at);
    const gunichar c = g_utf8_get_char(at);
    // The writer has escaped those below U+0020. The others stand inside of strings.
    if (c >= ' ' && esg::tools::IsUnsafe(c)) {
      char escape[8];
      g_snprintf(escape, sizeof escape, "\\u%04x", c);
      text += escape;
    } else {
      text.append(at, next);
    }
  }
  return text;
}

}  // namespace esgctl
