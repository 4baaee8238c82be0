#ifndef ESGCTL_TEXT_H
#define ESGCTL_TEXT_H

#include <string>
#include <string_view>
#include <vector>

#include "common/Text.h"

namespace esgctl {

using esg::tools::Printable;
using esg::tools::Trimmed;

/// How many terminal columns a printable text takes, counted character by character as terminals
/// do: wide ones two, combining ones and joiners none.
int DisplayWidth(std::string_view text);

/// The text, or as much of it as fits `width` columns with an ellipsis at the end. Combining
/// characters stay with their base.
std::string Cut(std::string_view text, int width);

/// The text filled with spaces to `width` columns; a longer text stays as it is.
std::string Pad(std::string_view text, int width);

/// Lines of at most `width` columns, broken at spaces, or inside a word that is longer than a line.
std::vector<std::string> Wrap(std::string_view text, int width);

/// Keeps right-to-left text from changing the order of the columns beside it.
std::string GuardDirection(const std::string& text);

/// The words of a text, split at blanks.
std::vector<std::string> Words(const std::string& text);

/// The text without accents.
std::string WithoutAccents(const std::string& text);
/// The same in one case, to compare texts.
std::string Folded(const std::string& text);

}  // namespace esgctl

#endif
