#include "Fragment.h"

#include <glib.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <pugixml.hpp>
#include <string_view>
#include <utility>

#include "Genre.h"

namespace guide {
namespace {

using ATSC3ESGExtension::CESGDescription;
using ATSC3ESGExtension::CESGIcon;
using ATSC3ESGExtension::CESGPreview;
using ATSC3ESGExtension::CESGPrivateExt;

constexpr std::string_view kBlank = " \t\r\n";

// Longer than any programme, to tell a window across the end of the NTP era from one that ends
// before it begins.
constexpr std::uint32_t kLongestWindow = 7 * 24 * 3600;

std::string_view LocalName(const char* name) {
  const char* colon = std::strchr(name, ':');
  return colon != nullptr ? colon + 1 : name;
}

std::string Clean(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kBlank);
  if (begin == std::string_view::npos) {
    return {};
  }
  text = text.substr(begin, text.find_last_not_of(kBlank) + 1 - begin);
  const auto size = static_cast<gssize>(text.size());
  if (g_utf8_validate(text.data(), size, nullptr) != FALSE) {
    return std::string(text);
  }
  char* valid = g_utf8_make_valid(text.data(), size);
  std::string result = valid;
  g_free(valid);
  return result;
}

std::string Attribute(const pugi::xml_node& node, std::string_view name) {
  for (const pugi::xml_attribute& attribute : node.attributes()) {
    if (LocalName(attribute.name()) == name) {
      return Clean(attribute.value());
    }
  }
  return {};
}

std::string Content(const pugi::xml_node& node) {
  std::string text;
  for (const pugi::xml_node& child : node.children()) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
      text += child.value();
    }
  }
  return Clean(text);
}

// <Name text="Title"/> or <Name>Title</Name>.
std::string Text(const pugi::xml_node& node) {
  std::string text = Attribute(node, "text");
  return text.empty() ? Content(node) : text;
}

template <typename Visit>
void ForEach(const pugi::xml_node& parent, std::string_view name, Visit visit) {
  for (const pugi::xml_node& child : parent.children()) {
    if (child.type() == pugi::node_element && LocalName(child.name()) == name) {
      visit(child);
    }
  }
}

// Texts come in several languages, the broadcaster's own first.
std::string FirstText(const pugi::xml_node& parent, std::string_view name) {
  std::string result;
  ForEach(parent, name, [&](const pugi::xml_node& node) {
    if (result.empty()) {
      result = Text(node);
    }
  });
  return result;
}

