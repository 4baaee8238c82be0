#ifndef ESG_TOOLS_TEXT_H
#define ESG_TOOLS_TEXT_H

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

namespace esg::tools {

/// Whether a character of a text may do something to a terminal other than to be shown.
bool IsUnsafe(std::uint32_t character);

/// Any text on one line, fit for a terminal or a log: valid UTF-8, line breaks and tabs as spaces,
/// no control characters and nothing that reorders the text around it.
std::string Printable(std::string_view text);

/// The text without the blanks around it.
std::string_view Trimmed(std::string_view text);

/// Reads a text that is one decimal number and nothing else; false if it is not.
template <typename Number>
bool ParseNumber(std::string_view text, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

}  // namespace esg::tools

#endif
