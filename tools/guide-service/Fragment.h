#ifndef GUIDE_FRAGMENT_H
#define GUIDE_FRAGMENT_H

#include <ATSC3ESGExtension.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Clock.h"

namespace guide {

/// Takes one line about something that is not as it should be.
using Report = std::function<void(const std::string& line)>;

struct ServiceFragment {
  std::string globalId;
};

/// The times at which one content is shown.
struct ContentReference {
  std::string content;
  std::vector<Span> windows;  ///< duration 0: as long as the content
};

struct ScheduleFragment {
  std::vector<std::string> services;
  std::vector<ContentReference> contents;
};

struct ContentFragment {
  std::vector<std::string> services;
  std::string title;
  std::string synopsis;
  std::string genre;
  std::uint32_t length = 0;  ///< seconds; 0: not given
  ATSC3ESGExtension::CESGPrivateExt extension;
};

/// One fragment of the broadcast guide. Its strings are valid UTF-8, whatever was sent; `bytes` are
/// those that were sent.
struct Fragment {
  std::string file;
  std::string bytes;
  std::string id;
  std::uint32_t version = 0;
  std::variant<ServiceFragment, ScheduleFragment, ContentFragment> body;
};

/// Reads a fragment in any of the forms that encoders send: elements with or without namespaces,
/// texts as attribute or as content. Empty, with a line to `report`, for what is no fragment or is
/// too broken to be read. An ampersand that begins no entity stands for itself and is reported.
std::optional<Fragment> ParseFragment(std::string file, std::string bytes, const Report& report);

/// The seconds of an ISO 8601 duration of days, hours, minutes and seconds, such as "PT1H30M"; 0
/// where `text` is not one.
std::uint32_t ParseLength(const std::string& text);

}  // namespace guide

#endif
