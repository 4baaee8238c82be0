#ifndef GUIDE_FRAGMENT_H
#define GUIDE_FRAGMENT_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Answer.h"
#include "Clock.h"

namespace esg::guide {

/// Takes one line about something that is wrong.
using Report = std::function<void(const std::string& line)>;

/// Ids one after the other, each with a zero after it, which none has in it: there are many
/// fragments, and most have one short id.
class IdList {
 public:
  /// Returns where the id is, for At.
  std::uint32_t Add(std::string_view id);
  std::string_view At(std::uint32_t place) const { return m_ids.c_str() + place; }
  std::size_t Count() const;
  template <typename Visit>
  void ForEach(Visit visit) const {
    for (std::size_t at = 0; at < m_ids.size(); at = m_ids.find('\0', at) + 1) {
      visit(std::string_view(m_ids.c_str() + at));
    }
  }

 private:
  std::string m_ids;
};

struct ServiceFragment {
  std::string globalId;
  std::string name;
  std::string channel;  ///< "33.1"; empty where it has no number
};

/// A time at which a content is shown.
struct Showing {
  std::uint32_t content = 0;  ///< its place in the Schedule's `contents`
  Span time;                  ///< duration 0: as long as the content
};

struct ScheduleFragment {
  IdList services;
  IdList contents;
  std::vector<Showing> showings;
};

struct ContentFragment {
  IdList services;
  std::uint32_t length = 0;  ///< seconds; 0: not given
  RecordText text;
};

/// One fragment of the broadcast guide. Its strings are valid UTF-8, whatever was sent. The bytes
/// themselves stay in their file.
struct Fragment {
  std::string id;
  std::uint32_t version = 0;
  std::uint32_t size = 0;
  std::uint64_t hash = 0;
  std::variant<ServiceFragment, ScheduleFragment, ContentFragment> body;
};

/// "Service", "Schedule" or "Content".
const char* KindOf(const Fragment& fragment);

/// The largest XML text of a fragment, and the largest record that a Content may become.
inline constexpr std::size_t kMaxFragment = std::size_t{4} << 20;
inline constexpr std::size_t kMaxRecord = std::size_t{1} << 20;

std::uint64_t Hash(const char* bytes, std::size_t size);

/// Reads fragments and descriptors; keeps its memory from one to the next.
class FragmentParser {
 public:
  FragmentParser();
  ~FragmentParser();

  /// Reads a fragment in any of the forms that encoders send: elements with or without namespaces,
  /// texts as attribute or as content. Overwrites `bytes`. Null, with a line to `report`, for what
  /// is not a fragment or cannot be read. An ampersand that does not start an entity stands for
  /// itself and is reported.
  std::shared_ptr<const Fragment> Parse(char* bytes, std::size_t size, const Report& report);

  /// The names of the delivery units that a descriptor lists; false where it is not a descriptor.
  bool ParseDescriptor(const char* bytes, std::size_t size, std::vector<std::string>& units);

 private:
  struct Document;
  std::unique_ptr<Document> m_document;
};

/// The seconds of an ISO 8601 duration of days, hours, minutes and seconds, such as "PT1H30M"; 0
/// where `text` is not one.
std::uint32_t ParseLength(const std::string& text);

}  // namespace esg::guide

#endif
