#include "Reply.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include "Guide.h"

namespace esg::guide {
namespace {

bool IsPlain(char c) { return static_cast<unsigned char>(c) >= ' ' && c != '"' && c != '\\'; }

const RecordText& TextOf(const Program& program) {
  return std::get<ContentFragment>(program.content->fragment->body).text;
}

/// The members before "privateExt".
void PutStart(std::string& out, const Program& program, const std::string& service) {
  Put(out, "{\"Start\":", program.time.start);
  Put(out, ",\"duration\":", program.time.duration);
  out += ',';
  out += TextOf(program).Head();
  Put(out, "\"globalServiceId\":", service);
  out += ',';
}

}  // namespace

void Put(std::string& out, std::string_view name, std::int64_t number) {
  char digits[24];
  char* const end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
  out += name;
  out.append(digits, end);
}

// JsonCpp's other form, without "emitUTF8", would not bring back bytes that are not UTF-8.
void Put(std::string& out, std::string_view name, std::string_view text) {
  constexpr std::string_view kEscapes = "\"\"\\\\\bb\ff\nn\rr\tt";
  out += name;
  out += '"';
  for (const char* next = text.begin(); next != text.end();) {
    const char* const special = std::find_if_not(next, text.end(), IsPlain);
    out.append(next, special);
    if (special == text.end()) {
      break;
    }
    next = special + 1;
    std::size_t known = 0;
    while (known < kEscapes.size() && kEscapes[known] != *special) {
      known += 2;
    }
    out += '\\';
    if (known < kEscapes.size()) {
      out += kEscapes[known + 1];
    } else {
      constexpr const char* kDigits = "0123456789abcdef";
      out += "u00";
      out += kDigits[*special >> 4];
      out += kDigits[*special & 15];
    }
  }
  out += '"';
}

std::string ProgramReply(const std::string& service, const Program& program) {
  std::string reply;
  PutStart(reply, program, service);
  reply += TextOf(program).Extension();
  reply += "\"ret\":true,";
  reply += TextOf(program).Synopsis();
  return reply;
}

std::string ListReply(const std::string& service, const std::vector<const Program*>& programs) {
  constexpr std::size_t kMembers = 96;  // the names and numbers of an element, at most
  std::size_t size = kMembers;
  for (const Program* program : programs) {
    size += kMembers + service.size() + TextOf(*program).bytes.size();
  }
  std::string reply;
  reply.reserve(std::min(size, kMaxReply));
  reply = "{\"ESGProgramMap\":[";
  for (const Program* program : programs) {
    PutStart(reply, *program, service);
    Put(reply, "\"key\":", program->time.start);
    reply += ',';
    reply += TextOf(*program).Tail();
    reply += ',';
    if (reply.size() > kMaxReply) {
      throw std::length_error(
          "the reply would be larger than a message may be; ask for less at a time");
    }
  }
  reply.back() = ']';
  reply += ",\"ret\":true}";
  return reply;
}

std::string FragmentReply(std::string_view bytes) {
  std::string reply;
  Put(reply, R"({"ret":true,"xmlFragment":)", bytes);
  reply += '}';
  return reply;
}

}  // namespace esg::guide
