#include "TextWidth.h"

#include <glib.h>

#include <algorithm>

namespace esgctl {
namespace {

constexpr std::string_view kEllipsis = "\u2026";
constexpr std::string_view kLeftToRightMark = "\u200e";
constexpr gunichar kZeroWidthJoiner = 0x200d;

/// Explicit directional formatting. Guide text needs none of it, and an unclosed override turns
/// everything behind it around.
bool IsDirectionControl(gunichar c) {
  return c == 0x061c || c == 0x200e || c == 0x200f || (c >= 0x202a && c <= 0x202e) ||
         (c >= 0x2066 && c <= 0x2069);
}

bool IsLineBreak(gunichar c) {
  return (c >= '\t' && c <= '\r') || c == 0x85 || c == 0x2028 || c == 0x2029;
}

bool IsRightToLeft(gunichar c) {
  return (c >= 0x0590 && c <= 0x08ff) || (c >= 0xfb1d && c <= 0xfdff) ||
         (c >= 0xfe70 && c <= 0xfeff) || (c >= 0x10800 && c <= 0x10fff) ||
         (c >= 0x1e800 && c <= 0x1efff);
}

int CharacterWidth(gunichar c) {
  if (g_unichar_iszerowidth(c) != FALSE) {
    return 0;
  }
  return g_unichar_iswide(c) != FALSE ? 2 : 1;
}

void Append(std::string& text, gunichar c) {
  char bytes[6];
  text.append(bytes, static_cast<std::size_t>(g_unichar_to_utf8(c, bytes)));
}

/// Calls `take(character, its first byte's offset)` until that returns false.
template <typename Take>
void ForEachCharacter(std::string_view text, Take take) {
  const char* const end = text.data() + text.size();
  for (const char* at = text.data(); at < end; at = g_utf8_next_char(at)) {
    if (!take(g_utf8_get_char(at), static_cast<std::size_t>(at - text.data()))) {
      return;
    }
  }
}

}  // namespace

std::string Printable(std::string_view text) {
  char* const valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  std::string result;
  ForEachCharacter(valid, [&result](gunichar c, std::size_t) {
    if (IsLineBreak(c)) {
      result += ' ';
    } else if (g_unichar_iscntrl(c) != FALSE) {
      Append(result, 0xfffd);
    } else if (!IsDirectionControl(c)) {
      Append(result, c);
    }
    return true;
  });
  g_free(valid);
  return result;
}

int DisplayWidth(std::string_view text) {
  int width = 0;
  ForEachCharacter(text, [&width](gunichar c, std::size_t) {
    width += CharacterWidth(c);
    return true;
  });
  return width;
}

std::string Trimmed(const std::string& text) {
  static constexpr char kBlanks[] = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kBlanks);
  return first == std::string::npos
             ? std::string()
             : text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
}

std::string_view Prefix(std::string_view text, int width) {
  int used = 0;
  std::size_t keep = text.size();
  gunichar previous = 0;
  std::size_t joiner = 0;
  ForEachCharacter(text, [&](gunichar c, std::size_t at) {
    used += CharacterWidth(c);
    if (used > width) {
      // A joiner left at the end would join what is put behind.
      keep = previous == kZeroWidthJoiner ? joiner : at;
      return false;
    }
    joiner = at;
    previous = c;
    return true;
  });
  return text.substr(0, keep);
}

std::string Cut(std::string_view text, int width) {
  if (Prefix(text, width).size() == text.size()) {
    return std::string(text);
  }
  return width <= 0 ? std::string() : std::string(Prefix(text, width - 1)).append(kEllipsis);
}

std::string Pad(std::string_view text, int width) {
  const int missing = std::max(0, width - DisplayWidth(text));
  return std::string(text).append(static_cast<std::size_t>(missing), ' ');
}

std::string GuardDirection(const std::string& text) {
  bool rightToLeft = false;
  ForEachCharacter(text, [&rightToLeft](gunichar c, std::size_t) {
    rightToLeft = IsRightToLeft(c);
    return !rightToLeft;
  });
  return rightToLeft ? std::string(kLeftToRightMark).append(text).append(kLeftToRightMark) : text;
}

}  // namespace esgctl
