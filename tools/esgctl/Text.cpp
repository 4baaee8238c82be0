#include "Text.h"

#include <glib.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <sstream>

namespace esgctl {
namespace {

constexpr std::string_view kEllipsis = "\u2026";
constexpr std::string_view kLeftToRightMark = "\u200e";
constexpr std::string_view kZeroWidthJoiner = "\u200d";

bool IsRightToLeft(gunichar c) {
  return (c >= 0x0590 && c <= 0x08ff) || (c >= 0xfb1d && c <= 0xfdff) ||
         (c >= 0xfe70 && c <= 0xfeff) || (c >= 0x10800 && c <= 0x10fff) ||
         (c >= 0x1e800 && c <= 0x1efff);
}

int CharacterWidth(gunichar c) {
  return g_unichar_iszerowidth(c) != FALSE ? 0 : g_unichar_iswide(c) != FALSE ? 2 : 1;
}

std::u32string Characters(std::string_view text) {
  glong length = 0;
  g_autofree gunichar* characters =
      g_utf8_to_ucs4_fast(text.data(), static_cast<glong>(text.size()), &length);
  return {characters, characters + length};
}

/// As much of the beginning as fits.
std::string_view Prefix(std::string_view text, int width) {
  std::size_t size = 0;
  while (size < text.size()) {
    const char* const at = text.data() + size;
    width -= CharacterWidth(g_utf8_get_char(at));
    if (width < 0) {
      break;
    }
    size = static_cast<std::size_t>(g_utf8_next_char(at) - text.data());
  }
  // A joiner left at the end would join what is put after it.
  const std::size_t joiner = text.substr(0, size).rfind(kZeroWidthJoiner);
  const bool joins = size < text.size() && joiner != std::string_view::npos &&
                     joiner + kZeroWidthJoiner.size() == size;
  return text.substr(0, joins ? joiner : size);
}

}  // namespace

int DisplayWidth(std::string_view text) {
  const std::u32string characters = Characters(text);
  return std::accumulate(characters.begin(), characters.end(), 0,
                         [](int width, gunichar c) { return width + CharacterWidth(c); });
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

std::vector<std::string> Wrap(std::string_view text, int width) {
  std::vector<std::string> lines(1);
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(' '), text.size());
    std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    const int used = DisplayWidth(lines.back());
    if (used > 0 && used + 1 + DisplayWidth(word) > width) {
      lines.emplace_back();
    } else if (used > 0) {
      lines.back() += ' ';
    }
    for (auto head = Prefix(word, width); head.size() < word.size(); head = Prefix(word, width)) {
      lines.back() += head;
      lines.emplace_back();
      word.remove_prefix(head.size());
    }
    lines.back() += word;
  }
  return lines;
}

std::string GuardDirection(const std::string& text) {
  const std::u32string characters = Characters(text);
  return std::any_of(characters.begin(), characters.end(), IsRightToLeft)
             ? std::string(kLeftToRightMark).append(text).append(kLeftToRightMark)
             : text;
}

std::vector<std::string> Words(const std::string& text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

std::string WithoutAccents(const std::string& text) {
  g_autofree char* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  g_autofree char* apart = g_utf8_normalize(valid, -1, G_NORMALIZE_ALL);
  std::string result;
  const char* next = nullptr;
  for (const char* at = apart; *at != '\0'; at = next) {
    next = g_utf8_next_char(at);
    if (g_unichar_ismark(g_utf8_get_char(at)) == FALSE) {
      result.append(at, next);
    }
  }
  return result;
}

std::string Folded(const std::string& text) {
  g_autofree char* folded = g_utf8_casefold(WithoutAccents(text).c_str(), -1);
  return folded;
}

}  // namespace esgctl
