#include "TextWidth.h"

#include <glib.h>

#include <algorithm>

namespace esgctl {
namespace {

constexpr std::string_view kEllipsis = "\u2026";
constexpr std::string_view kLeftToRightMark = "\u200e";
constexpr gunichar kZeroWidthJoiner = 0x200d;

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

int DisplayWidth(std::string_view text) {
  int width = 0;
  ForEachCharacter(text, [&width](gunichar c, std::size_t) {
    width += CharacterWidth(c);
    return true;
  });
  return width;
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
