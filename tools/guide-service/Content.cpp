#include <array>
#include <vector>

#include "Fragment.h"
#include "Reply.h"
#include "common/Text.h"
#include "common/Xml.h"

namespace esg::guide {
namespace {

using tools::Attribute;
using tools::FirstText;
using tools::ForEach;
using tools::ParseNumber;
using tools::Text;
using Node = pugi::xml_node;

// The ATSC categorical genre codes, from 0x20 on.
constexpr std::size_t kFirstCode = 0x20;
// clang-format off
constexpr std::array kGenres = {
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
static_assert(kGenres.size() == 0xAD - kFirstCode + 1);

/// The name of a term of the broadcast's genre scheme, such as "…/genre-cs/:120": the name of the
/// ATSC genre code if the last part is one, else that part itself.
std::string GenreName(std::string_view term) {
  term = term.substr(0, term.find_last_not_of(":/") + 1);
  term.remove_prefix(term.find_last_of(":/#") + 1);
  std::size_t code = 0;
  return ParseNumber(term, code) && code >= kFirstCode && code - kFirstCode < kGenres.size()
             ? kGenres[code - kFirstCode]
             : std::string(term);
}

std::string ParseGenre(const Node& node) {
  for (const std::string& name : {Text(node), FirstText(node, "Name")}) {
    if (!name.empty()) {
      return name;
    }
  }
  const std::string term = GenreName(Attribute(node, "termID"));
  return term.empty() ? GenreName(Attribute(node, "href")) : term;
}

std::string ParseGenres(const Node& root) {
  std::string genres;
  ForEach(root, "Genre", [&](const Node& node) {
    const std::string genre = ParseGenre(node);
    if (!genre.empty()) {
      genres += (genres.empty() ? "" : ", ") + genre;
    }
  });
  return genres;
}

/// Each of these writes one object.
void PutIcon(std::string& out, const Node& node) {
  const auto number = [&](std::string_view name) {
    std::int32_t value = 0;
    ParseNumber(Attribute(node, name), value);
    return value;
  };
  Put(out, "{\"dataSize\":", number("dataSize"));
  Put(out, ",\"height\":", number("height"));
  Put(out, ",\"mimeType\":", Attribute(node, "MIMEType"));
  Put(out, ",\"uri\":", Text(node));
  Put(out, ",\"width\":", number("width"));
  out += '}';
}

void PutDescription(std::string& out, const Node& node) {
  Put(out, "{\"lang\":", Attribute(node, "lang"));
  Put(out, ",\"text\":", Text(node));
  out += '}';
}

/// A member that is a list, with a comma after it; nothing if the list is empty.
void PutList(std::string& out, std::string_view name, const std::vector<Node>& parents,
             std::string_view element, void (*put)(std::string& out, const Node& node)) {
  const std::size_t before = out.size();
  for (const Node& parent : parents) {
    ForEach(parent, element, [&](const Node& node) {
      out += out.size() == before ? name : "";
      put(out, node);
      out += ',';
    });
  }
  if (out.size() != before) {
    out.back() = ']';
    out += ',';
  }
}

void PutPreview(std::string& out, const Node& node) {
  out += '{';
  PutList(out, "\"contents\":[", {node}, "PreviewContent", PutIcon);
  PutList(out, "\"descriptions\":[", {node}, "Description", PutDescription);
  PutList(out, "\"icons\":[", {node}, "PreviewIcon", PutIcon);
  Put(out, "\"usage\":", Attribute(node, "usage"));
  out += '}';
}

void PutExtension(std::string& out, const Node& root) {
  std::vector<Node> extensions;
  ForEach(root, "PrivateExt", [&](const Node& node) {
    extensions.push_back(node);
    // Some encoders put one more element around the extension.
    ForEach(node, "ATSC3ContentExtension", [&](const Node& inner) { extensions.push_back(inner); });
  });
  const std::size_t before = out.size();
  out += '{';
  PutList(out, "\"contentIcons\":[", extensions, "ContentIcon", PutIcon);
  PutList(out, "\"previews\":[", extensions, "Preview", PutPreview);
  if (out.size() == before + 1) {
    out.replace(before, 1, "null");
  } else {
    out.back() = '}';
  }
}

}  // namespace

RecordText WriteRecord(std::string_view contentId, const Node& root) {
  constexpr std::size_t kUsual = 1000;
  RecordText text;
  std::string out;
  out.reserve(kUsual);
  Put(out, "\"eventID\":", contentId);
  Put(out, ",\"genre\":", ParseGenres(root));
  out += ',';
  text.extension = static_cast<std::uint32_t>(out.size());
  out += "\"privateExt\":";
  PutExtension(out, root);
  out += ',';
  text.synopsis = static_cast<std::uint32_t>(out.size());
  Put(out, "\"synopsis\":", FirstText(root, "Description"));
  Put(out, ",\"title\":", FirstText(root, "Name"));
  out += '}';
  text.bytes.assign(out);  // takes no more memory than it needs
  return text;
}

}  // namespace esg::guide
