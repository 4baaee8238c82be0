#ifndef ESGCTL_TEXT_WIDTH_H
#define ESGCTL_TEXT_WIDTH_H

#include <string>
#include <string_view>

#include "common/Text.h"

namespace esgctl {

using esg::tools::Printable;
using esg::tools::Trimmed;

/// How many terminal columns a printable text takes, counted character by character as terminals
/// do: wide ones two, combining ones and joiners none.
int DisplayWidth(std::string_view text);

/// As much of the beginning of a printable text as fits `width` columns. Combining characters stay
/// with their base.
std::string_view Prefix(std::string_view text, int width);

/// The text, or as much of it as fits `width` columns with an ellipsis behind.
std::string Cut(std::string_view text, int width);

/// The text filled with spaces to `width` columns; a longer text stays as it is.
std::string Pad(std::string_view text, int width);

/// Keeps right-to-left text from changing the order of the columns beside it.
std::string GuardDirection(const std::string& text);

}  // namespace esgctl

#endif
