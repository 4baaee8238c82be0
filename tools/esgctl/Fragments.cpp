#include "Fragments.h"

#include <glib.h>

#include <algorithm>
#include <pugixml.hpp>
#include <regex>
#include <string_view>

#include "common/Xml.h"

namespace esgctl {
namespace {

using esg::tools::Attribute;
using esg::tools::CleanText;
using esg::tools::LocalName;

/// <Name text="Title"/> or <Name>Title</Name>.
std::string Text(const pugi::xml_node& node) {
  std::string text = Attribute(node, "text");
  return text.empty() ? CleanText(node.child_value()) : text;
}

void Add(std::vector<std::string>& list, std::string text) {
  if (!text.empty() && std::find(list.begin(), list.end(), text) == list.end()) {
    list.push_back(std::move(text));
  }
}

/// The values of one rating in the order of its dimensions: "TV-14 D L V".
Rating ParseRating(const pugi::xml_node& node) {
  Rating rating;
  std::vector<std::pair<std::string, std::string>> values;
  for (const pugi::xml_node& child : node.children()) {
    const std::string_view name = LocalName(child.name());
    if (name == "RatingDescription") {
      rating.system = Text(child);
    } else if (name == "RatingDimVal") {
      auto& value = values.emplace_back();
      for (const pugi::xml_node& part : child.children()) {
        (LocalName(part.name()) == "RatingDimension" ? value.first : value.second) = Text(part);
      }
    }
  }
  std::stable_sort(values.begin(), values.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto& value : values) {
    rating.value += (rating.value.empty() ? "" : " ") + value.second;
  }
  return rating;
}

void Read(const pugi::xml_node& parent, Facts& facts, std::string& major, std::string& minor) {
  for (const pugi::xml_node& node : parent.children()) {
    const std::string_view name = LocalName(node.name());
    if (name == "Name" || name == "Description") {
      LanguageText text{Text(node), Attribute(node, "lang")};
      if (!text.text.empty()) {
        (name == "Name" ? facts.names : facts.descriptions).push_back(std::move(text));
      }
    } else if (name == "AudioLanguage" || name == "TextLanguage") {
      const std::string tag = Attribute(node, "languageSDPTag");
      Add(name == "AudioLanguage" ? facts.audioLanguages : facts.textLanguages,
          tag.empty() ? Text(node) : tag);
    } else if (name == "ContentAdvisoryRatings") {
      Rating rating = ParseRating(node);
      if (!rating.value.empty()) {
        facts.ratings.push_back(std::move(rating));
      }
    } else if (name == "ParentalRating") {
      std::string value = Text(node);
      if (!value.empty()) {
        facts.ratings.push_back({Attribute(node, "ratingSystem"), std::move(value)});
      }
    } else if (name == "Icon" || name == "ContentIcon") {
      Add(facts.icons, Text(node));
    } else if (name == "MajorChannelNum") {
      major = Text(node);
    } else if (name == "MinorChannelNum") {
      minor = Text(node);
    } else if (name == "PrivateExt" || name == "ATSC3ServiceExtension" ||
               name == "ATSC3ContentExtension") {
      Read(node, facts, major, minor);
    }
  }
}

}  // namespace

Facts ParseFacts(const std::string& xml) {
  Facts facts;
  pugi::xml_document document;
  if (!document.load_buffer(xml.data(), xml.size())) {
    return facts;
  }
  facts.id = Attribute(document.document_element(), "id");
  std::string major;
  std::string minor;
  Read(document.document_element(), facts, major, minor);
  facts.number = major + (minor.empty() ? "" : "." + minor);
  return facts;
}

Episode EpisodeOf(const std::string& contentId) {
  static const std::regex pattern("(EP\\d{8})(\\d{4})");
  std::smatch parts;
  return std::regex_match(contentId, parts, pattern) ? Episode{parts.str(1), parts.str(2)}
                                                     : Episode{};
}

}  // namespace esgctl
