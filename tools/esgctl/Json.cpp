#include "Json.h"

#include <FCESGProgramInfo.h>
#include <glib.h>
#include <json/writer.h>

namespace esgctl {
namespace {

using ATSC3ESGExtension::CESGDescription;
using ATSC3ESGExtension::CESGIcon;
using ATSC3ESGExtension::CESGPreview;

void Put(Json::Value& target, const char* name, const std::string& text) {
  if (!text.empty()) {
    target[name] = text;
  }
}

void Put(Json::Value& target, const char* name, std::int32_t number) {
  if (number != 0) {
    target[name] = number;
  }
}

Json::Value ToJson(const CESGIcon& icon);
Json::Value ToJson(const CESGDescription& description);
Json::Value ToJson(const CESGPreview& preview);

template <typename Record>
void Put(Json::Value& target, const char* name, const std::vector<Record>& records) {
  for (const Record& record : records) {
    target[name].append(ToJson(record));
  }
}

Json::Value ToJson(const CESGIcon& icon) {
  Json::Value value(Json::objectValue);
  Put(value, "uri", icon.uri);
  Put(value, "mime_type", icon.mimeType);
  Put(value, "width", icon.width);
  Put(value, "height", icon.height);
  Put(value, "data_size", icon.dataSize);
  return value;
}

Json::Value ToJson(const CESGDescription& description) {
  Json::Value value(Json::objectValue);
  Put(value, "text", description.text);
  Put(value, "lang", description.lang);
  return value;
}

Json::Value ToJson(const CESGPreview& preview) {
  Json::Value value(Json::objectValue);
  Put(value, "usage", preview.usage);
  Put(value, "icons", preview.icons);
  Put(value, "contents", preview.contents);
  Put(value, "descriptions", preview.descriptions);
  return value;
}

}  // namespace

Json::Value ProgramToJson(const FCESGProgramInfo& program, const Clock& clock) {
  Json::Value value(Json::objectValue);
  Put(value, "service", program.GlobalServiceID());
  Put(value, "content_id", program.GetEventID());
  if (program.GetStartTime() != 0) {
    const Seconds start = clock.FromRecord(program.GetStartTime());
    value["start"] = static_cast<Json::Int64>(start);
    value["end"] = static_cast<Json::Int64>(start + program.Duration());
    value["duration"] = program.Duration();
  }
  Put(value, "title", program.Title());
  Put(value, "synopsis", program.Synopsis());
  Put(value, "genre", program.Genre());
  Put(value, "icons", program.PrivateExt().contentIcons);
  Put(value, "previews", program.PrivateExt().previews);
  return value;
}

std::string JsonText(const Json::Value& value, Layout layout) {
  Json::StreamWriterBuilder builder;
  builder["emitUTF8"] = true;
  builder["indentation"] = layout == Layout::Indented ? "  " : "";
  const std::string written = Json::writeString(builder, value) + '\n';
  char* const valid = g_utf8_make_valid(written.data(), static_cast<gssize>(written.size()));
  std::string text;
  const char* next = nullptr;
  for (const char* at = valid; *at != '\0'; at = next) {
    next = g_utf8_next_char(at);
    // The writer escapes the control characters below U+0020 only; a terminal obeys these too. They
    // stand inside of strings, where an escape means the same.
    const gunichar c = g_utf8_get_char(at);
    if (c >= 0x7f && c <= 0x9f) {
      char escape[8];
      g_snprintf(escape, sizeof escape, "\\u%04x", c);
      text += escape;
    } else {
      text.append(at, next);
    }
  }
  g_free(valid);
  return text;
}

}  // namespace esgctl