template <typename Number>
bool ParseNumber(const std::string& text, Number& number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

std::vector<std::string> References(const pugi::xml_node& node) {
  std::vector<std::string> ids;
  ForEach(node, "ServiceReference", [&](const pugi::xml_node& reference) {
    std::string id = Attribute(reference, "idRef");
    if (!id.empty()) {
      ids.push_back(std::move(id));
    }
  });
  return ids;
}

bool ParseWindow(const pugi::xml_node& node, Span& window) {
  if (!ParseNumber(Attribute(node, "startTime"), window.start)) {
    return false;
  }
  std::uint32_t end = 0;
  if (ParseNumber(Attribute(node, "endTime"), end) && end != window.start) {
    window.duration = end - window.start;
    if (end > window.start || window.duration <= kLongestWindow) {
      return true;
    }
    window.duration = 0;
  }
  const std::string duration = Attribute(node, "duration");
  if (!ParseNumber(duration, window.duration)) {
    window.duration = ParseLength(duration);
  }
  return true;
}

ScheduleFragment ParseSchedule(const pugi::xml_node& root, const Report& report) {
  ScheduleFragment schedule{References(root), {}};
  std::size_t unread = 0;
  ForEach(root, "ContentReference", [&](const pugi::xml_node& node) {
    ContentReference reference{Attribute(node, "idRef"), {}};
    ForEach(node, "PresentationWindow", [&](const pugi::xml_node& windowNode) {
      Span window;
      if (!reference.content.empty() && ParseWindow(windowNode, window)) {
        reference.windows.push_back(window);
      } else {
        ++unread;
      }
    });
    schedule.contents.push_back(std::move(reference));
  });
  if (unread != 0) {
    report(std::to_string(unread) + " windows without a start or a content, left out");
  }
  return schedule;
}

CESGIcon ParseIcon(const pugi::xml_node& node) {
  const auto number = [&](std::string_view name) {
    std::int32_t value = 0;
    ParseNumber(Attribute(node, name), value);
    return value;
  };
  CESGIcon icon;
  icon.uri = Content(node);
  icon.mimeType = Attribute(node, "MIMEType");
  icon.width = number("width");
  icon.height = number("height");
  icon.dataSize = number("dataSize");
  return icon;
}

CESGPreview ParsePreview(const pugi::xml_node& node) {
  CESGPreview preview;
  preview.usage = Attribute(node, "usage");
  ForEach(node, "PreviewIcon",
          [&](const pugi::xml_node& icon) { preview.icons.push_back(ParseIcon(icon)); });
  ForEach(node, "PreviewContent",
          [&](const pugi::xml_node& content) { preview.contents.push_back(ParseIcon(content)); });
  ForEach(node, "Description", [&](const pugi::xml_node& text) {
    CESGDescription description;
    description.text = Text(text);
    description.lang = Attribute(text, "lang");
    preview.descriptions.push_back(std::move(description));
  });
  return preview;
}

void ParseExtension(const pugi::xml_node& node, CESGPrivateExt& extension) {
  ForEach(node, "ContentIcon",
          [&](const pugi::xml_node& icon) { extension.contentIcons.push_back(ParseIcon(icon)); });
  ForEach(node, "Preview", [&](const pugi::xml_node& preview) {
    extension.previews.push_back(ParsePreview(preview));
  });
}

std::string ParseGenre(const pugi::xml_node& node) {
  std::string name = Text(node);
  if (name.empty()) {
    name = FirstText(node, "Name");
  }
  if (name.empty()) {
    name = GenreName(Attribute(node, "termID"));
  }
  return name.empty() ? GenreName(Attribute(node, "href")) : name;
}

ContentFragment ParseContent(const pugi::xml_node& root) {
  ContentFragment content;
  content.services = References(root);
  content.title = FirstText(root, "Name");
  content.synopsis = FirstText(root, "Description");
  content.length = ParseLength(FirstText(root, "Length"));
  ForEach(root, "Genre", [&](const pugi::xml_node& node) {
    const std::string genre = ParseGenre(node);
    if (!genre.empty()) {
      content.genre += (content.genre.empty() ? "" : ", ") + genre;
    }
  });
  ForEach(root, "PrivateExt", [&](const pugi::xml_node& node) {
    ParseExtension(node, content.extension);
    // Some encoders put one more element around the extension.
    ForEach(node, "ATSC3ContentExtension",
            [&](const pugi::xml_node& inner) { ParseExtension(inner, content.extension); });
  });
  return content;
}

bool BeginsEntity(std::string_view text) {
  for (const std::string_view entity : {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;"}) {
    if (text.substr(0, entity.size()) == entity) {
      return true;
    }
  }
  if (text.substr(0, 2) != "&#") {
    return false;
  }
  const bool hex = text.substr(2, 1) == "x";
  const std::string_view digits = text.substr(hex ? 3 : 2);
  const std::size_t length =
      digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789");
  return length != 0 && length != std::string_view::npos && digits[length] == ';';
}

// The parser takes such an ampersand for itself, which is what it is meant to be.
bool HasRawAmpersand(std::string_view xml) {
  for (std::size_t at = xml.find_first_of("&<"); at != std::string_view::npos;
       at = xml.find_first_of("&<", at + 1)) {
    const std::string_view rest = xml.substr(at);
    if (rest[0] == '&') {
      if (!BeginsEntity(rest)) {
        return true;
      }
    } else if (rest.substr(0, 9) == "<![CDATA[") {
      at = std::min(xml.find("]]>", at), xml.size());
    } else if (rest.substr(0, 4) == "<!--") {
      at = std::min(xml.find("-->", at), xml.size());
    }
  }
  return false;
}

}  // namespace

std::uint32_t ParseLength(const std::string& text) {
  std::uint64_t seconds = 0;
  std::uint64_t number = 0;
  std::size_t digits = 0;
  bool time = false;
  if (text.size() < 3 || text[0] != 'P') {
    return 0;
  }
  for (const char c : text.substr(1)) {
    if (c >= '0' && c <= '9' && ++digits <= 9) {
      number = number * 10 + static_cast<std::uint64_t>(c - '0');
      continue;
    }
    if (c == 'T' && !time && digits == 0) {
      time = true;
      continue;
    }
    const std::uint64_t unit = !time && c == 'D'  ? 86400
                               : time && c == 'H' ? 3600
                               : time && c == 'M' ? 60
                               : time && c == 'S' ? 1
                                                  : 0;
    if (unit == 0 || digits == 0) {
      return 0;
    }
    seconds += number * unit;
    number = digits = 0;
  }
  return digits == 0 && seconds <= UINT32_MAX ? static_cast<std::uint32_t>(seconds) : 0;
}

std::optional<Fragment> ParseFragment(std::string file, std::string bytes, const Report& report) {
  const Report reportFile = [&](const std::string& line) { report(file + ": " + line); };
  pugi::xml_document document;
  const pugi::xml_parse_result result = document.load_buffer(bytes.data(), bytes.size());
  if (!result) {
    reportFile(std::string("not readable as XML, left out: ") + result.description() + " at byte " +
               std::to_string(result.offset));
    return std::nullopt;
  }
  const pugi::xml_node root = document.document_element();
  const std::string_view kind = LocalName(root.name());
  Fragment fragment;
  fragment.id = Attribute(root, "id");
  ParseNumber(Attribute(root, "version"), fragment.version);
  if (kind == "Service") {
    ServiceFragment service{Attribute(root, "globalServiceID")};
    if (service.globalId.empty() && fragment.id.empty()) {
      reportFile("a Service without an id, left out");
      return std::nullopt;
    }
    fragment.body = std::move(service);
  } else if (kind == "Schedule") {
    ScheduleFragment schedule = ParseSchedule(root, reportFile);
    if (schedule.services.empty()) {
      reportFile("a Schedule without a service, left out");
      return std::nullopt;
    }
    fragment.body = std::move(schedule);
  } else if (kind == "Content") {
    fragment.body = ParseContent(root);
  } else {
    reportFile("no fragment of a guide, left out: its root is " + Clean(root.name()));
    return std::nullopt;
  }
  // A NUL means two bytes a character, where this way of looking does not apply.
  if (bytes.find('\0') == std::string::npos && HasRawAmpersand(bytes)) {
    reportFile("not well-formed, kept: an ampersand that begins no entity");
  }
  fragment.file = std::move(file);
  fragment.bytes = std::move(bytes);
  return fragment;
}

}  // namespace guide
