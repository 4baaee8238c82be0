#include "Genre.h"

#include <array>
#include <charconv>

namespace esg::guide {
namespace {

// The ATSC categorical genre codes, from 0x20 on.
constexpr std::size_t kFirstCode = 0x20;
// clang-format off
constexpr std::array kNames = {
    "Education", "Entertainment", "Movie", "News", "Religious", "Sports", "Other", "Action",
    "Advertisement", "Animated", "Anthology", "Automobile", "Awards", "Baseball", "Basketball",
    "Bulletin", "Business", "Classical", "College", "Combat", "Comedy", "Commentary", "Concert",
    "Consumer", "Contemporary", "Crime", "Dance", "Documentary", "Drama", "Elementary", "Erotica",
    "Exercise", "Fantasy", "Farm", "Fashion", "Fiction", "Food", "Football", "Foreign",
    "Fund raiser", "Game/Quiz", "Garden", "Golf", "Government", "Health", "High school",
    "History", "Hobby", "Hockey", "Home", "Horror", "Information", "Instruction", "International",
    "Interview", "Language", "Legal", "Live", "Local", "Math", "Medical", "Meeting", "Military",
    "Miniseries", "Music", "Mystery", "National", "Nature", "Police", "Politics", "Premiere",
    "Prerecorded", "Product", "Professional", "Public", "Racing", "Reading", "Repair", "Repeat",
    "Review", "Romance", "Science", "Series", "Service", "Shopping", "Soap opera", "Special",
    "Suspense", "Talk", "Technical", "Tennis", "Travel", "Variety", "Video", "Weather", "Western",
    "Art", "Auto racing", "Aviation", "Biography", "Boating", "Bowling", "Boxing", "Cartoon",
    "Children", "Classic film", "Community", "Computers", "Country music", "Court",
    "Extreme sports", "Family", "Financial", "Gymnastics", "Headlines", "Horse racing",
    "Hunting/Fishing/Outdoors", "Independent", "Jazz", "Magazine", "Motorcycle racing",
    "Music/Film/Books", "News-International", "News-Local", "News-National", "News-Regional",
    "Olympics", "Original", "Performing arts", "Pets/Animals", "Pop", "Rock & roll", "Sci-fi",
    "Self improvement", "Sitcom", "Skating", "Skiing", "Soccer", "Track/Field", "True",
    "Volleyball", "Wrestling"};
// clang-format on
static_assert(kNames.size() == 0xAD - kFirstCode + 1);

}  // namespace

std::string GenreName(std::string_view term) {
  while (!term.empty() && (term.back() == ':' || term.back() == '/')) {
    term.remove_suffix(1);
  }
  term.remove_prefix(term.find_last_of(":/#") + 1);
  std::size_t code = 0;
  const auto [end, error] = std::from_chars(term.data(), term.data() + term.size(), code);
  if (error == std::errc() && end == term.data() + term.size() && code >= kFirstCode &&
      code - kFirstCode < kNames.size()) {
    return kNames[code - kFirstCode];
  }
  return std::string(term);
}

}  // namespace esg::guide
