#include "Fragment.h"

#include <glib.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

#include "common/Text.h"
#include "common/Xml.h"

namespace esg::guide {
namespace {

using tools::Attribute;
using tools::FirstText;
using tools::ForEach;
using tools::ParseNumber;
using Node = pugi::xml_node;

// Longer than any programme, to tell a window across the end of the NTP era from one that ends
// before it begins.
constexpr std::uint32_t kLongestWindow = 7 * 24 * 3600;

IdList References(const Node& node) {
  IdList ids;
  ForEach(node, "ServiceReference", [&](const Node& reference) {
    const std::string id = Attribute(reference, "idRef");
    if (!id.empty()) {
      ids.Add(id);
    }
  });
  return ids;
}

/// The seconds of an ISO 8601 duration of days, hours, minutes and seconds, such as "PT1H30M"; 0 if
/// `text` is not one.
std::uint32_t ParseLength(std::string_view text) {
  constexpr std::pair<char, std::uint64_t> kParts[] = {{'P', 0},    {'D', 86400}, {'T', 0},
                                                       {'H', 3600}, {'M', 60},    {'S', 1}};
  std::uint64_t seconds = 0;
  for (const auto& [name, unit] : kParts) {
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const auto digits = static_cast<std::size_t>(end - text.data());
    if (text.substr(digits, 1) == std::string_view(&name, 1) && (digits == 0) == (unit == 0) &&
        error != std::errc::result_out_of_range) {
      seconds += number * unit;
      text.remove_prefix(digits + 1);
    } else if (unit == 0) {
      break;  // a number before "T" would be one of months
    }
  }
  return text.empty() && seconds <= UINT32_MAX ? static_cast<std::uint32_t>(seconds) : 0;
}

bool ParseWindow(const Node& node, Span& window) {
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

ServiceFragment ParseService(const Node& root) {
  ServiceFragment service{Attribute(root, "globalServiceID"), FirstText(root, "Name"), {}};
  const auto readNumber = [&](const Node& extension) {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    if (ParseNumber(FirstText(extension, "MajorChannelNum"), major)) {
      service.channel = std::to_string(major);
      if (ParseNumber(FirstText(extension, "MinorChannelNum"), minor)) {
        service.channel += '.' + std::to_string(minor);
      }
    }
  };
  ForEach(root, "PrivateExt", [&](const Node& node) {
    readNumber(node);
    ForEach(node, "ATSC3ServiceExtension", readNumber);
  });
  return service;
}

ScheduleFragment ParseSchedule(const Node& root, const Report& report) {
  ScheduleFragment schedule;
  schedule.services = References(root);
  std::size_t unread = 0;
  ForEach(root, "ContentReference", [&](const Node& node) {
    const std::string id = Attribute(node, "idRef");
    const std::uint32_t content = schedule.contents.Add(id);
    ForEach(node, "PresentationWindow", [&](const Node& windowNode) {
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

/// Whether an ampersand does not start an entity. The parser takes such a one for itself, which is
/// what it is meant to be. CDATA sections and comments may hold any, and so may two bytes a
/// character.
bool HasRawAmpersand(std::string_view xml) {
  for (std::size_t at = xml.find('&'); at != std::string_view::npos; at = xml.find('&', at + 1)) {
    const auto* const end = std::find_if_not(xml.begin() + at + 1, xml.end(), [](char c) {
      return c == '#' || g_ascii_isalnum(c) != FALSE;
    });
    if (end == xml.begin() + at + 1 || end == xml.end() || *end != ';') {
      return xml.find("<!") == std::string_view::npos && xml.find('\0') == std::string_view::npos;
    }
  }
  return false;
}

/// Returns why it has to be left out, or nothing.
std::string ReadBody(const Node& root, Fragment& fragment, const Report& report) {
  const std::string_view kind = tools::LocalName(root.name());
  fragment.id = Attribute(root, "id");
  ParseNumber(Attribute(root, "version"), fragment.version);
  if (kind == "Service") {
    const auto& service = fragment.body.emplace<ServiceFragment>(ParseService(root));
    return service.globalId.empty() && fragment.id.empty() ? "a Service without an id, left out"
                                                           : "";
  }
  if (kind == "Schedule") {
    const auto& schedule = fragment.body.emplace<ScheduleFragment>(ParseSchedule(root, report));
    return schedule.services.Count() == 0 ? "a Schedule without a service, left out" : "";
  }
  if (kind == "Content") {
    const auto& content = fragment.body.emplace<ContentFragment>(ContentFragment{
        References(root), ParseLength(FirstText(root, "Length")), WriteRecord(fragment.id, root)});
    return content.text.bytes.size() > kMaxRecord
               ? "a Content with a record larger than 1 MiB, left out"
               : "";
  }
  return "not a fragment of a guide, left out: its root is " + tools::CleanText(root.name());
}

}  // namespace

std::uint32_t IdList::Add(std::string_view id) {
  const auto place = static_cast<std::uint32_t>(m_ids.size());
  m_ids += id;
  m_ids += '\0';
  return place;
}

std::size_t IdList::Count() const {
  return static_cast<std::size_t>(std::count(m_ids.begin(), m_ids.end(), '\0'));
}

std::size_t Weight(const Fragment& fragment) {
  // Its entries in the guide and in the tables of ids, and what the allocator adds.
  constexpr std::size_t kBeside = 200;
  std::size_t weight = sizeof(Fragment) + kBeside + fragment.id.size();
  if (const auto* service = std::get_if<ServiceFragment>(&fragment.body)) {
    weight += 2 * service->globalId.size() + service->name.size();
  } else if (const auto* schedule = std::get_if<ScheduleFragment>(&fragment.body)) {
    weight += schedule->services.Size() + schedule->contents.Size() +
              schedule->showings.size() * sizeof(Showing);
  } else if (const auto* content = std::get_if<ContentFragment>(&fragment.body)) {
    weight += content->services.Size() + content->text.bytes.size();
  }
  return weight;
}

std::string Short(std::string_view id) {
  constexpr std::size_t kLongest = 200;
  return std::string(id.substr(0, kLongest)) + (id.size() > kLongest ? "..." : "");
}

std::uint64_t Hash(std::string_view bytes) {
  constexpr std::uint64_t kFactor = 0x9e3779b97f4a7c15;
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  std::uint64_t hash = bytes.size() * kFactor;
  const auto add = [&hash](const char* at, std::size_t size) {
    std::uint64_t word = 0;
    std::memcpy(&word, at, size);
    hash = (hash ^ word) * kFactor;
    hash ^= hash >> 29;
  };
  const char* at = bytes.data();
  for (std::size_t words = bytes.size() / kWord; words != 0; --words) {
    add(at, kWord);
    at += kWord;
  }
  add(at, bytes.size() % kWord);
  return hash;
}

std::shared_ptr<const Fragment> ParseFragment(pugi::xml_document& document, char* bytes,
                                              std::size_t size, const Report& report) {
  if (size > kMaxFragment) {
    report("larger than a fragment may be, left out");
    return nullptr;
  }
  auto fragment = std::make_shared<Fragment>();
  fragment->size = static_cast<std::uint32_t>(size);
  fragment->hash = Hash({bytes, size});
  const bool rawAmpersand = HasRawAmpersand({bytes, size});
  const pugi::xml_parse_result result = document.load_buffer_inplace(bytes, size);
  if (!result) {
    report(std::string("not readable as XML, left out: ") + result.description() + " at byte " +
           std::to_string(result.offset));
    return nullptr;
  }
  const std::string fault = ReadBody(document.document_element(), *fragment, report);
  if (!fault.empty()) {
    report(fault);
    return nullptr;
  }
  if (rawAmpersand) {
    report("not well-formed, kept: an ampersand that does not start an entity");
  }
  return fragment;
}

bool ParseDescriptor(std::string_view bytes, std::vector<std::string>& units) {
  constexpr std::string_view kRoot = "ServiceGuideDeliveryDescriptor";
  constexpr std::size_t kBeginning = 2048;
  constexpr std::size_t kLargest = std::size_t{16} << 20;
  // Elements and attributes: each takes the parser up to 64 bytes.
  constexpr std::ptrdiff_t kMostNodes = 1000000;
  const auto startsNode = [](char c) { return c == '<' || c == '='; };
  pugi::xml_document document;
  if (bytes.substr(0, kBeginning).find(kRoot) == std::string_view::npos ||
      bytes.size() > kLargest ||
      std::count_if(bytes.begin(), bytes.end(), startsNode) > kMostNodes ||
      !document.load_buffer(bytes.data(), bytes.size()) ||
      !tools::IsNamed(document.document_element().name(), kRoot)) {
    return false;
  }
  ForEach(document.document_element(), "DescriptorEntry", [&](const Node& entry) {
    ForEach(entry, "ServiceGuideDeliveryUnit", [&](const Node& unit) {
      const std::string location = Attribute(unit, "contentLocation");
      units.push_back(location.substr(location.rfind('/') + 1));
    });
  });
  return true;
}

}  // namespace esg::guide
