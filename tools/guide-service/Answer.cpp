#include "Answer.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include "Guide.h"

namespace esg::guide {
namespace {

using ATSC3ESGExtension::CESGDescription;
using ATSC3ESGExtension::CESGIcon;
using ATSC3ESGExtension::CESGPreview;
using ATSC3ESGExtension::CESGPrivateExt;

bool IsPlain(char c) { return static_cast<unsigned char>(c) >= ' ' && c != '"' && c != '\\'; }

/// As JsonCpp quotes with "emitUTF8". The other form would not bring back bytes that are not UTF-8.
void Quote(std::string& out, std::string_view text) {
  constexpr std::string_view kShort = "\"\"\\\\\bb\ff\nn\rr\tt";
  out += '"';
  while (!text.empty()) {
    const auto plain = static_cast<std::size_t>(
        std::find_if_not(text.begin(), text.end(), IsPlain) - text.begin());
    out.append(text, 0, plain);
    if (plain == text.size()) {
      break;
    }
    const char c = text[plain];
    std::size_t known = 0;
    while (known < kShort.size() && kShort[known] != c) {
      known += 2;
    }
    out += '\\';
    if (known < kShort.size()) {
      out += kShort[known + 1];
    } else {
      constexpr const char* kDigits = "0123456789abcdef";
      out += "u00";
      out += kDigits[c >> 4];
      out += kDigits[c & 15];
    }
    text.remove_prefix(plain + 1);
  }
  out += '"';
}

void Put(std::string& out, std::string_view name, std::int64_t number) {
  char digits[24];
  char* const end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
  out += name;
  out.append(digits, end);
}

void Put(std::string& out, std::string_view name, std::string_view text) {
  out += name;
  Quote(out, text);
}

void Put(std::string& out, const CESGIcon& icon) {
  Put(out, "{\"dataSize\":", icon.dataSize);
  Put(out, ",\"height\":", icon.height);
  Put(out, ",\"mimeType\":", icon.mimeType);
  Put(out, ",\"uri\":", icon.uri);
  Put(out, ",\"width\":", icon.width);
  out += '}';
}

void Put(std::string& out, const CESGDescription& description) {
  Put(out, "{\"lang\":", description.lang);
  Put(out, ",\"text\":", description.text);
  out += '}';
}

void Put(std::string& out, const CESGPreview& preview);

/// Nothing for an empty list.
template <typename Record>
void Put(std::string& out, std::string_view name, const std::vector<Record>& records,
         std::string_view end) {
  for (const Record& record : records) {
    out += &record == records.data() ? name : ",";
    Put(out, record);
  }
  out += records.empty() ? "" : end;
}

void Put(std::string& out, const CESGPreview& preview) {
  out += '{';
  Put(out, "\"contents\":[", preview.contents, "],");
  Put(out, "\"descriptions\":[", preview.descriptions, "],");
  Put(out, "\"icons\":[", preview.icons, "],");
  Put(out, "\"usage\":", preview.usage);
  out += '}';
}

void Put(std::string& out, const CESGPrivateExt& extension) {
  if (extension.contentIcons.empty() && extension.previews.empty()) {
    out += "null";
    return;
  }
  out += '{';
  Put(out, "\"contentIcons\":[", extension.contentIcons, extension.previews.empty() ? "]" : "],");
  Put(out, "\"previews\":[", extension.previews, "]");
  out += '}';
}

const RecordText& TextOf(const Program& program) {
  return std::get<ContentFragment>(program.content->fragment->body).text;
}

void PutStart(std::string& out, const Program& program, const std::string& quotedService) {
  Put(out, "{\"Start\":", program.time.start);
  Put(out, ",\"duration\":", program.time.duration);
  out += ',';
  out += TextOf(program).Head();
  out += "\"globalServiceId\":";
  out += quotedService;
  out += ',';
}

std::string Quoted(std::string_view text) {
  std::string quoted;
  Quote(quoted, text);
  return quoted;
}

}  // namespace

RecordText WriteRecord(std::string_view contentId, const ContentRecord& record) {
  RecordText text;
  std::string& out = text.bytes;
  out.reserve(contentId.size() + record.title.size() + record.synopsis.size() + 256);
  Put(out, "\"eventID\":", contentId);
  Put(out, ",\"genre\":", record.genre);
  out += ',';
  text.extension = static_cast<std::uint32_t>(out.size());
  out += "\"privateExt\":";
  Put(out, record.extension);
  out += ',';
  text.synopsis = static_cast<std::uint32_t>(out.size());
  Put(out, "\"synopsis\":", record.synopsis);
  Put(out, ",\"title\":", record.title);
  out += '}';
  out.shrink_to_fit();
  return text;
}

std::string ProgramAnswer(const std::string& service, const Program& program) {
  std::string answer;
  PutStart(answer, program, Quoted(service));
  answer += TextOf(program).Extension();
  answer += "\"ret\":true,";
  answer += TextOf(program).Synopsis();
  return answer;
}

std::string ListAnswer(const std::string& service, const std::vector<const Program*>& programs) {
  constexpr std::size_t kMembers = 96;  // the names and numbers of an element, at most
  const std::string quoted = Quoted(service);
  std::size_t size = kMembers;
  for (const Program* program : programs) {
    size += kMembers + quoted.size() + TextOf(*program).bytes.size();
  }
  std::string answer;
  answer.reserve(std::min(size, kMaxAnswer));
  answer = "{\"ESGProgramMap\":[";
  for (const Program* program : programs) {
    PutStart(answer, *program, quoted);
    Put(answer, "\"key\":", program->time.start);
    answer += ',';
    answer += TextOf(*program).Tail();
    answer += ',';
    if (answer.size() > kMaxAnswer) {
      throw std::length_error("the answer is larger than a message may be; ask for less at a time");
    }
  }
  answer.back() = ']';
  answer += ",\"ret\":true}";
  return answer;
}

std::string FragmentAnswer(std::string_view bytes) {
  std::string answer = R"({"ret":true,"xmlFragment":)";
  Quote(answer, bytes);
  answer += '}';
  return answer;
}

}  // namespace esg::guide
