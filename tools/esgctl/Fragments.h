#ifndef ESGCTL_FRAGMENTS_H
#define ESGCTL_FRAGMENTS_H

#include <string>
#include <vector>

namespace esgctl {

/// A text and its language, which may be unknown.
struct LanguageText {
  std::string text;
  std::string language;
};

/// One age rating or content advisory: who gives it, and what it says.
struct Rating {
  std::string system;
  std::string value;
};

/// What a Service or a Content fragment says beyond the records; absent values are empty.
struct Facts {
  std::string id;      ///< the fragment's
  std::string number;  ///< the channel's, as 33.1
  std::vector<LanguageText> names;
  std::vector<LanguageText> descriptions;
  std::vector<std::string> audioLanguages;
  std::vector<std::string> textLanguages;
  std::vector<Rating> ratings;
  std::vector<std::string> icons;
};

/// Reads a fragment in any of the forms that encoders send: with or without namespaces, texts as
/// attribute or as content. Empty where the text is no XML. All strings are valid UTF-8.
Facts ParseFacts(const std::string& xml);

/// The series that a content id names by its usual form (two letters, eight digits of the series,
/// four of the episode), and the episode in it; else empty.
struct Episode {
  std::string series;
  std::string number;
};
Episode EpisodeOf(const std::string& contentId);

}  // namespace esgctl

#endif
