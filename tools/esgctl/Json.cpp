#include "Json.h"

#include <FCESGProgramInfo.h>
#include <glib.h>
#include <json/writer.h>

#include <map>

#include "common/Text.h"

namespace esgctl {
namespace {

/// The record's members under the names for scripts, without what is empty or 0.
Json::Value Renamed(const Json::Value& record) {
  static const std::map<std::string, std::string> kNames = {
      {"eventID", "content_id"}, {"globalServiceId", "service"}, {"contentIcons", "icons"},
      {"mimeType", "mime_type"}, {"dataSize", "data_size"},      {"Start", "start"}};
  Json::Value result(record.isArray() ? Json::arrayValue : Json::objectValue);
  for (auto member = record.begin(); member != record.end(); ++member) {
    const bool nested = member->isObject() || member->isArray();
    const Json::Value value = nested ? Renamed(*member) : *member;
    if (record.isArray()) {
      result.append(value);
    } else if (nested             ? !value.empty()
               : value.isString() ? !value.asString().empty()
                                  : value.asInt64() != 0) {
      const auto name = kNames.find(member.name());
      result[name == kNames.end() ? member.name() : name->second] = value;
    }
  }
  return result;
}

void Put(Json::Value& target, const char* name, const std::string& text) {
  if (!text.empty()) {
    target[name] = text;
  }
}

void Put(Json::Value& target, const char* name, const std::vector<std::string>& texts) {
  for (const std::string& text : texts) {
    target[name].append(text);
  }
}

void Put(Json::Value& target, const char* name, const std::vector<LanguageText>& texts) {
  for (const LanguageText& text : texts) {
    Json::Value value(Json::objectValue);
    value["text"] = text.text;
    Put(value, "lang", text.language);
    target[name].append(value);
  }
}

}  // namespace

Json::Value ProgramToJson(const FCESGProgramInfo& program, const Service& service,
                          const Clock& clock) {
  Json::Value record;
  FCESGProgramInfo::ToJson(program, record);
  const Json::Value extension = Renamed(record["privateExt"]);
  record.removeMember("privateExt");
  Json::Value value = Renamed(record);
  for (const std::string& list : extension.getMemberNames()) {
    value[list] = extension[list];
  }
  if (program.GetStartTime() != 0) {
    const Seconds start = clock.FromRecord(program.GetStartTime());
    value["start"] = static_cast<Json::Int64>(start);
    value["end"] = static_cast<Json::Int64>(start + program.Duration());
    value["duration"] = program.Duration();
  } else {
    value.removeMember("duration");
  }
  Put(value, "service", service.id);
  Put(value, "channel", service.number);
  Put(value, "channel_name", service.name);
  return value;
}

void AddFacts(Json::Value& program, const Facts& content, const Facts& service) {
  Put(program, "titles", content.names);
  Put(program, "synopses", content.descriptions);
  Put(program, "audio_languages",
      content.audioLanguages.empty() ? service.audioLanguages : content.audioLanguages);
  Put(program, "text_languages",
      content.textLanguages.empty() ? service.textLanguages : content.textLanguages);
  for (const Rating& rating : content.ratings) {
    Json::Value value(Json::objectValue);
    Put(value, "system", rating.system);
    value["value"] = rating.value;
    program["ratings"].append(value);
  }
  const Episode episode = EpisodeOf(program["content_id"].asString());
  Put(program, "series", episode.series);
  Put(program, "episode", episode.number);
  Put(program, "channel_icons", service.icons);
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
