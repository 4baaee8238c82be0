#include "common/Text.h"

#include <glib.h>

namespace esg::tools {
namespace {

bool IsLineBreak(gunichar c) {
  return (c >= '\t' && c <= '\r') || c == 0x85 || c == 0x2028 || c == 0x2029;
}

}  // namespace

bool IsUnsafe(std::uint32_t c) {
  // Explicit directional formatting: text needs none of it, and an unclosed override turns
  // everything after it around.
  const bool direction = c == 0x061c || c == 0x200e || c == 0x200f ||
                         (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
  const bool noCharacter = (c & 0xfffe) == 0xfffe;
  return direction || noCharacter || IsLineBreak(c) || g_unichar_iscntrl(c) != FALSE;
}

std::string Printable(std::string_view text) {
  if (text.empty()) {
    return {};
  }
  g_autofree char* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  std::string result;
  const char* next = nullptr;
  for (const char* at = valid; *at != '\0'; at = next) {
    next = g_utf8_next_char(at);
    const gunichar c = g_utf8_get_char(at);
    if (!IsUnsafe(c)) {
      result.append(at, next);
    } else if (IsLineBreak(c)) {
      result += ' ';
    } else if (g_unichar_iscntrl(c) != FALSE) {
      result += "\ufffd";
    }
  }
  return result;
}

std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kBlanks);
  return first == std::string_view::npos
             ? std::string_view("")
             : text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
}

}  // namespace esg::tools
