#include "Text.h"

#include <glib.h>

#include <algorithm>
#include <iterator>
#include <sstream>

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

/// As much of the beginning as fits.
std::string_view Prefix(std::string_view text, int width) {
  int used = 0;
  std::size_t keep = text.size();
  gunichar previous = 0;
  std::size_t joiner = 0;
  ForEachCharacter(text, [&](gunichar c, std::size_t at) {
    used += CharacterWidth(c);
    if (used > width) {
      // A joiner left at the end would join what is put after it.
      keep = previous == kZeroWidthJoiner ? joiner : at;
      return false;
    }
    joiner = at;
    previous = c;
    return true;
  });
  return text.substr(0, keep);
}

/// How many letters are to be added, left out or changed; two that are swapped count as one.
std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> steps(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) {
    for (std::size_t j = 0; j <= b.size(); ++j) {
      steps[i][j] = i + j;
      if (i > 0 && j > 0) {
        steps[i][j] = std::min({steps[i - 1][j] + 1, steps[i][j - 1] + 1,
                                steps[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      }
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
      }
    }
  }
  return steps[a.size()][b.size()];
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
  bool rightToLeft = false;
  ForEachCharacter(text, [&rightToLeft](gunichar c, std::size_t) {
    rightToLeft = IsRightToLeft(c);
    return !rightToLeft;
  });
  return rightToLeft ? std::string(kLeftToRightMark).append(text).append(kLeftToRightMark) : text;
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

std::string Suggestion(const std::string& word, const std::vector<std::string>& candidates) {
  std::string nearest;
  std::size_t least = std::max<std::size_t>(1, std::min<std::size_t>(word.size(), 9) / 3) + 1;
  if (word.size() > 100) {
    return nearest;
  }
  for (const std::string& candidate : candidates) {
    const std::size_t distance = Distance(word, candidate);
    if (distance < least) {
      least = distance;
      nearest = candidate;
    }
  }
  return nearest;
}

}  // namespace esgctl
