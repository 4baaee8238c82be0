#ifndef GUIDE_FRAGMENT_H
#define GUIDE_FRAGMENT_H

#include <cstdint>
#include <functional>
#include <memory>
#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Span.h"

namespace esg::guide {

/// Takes one line about something that is wrong.
using Report = std::function<void(const std::string& line)>;

/// Ids one after the other, each followed by a zero, which none contains: there are many fragments,
/// and most have one short id.
class IdList {
 public:
  /// Returns where the id is, for At.
  std::uint32_t Add(std::string_view id);
  std::string_view At(std::uint32_t place) const { return m_ids.c_str() + place; }
  std::size_t Count() const;
  std::size_t Size() const { return m_ids.size(); }
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
  std::string channel;  ///< "33.1"; empty if it has no number
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

/// The members of a programme's record that are the same in every reply, as JSON text that is
/// ready to be copied.
struct RecordText {
  std::string_view Head() const { return std::string_view(bytes).substr(0, extension); }
  std::string_view Extension() const {
    return std::string_view(bytes).substr(extension, synopsis - extension);
  }
  std::string_view Synopsis() const { return std::string_view(bytes).substr(synopsis); }
  std::string_view Tail() const { return std::string_view(bytes).substr(extension); }

  std::string bytes;
  std::uint32_t extension = 0;  ///< where that member starts
  std::uint32_t synopsis = 0;
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

/// The largest XML text of a fragment, and the largest record that a Content may become.
inline constexpr std::size_t kMaxFragment = std::size_t{4} << 20;
inline constexpr std::size_t kMaxRecord = std::size_t{1} << 20;

/// About how much memory a fragment takes, with all that a guide keeps for it.
std::size_t Weight(const Fragment& fragment);

/// An id short enough for a line of a report, which may name the same one many times.
std::string Short(std::string_view id);

/// Tells whether bytes have changed; not safe against intent.
std::uint64_t Hash(std::string_view bytes);

/// Reads a fragment in any of the forms that encoders send: elements with or without namespaces,
/// texts as attribute or as content. Overwrites `bytes`. Null, with a line to `report`, for what is
/// not a fragment or cannot be read. An ampersand that does not start an entity stands for itself
/// and is reported. The document keeps its memory from one fragment to the next.
std::shared_ptr<const Fragment> ParseFragment(pugi::xml_document& document, char* bytes,
                                              std::size_t size, const Report& report);

/// The record of a Content; that of a null node has the id only.
RecordText WriteRecord(std::string_view contentId, const pugi::xml_node& root);

/// The names of the delivery units that a descriptor lists; false if it is not a descriptor, or one
/// that would take too much memory to be read.
bool ParseDescriptor(std::string_view bytes, std::vector<std::string>& units);

}  // namespace esg::guide

#endif
