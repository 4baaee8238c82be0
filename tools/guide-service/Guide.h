#ifndef GUIDE_GUIDE_H
#define GUIDE_GUIDE_H

#include <ESGTypes.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Folder.h"
#include "Fragment.h"
#include "Span.h"

namespace esg::guide {

/// A fragment that is part of the guide. The file is null where a content was not sent.
struct Kept {
  const Fragment* fragment = nullptr;
  const File* file = nullptr;
  const Entry* entry = nullptr;
};

/// A content shown by a service at a time.
struct Program {
  Span time;
  const Kept* content = nullptr;
};

/// What a broadcast may make of the guide; what goes beyond is reported and left out.
inline constexpr std::size_t kMaxServices = 10000;
inline constexpr std::size_t kMaxSchedulePrograms = 100000;
inline constexpr std::size_t kMaxPrograms = 1000000;
/// Contents that are scheduled but were not sent.
inline constexpr std::size_t kMaxMissing = 100000;

/// What the fragments say, put together. Results point into the guide and live as long as it does.
///
/// A service is known by its globalServiceID, or by its id where it has none. A service that
/// schedules refer to but nothing describes is known by the id they use.
///
/// The programmes of a service are in the order of start, then duration, then content id. Where
/// several start in the same second, the last in this order is the one that is listed.
class Guide {
 public:
  struct Service {
    struct Timed {
      const Kept* schedule;
      Span time;
    };
    const Kept* description = nullptr;
    std::vector<Program> programs;
    std::vector<Timed> schedules;  ///< those with programmes
    const Kept* firstSchedule = nullptr;
    const Kept* firstContent = nullptr;  ///< first of those it shows and those that name it
  };

  Guide() = default;
  /// `shift` is added to all times; the fragments' bytes stay as they are.
  Guide(Files files, std::uint32_t shift, const Report& report);
  Guide(const Guide&) = delete;
  Guide& operator=(const Guide&) = delete;

  /// The programme on air: of several, the one that started last.
  const Program* At(const std::string& service, std::uint32_t moment) const;

  /// The programmes that overlap `range`, one for each start.
  std::vector<const Program*> Within(const std::string& service, const Span& range) const;

  /// The programme that starts at `start`, or the nearest that starts before or after, even if
  /// nothing starts then. `contentId` tells which one is the current where several are.
  const Program* Neighbour(const std::string& service, std::uint32_t start,
                           const std::string& contentId, eRelative_Position position) const;

  /// The programme with that content that is on air at `moment`.
  const Program* Item(const std::string& service, const std::string& contentId,
                      std::uint32_t moment) const;

  /// The Schedule, or Content, whose time is nearest to `range` among those that overlap it: the
  /// distances of the starts and of the ends have the smallest sum. Of several, the last in order.
  /// A range of 0 seconds means the moment `range.start`.
  const Kept* Schedule(const std::string& service, const Span& range) const;
  const Kept* Content(const std::string& service, const Span& range) const;

  /// An empty one where nothing is known of the service.
  const Service& Find(const std::string& service) const;
  const std::map<std::string, Service>& Services() const { return m_services; }
  /// The start of the earliest programme.
  std::optional<std::uint32_t> First() const;
  std::size_t ProgramCount() const;
  const std::vector<Kept>& Fragments() const { return m_kept; }
  const Files& Read() const { return m_files; }
  bool HasSameFragments(const Guide& other) const;

 private:
  class Builder;

  static bool IsBefore(const Program& a, const Program& b);
  template <typename Wanted>
  const Program* Last(const std::string& service, Wanted wanted) const;

  Files m_files;
  std::vector<Kept> m_kept;  ///< in the order of the files
  std::deque<Fragment> m_notSent;
  std::deque<Kept> m_missing;
  std::map<std::string, Service> m_services;
};

/// Of the fragments of one kind and id only those of the highest version stay; of those that are
/// the same byte for byte, the first. Where a Service or Content differs from one of the same
/// version, the later takes its place, with a line to `report`; Schedules that differ stay side by
/// side, so that none of their programmes is lost. Delivery units that descriptors do not name are
/// stale and left out, unless none is named. The order stays.
std::vector<Kept> KeepNewest(const Files& files, const Report& report);

}  // namespace esg::guide

#endif
