#include "Fragment.h"

#include <glib.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <pugixml.hpp>
#include <string_view>
#include <utility>

#include "Genre.h"
#include "common/Xml.h"

namespace esg::guide {
namespace {

using ATSC3ESGExtension::CESGDescription;
using ATSC3ESGExtension::CESGIcon;
using ATSC3ESGExtension::CESGPreview;
using ATSC3ESGExtension::CESGPrivateExt;
using tools::Attribute;
using tools::CleanText;
using tools::LocalName;

// Longer than any programme, to tell a window across the end of the NTP era from one that ends
// before it begins.
constexpr std::uint32_t kLongestWindow = 7 * 24 * 3600;

std::string Content(const pugi::xml_node& node) {
  std::string text;
  for (const pugi::xml_node& child : node.children()) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
      text += child.value();
    }
  }
  return CleanText(text);
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

IdList References(const pugi::xml_node& node) {
  IdList ids;
  ForEach(node, "ServiceReference", [&](const pugi::xml_node& reference) {
    const std::string id = Attribute(reference, "idRef");
    if (!id.empty()) {
      ids.Add(id);
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

ServiceFragment ParseService(const pugi::xml_node& root) {
  ServiceFragment service{Attribute(root, "globalServiceID"), FirstText(root, "Name"), {}};
  const auto readNumber = [&](const pugi::xml_node& extension) {
    const std::string major = FirstText(extension, "MajorChannelNum");
    const std::string minor = FirstText(extension, "MinorChannelNum");
    if (!major.empty()) {
      service.channel = minor.empty() ? major : major + "." + minor;
    }
  };
  ForEach(root, "PrivateExt", [&](const pugi::xml_node& node) {
    readNumber(node);
    ForEach(node, "ATSC3ServiceExtension", readNumber);
  });
  return service;
}

ScheduleFragment ParseSchedule(const pugi::xml_node& root, const Report& report) {
  ScheduleFragment schedule;
  schedule.services = References(root);
  std::size_t unread = 0;
  ForEach(root, "ContentReference", [&](const pugi::xml_node& node) {
    const std::string id = Attribute(node, "idRef");
    const std::uint32_t content = schedule.contents.Add(id);
    ForEach(node, "PresentationWindow", [&](const pugi::xml_node& windowNode) {
      Span window;
      if (!id.empty() && ParseWindow(windowNode, window)) {
        schedule.showings.push_back({content, window});
      } else {
        ++unread;
      }
    });
  });
  if (unread != 0) {
    report(std::to_string(unread) + " windows without a start or a content, left out");
  }
  schedule.showings.shrink_to_fit();
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

ContentFragment ParseContent(const pugi::xml_node& root, const std::string& id) {
  ContentRecord record;
  record.title = FirstText(root, "Name");
  record.synopsis = FirstText(root, "Description");
  ForEach(root, "Genre", [&](const pugi::xml_node& node) {
    const std::string genre = ParseGenre(node);
    if (!genre.empty()) {
      record.genre += (record.genre.empty() ? "" : ", ") + genre;
    }
  });
  ForEach(root, "PrivateExt", [&](const pugi::xml_node& node) {
    ParseExtension(node, record.extension);
    // Some encoders put one more element around the extension.
    ForEach(node, "ATSC3ContentExtension",
            [&](const pugi::xml_node& inner) { ParseExtension(inner, record.extension); });
  });
  return {References(root), ParseLength(FirstText(root, "Length")), WriteRecord(id, record)};
}

/// Whether an ampersand does not start an entity. The parser takes such a one for itself, which is
/// what it is meant to be. CDATA sections and comments may hold any, and so may two bytes a
/// character.
bool HasRawAmpersand(std::string_view xml) {
  constexpr std::string_view kEntity =
      "#0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  for (std::size_t at = xml.find('&'); at != std::string_view::npos; at = xml.find('&', at + 1)) {
    const std::size_t end = xml.find_first_not_of(kEntity, at + 1);
    if (end == std::string_view::npos || end == at + 1 || xml[end] != ';') {
      return xml.find("<!") == std::string_view::npos && xml.find('\0') == std::string_view::npos;
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

std::uint32_t IdList::Add(std::string_view id) {
  const auto place = static_cast<std::uint32_t>(m_ids.size());
  m_ids += id;
  m_ids += '\0';
  return place;
}

std::size_t IdList::Count() const {
  return static_cast<std::size_t>(std::count(m_ids.begin(), m_ids.end(), '\0'));
}

const char* KindOf(const Fragment& fragment) {
  constexpr const char* kKinds[] = {"Service", "Schedule", "Content"};
  return kKinds[fragment.body.index()];
}

// Only changes have to be noticed, so speed is what matters.
std::uint64_t Hash(const char* bytes, std::size_t size) {
  constexpr std::uint64_t kFactor = 0x9e3779b97f4a7c15;
  std::uint64_t hash = size * kFactor;
  for (std::size_t at = 0; at < size; at += sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes + at, std::min(sizeof(word), size - at));
    hash = (hash ^ word) * kFactor;
    hash ^= hash >> 29;
  }
  return hash;
}

struct FragmentParser::Document : pugi::xml_document {};

FragmentParser::FragmentParser() : m_document(std::make_unique<Document>()) {}
FragmentParser::~FragmentParser() = default;

std::shared_ptr<const Fragment> FragmentParser::Parse(char* bytes, std::size_t size,
                                                      const Report& report) {
  if (size > kMaxFragment) {
    report("larger than a fragment may be, left out");
    return nullptr;
  }
  auto fragment = std::make_shared<Fragment>();
  fragment->size = static_cast<std::uint32_t>(size);
  fragment->hash = Hash(bytes, size);
  const bool rawAmpersand = HasRawAmpersand({bytes, size});
  const pugi::xml_parse_result result = m_document->load_buffer_inplace(bytes, size);
  if (!result) {
    report(std::string("not readable as XML, left out: ") + result.description() + " at byte " +
           std::to_string(result.offset));
    return nullptr;
  }
  const pugi::xml_node root = m_document->document_element();
  const std::string_view kind = LocalName(root.name());
  fragment->id = Attribute(root, "id");
  ParseNumber(Attribute(root, "version"), fragment->version);
  if (kind == "Service") {
    ServiceFragment service = ParseService(root);
    if (service.globalId.empty() && fragment->id.empty()) {
      report("a Service without an id, left out");
      return nullptr;
    }
    fragment->body = std::move(service);
  } else if (kind == "Schedule") {
    ScheduleFragment schedule = ParseSchedule(root, report);
    if (schedule.services.Count() == 0) {
      report("a Schedule without a service, left out");
      return nullptr;
    }
    fragment->body = std::move(schedule);
  } else if (kind == "Content") {
    ContentFragment content = ParseContent(root, fragment->id);
    if (content.text.bytes.size() > kMaxRecord) {
      report("a Content with a record larger than 1 MiB, left out");
      return nullptr;
    }
    fragment->body = std::move(content);
  } else {
    report("not a fragment of a guide, left out: its root is " + CleanText(root.name()));
    return nullptr;
  }
  if (rawAmpersand) {
    report("not well-formed, kept: an ampersand that does not start an entity");
  }
  return fragment;
}

bool FragmentParser::ParseDescriptor(const char* bytes, std::size_t size,
                                     std::vector<std::string>& units) {
  constexpr std::string_view kRoot = "ServiceGuideDeliveryDescriptor";
  constexpr std::size_t kBeginning = 2048;
  if (std::string_view(bytes, std::min(size, kBeginning)).find(kRoot) == std::string_view::npos) {
    return false;
  }
  if (!m_document->load_buffer(bytes, size) ||
      LocalName(m_document->document_element().name()) != kRoot) {
    return false;
  }
  ForEach(m_document->document_element(), "DescriptorEntry", [&](const pugi::xml_node& entry) {
    ForEach(entry, "ServiceGuideDeliveryUnit", [&](const pugi::xml_node& unit) {
      const std::string location = Attribute(unit, "contentLocation");
      units.push_back(location.substr(location.rfind('/') + 1));
    });
  });
  return true;
}

}  // namespace esg::guide
