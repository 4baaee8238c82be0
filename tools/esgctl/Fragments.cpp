#include <algorithm>
#include <pugixml.hpp>
#include <string_view>

#include "Json.h"
#include "common/Xml.h"

namespace esgctl {
namespace {

using esg::tools::Attribute;
using esg::tools::FirstText;
using esg::tools::LocalName;
using esg::tools::Text;

/// The most of one sort that a fragment tells, so that none takes long to be read.
constexpr Json::ArrayIndex kMostTexts = 100;
constexpr std::size_t kLongestNumber = 20;

/// Adds a text to a list, once.
void AddText(Json::Value& list, const std::string& text) {
  if (!text.empty() && list.size() < kMostTexts &&
      std::find(list.begin(), list.end(), Json::Value(text)) == list.end()) {
    list.append(text);
  }
}

/// Adds an object of a text and of something about it, which may be empty.
void AddPair(Json::Value& list, const char* textName, const std::string& text, const char* name,
             const std::string& about) {
  if (text.empty() || list.size() >= kMostTexts) {
    return;
  }
  Json::Value& item = list.append(Json::objectValue);
  item[textName] = text;
  if (!about.empty()) {
    item[name] = about;
  }
}

/// Adds a rating for each system, its values in the order of the dimensions: "TV-14 D L V".
void AddRatings(Json::Value& list, const pugi::xml_node& node) {
  const std::string region = FirstText(node, "RegionIdentifier");
  const std::string description = FirstText(node, "RatingDescription");
  std::map<std::string, std::map<std::string, std::string>> values;  // by system and dimension
  esg::tools::ForEach(node, "RatingDimVal", [&](const pugi::xml_node& child) {
    const std::string dimension = FirstText(child, "RatingDimension");
    // Region 1 is the United States, whose dimension 7 is that of films; other programs know the
    // two systems by these names.
    const std::string system = region != "1" ? description : dimension == "7" ? "MPAA" : "VCHIP";
    values[system][dimension] = FirstText(child, "RatingValueString");
  });
  for (const auto& [system, byDimension] : values) {
    std::string text;
    for (const auto& [dimension, value] : byDimension) {
      text += (text.empty() ? "" : " ") + value;
    }
    AddPair(list, "value", text, "system", system);
  }
}

/// Extensions may be nested, but not without end.
constexpr int kDeepest = 3;

void Read(const pugi::xml_node& parent, Json::Value& facts, int depth = 0) {
  for (const pugi::xml_node& node : parent.children()) {
    const std::string_view name = LocalName(node.name());
    if (name == "Name" || name == "Description") {
      AddPair(facts[name == "Name" ? "titles" : "synopses"], "text", Text(node), "lang",
              Attribute(node, "lang"));
    } else if (name == "AudioLanguage" || name == "TextLanguage") {
      const std::string tag = Attribute(node, "languageSDPTag");
      AddText(facts[name == "AudioLanguage" ? "audio_languages" : "text_languages"],
              tag.empty() ? Text(node) : tag);
    } else if (name == "ContentAdvisoryRatings") {
      AddRatings(facts["ratings"], node);
    } else if (name == "ParentalRating") {
      AddPair(facts["ratings"], "value", Text(node), "system", Attribute(node, "ratingSystem"));
    } else if (name == "Icon" || name == "ContentIcon") {
      AddText(facts["icons"], Text(node));
    } else if (name == "MajorChannelNum" || name == "MinorChannelNum") {
      const std::string number = facts["number"].asString();
      if (number.size() < kLongestNumber) {
        facts["number"] =
            name == "MajorChannelNum" ? Text(node) + number : number + '.' + Text(node);
      }
    } else if (depth < kDeepest && (name == "PrivateExt" || name == "ATSC3ServiceExtension" ||
                                    name == "ATSC3ContentExtension")) {
      Read(node, facts, depth + 1);
    }
  }
}

}  // namespace

Json::Value ParseFacts(const std::string& xml) {
  pugi::xml_document document;
  if (!document.load_buffer(xml.data(), xml.size())) {
    return {};
  }
  Json::Value facts(Json::objectValue);
  facts["id"] = Attribute(document.document_element(), "id");
  Read(document.document_element(), facts);
  return facts;
}

}  // namespace esgctl
