#ifndef GUIDE_GUIDE_H
#define GUIDE_GUIDE_H

#include <ESGTypes.h>
#include <FCESGProgramInfo.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Clock.h"
#include "Fragment.h"

namespace guide {

/// A content shown by a service at a time.
struct Program {
  Span time;
  std::string contentId;
  const Fragment* fragment = nullptr;  ///< null where the content was not sent
};

/// What the fragments say, put together. Answers point into the guide and live as long as it does.
///
/// A service is known by its globalServiceID, or by its id where it has none. A service that
/// schedules refer to but nobody describes is known by the id they use.
///
/// The programmes of a service are in the order of start, then duration, then content id. Where
/// several start in the same second, the last in this order is the one that is listed.
class Guide {
 public:
  Guide() = default;
  /// `shift` is added to all times; the fragments' bytes stay as they are.
  Guide(std::vector<Fragment> fragments, std::uint32_t shift, const Report& report);
  Guide(const Guide&) = delete;
  Guide& operator=(const Guide&) = delete;

  /// The programme on air: of several, the one that started last.
  const Program* At(const std::string& service, std::uint32_t moment) const;

  /// The programmes that overlap `range`, one for each start.
  std::vector<const Program*> Within(const std::string& service, const Span& range) const;

  /// The programme that starts at `start`, or the nearest that starts before or after, also where
  /// nothing starts then. `contentId` tells which one is the current where several are.
  const Program* Neighbour(const std::string& service, std::uint32_t start,
                           const std::string& contentId, eRelative_Position position) const;

  /// The programme with that content that is on air at `moment`.
  const Program* Item(const std::string& service, const std::string& contentId,
                      std::uint32_t moment) const;

  /// The programme as it goes to a client, with the id of the service it was asked for.
  static FCESGProgramInfo Record(const std::string& service, const Program& program);

  const Fragment* Service(const std::string& service) const;
  /// The Schedule, or Content, whose time is nearest to `range` among those that overlap it.
  /// Nearest means the smallest Distance; of several, the last in order. A range of 0 seconds means
  /// the moment `range.start`, or, where that is less than the number of the service's fragments of
  /// the kind, the fragment with that number in the order of file names, from 0 on.
  const Fragment* Schedule(const std::string& service, const Span& range) const;
  const Fragment* Content(const std::string& service, const Span& range) const;

  /// The start of the earliest programme.
  std::optional<std::uint32_t> First() const;

  std::size_t ServiceCount() const { return m_services.size(); }
  std::size_t ProgramCount() const;
  /// Each service's id with the number of its programmes.
  std::map<std::string, std::size_t> Summary() const;
  bool HasSameFragments(const Guide& other) const;

 private:
  struct Timed {
    const Fragment* fragment;
    Span time;
  };
  struct ServiceEntry {
    const Fragment* description = nullptr;
    std::vector<Program> programs;
    std::vector<const Fragment*> schedules;
    std::vector<const Fragment*> contents;
    std::vector<Timed> scheduleTimes;
    std::vector<Timed> contentTimes;
  };

  class Builder;

  static bool IsBefore(const Program& a, const Program& b);
  const ServiceEntry* Find(const std::string& service) const;

  std::vector<Fragment> m_fragments;
  std::map<std::string, ServiceEntry> m_services;
};

}  // namespace guide

#endif
