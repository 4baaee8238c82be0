#include "Guide.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace esg::guide {
namespace {

/// How much the two differ: the seconds between the starts plus those between the ends.
std::uint64_t Distance(const Span& a, const Span& b) {
  const std::int64_t starts = static_cast<std::int32_t>(b.start - a.start);
  const std::int64_t ends = starts + b.duration - a.duration;
  return static_cast<std::uint64_t>(std::llabs(starts)) +
         static_cast<std::uint64_t>(std::llabs(ends));
}

bool StartsBefore(const Program& program, std::uint32_t start) {
  return InOrder(program.time.start) < InOrder(start);
}

template <typename Candidate>
const Kept* Nearest(const std::vector<Candidate>& candidates, const Kept* Candidate::*fragment,
                    Span range) {
  range.duration = std::max(range.duration, 1U);
  const Kept* nearest = nullptr;
  std::uint64_t least = 0;
  for (const Candidate& candidate : candidates) {
    const std::uint64_t distance = Distance(range, candidate.time);
    if (Overlap(range, candidate.time) && (candidate.*fragment)->file != nullptr &&
        (nearest == nullptr || distance <= least)) {
      nearest = candidate.*fragment;
      least = distance;
    }
  }
  return nearest;
}

}  // namespace

const Guide::Service& Guide::Find(const std::string& service) const {
  static const Service unknown;
  const auto found = m_services.find(service);
  return found == m_services.end() ? unknown : found->second;
}

/// The last programme of a service, in order, that is wanted.
template <typename Wanted>
const Program* Guide::Last(const std::string& service, Wanted wanted) const {
  const std::vector<Program>& programs = Find(service).programs;
  const auto found = std::find_if(programs.rbegin(), programs.rend(), wanted);
  return found == programs.rend() ? nullptr : &*found;
}

const Program* Guide::At(const std::string& service, std::uint32_t moment) const {
  return Last(service, [&](const Program& program) { return Contains(program.time, moment); });
}

const Program* Guide::Item(const std::string& service, const std::string& contentId,
                           std::uint32_t moment) const {
  return Last(service, [&](const Program& program) {
    return program.content->fragment->id == contentId && Contains(program.time, moment);
  });
}

std::vector<const Program*> Guide::Within(const std::string& service, const Span& range) const {
  std::vector<const Program*> result;
  for (const Program& program : Find(service).programs) {
    if (!Overlap(program.time, range)) {
      continue;
    }
    if (!result.empty() && result.back()->time.start == program.time.start) {
      result.back() = &program;
    } else {
      result.push_back(&program);
    }
  }
  return result;
}

const Program* Guide::Neighbour(const std::string& service, std::uint32_t start,
                                const std::string& contentId, eRelative_Position position) const {
  const std::vector<Program>& programs = Find(service).programs;
  const auto first = std::lower_bound(programs.begin(), programs.end(), start, StartsBefore);
  const auto after = [&](auto from, std::uint32_t time) {
    return std::find_if(from, programs.end(),
                        [&](const Program& program) { return program.time.start != time; });
  };
  const auto end = after(first, start);
  if (position == eRelative_Position_Previous) {
    return first == programs.begin() ? nullptr : &*std::prev(first);
  }
  if (position == eRelative_Position_Next) {
    return end == programs.end() ? nullptr : &*std::prev(after(end, end->time.start));
  }
  const auto meant = std::find_if(first, end, [&](const Program& program) {
    return program.content->fragment->id == contentId;
  });
  if (meant != end) {
    return &*meant;
  }
  return first == end ? nullptr : &*std::prev(end);
}

const Kept* Guide::Schedule(const std::string& service, const Span& range) const {
  return Nearest(Find(service).schedules, &Service::Timed::schedule, range);
}

const Kept* Guide::Content(const std::string& service, const Span& range) const {
  return Nearest(Find(service).programs, &Program::content, range);
}

std::optional<std::uint32_t> Guide::First() const {
  std::optional<std::uint32_t> first;
  for (const auto& [id, entry] : m_services) {
    if (!entry.programs.empty()) {
      const std::uint32_t start = entry.programs.front().time.start;
      if (!first || InOrder(start) < InOrder(*first)) {
        first = start;
      }
    }
  }
  return first;
}

std::size_t Guide::ProgramCount() const {
  std::size_t count = 0;
  for (const auto& [id, entry] : m_services) {
    count += entry.programs.size();
  }
  return count;
}

bool Guide::HasSameFragments(const Guide& other) const {
  return std::equal(m_kept.begin(), m_kept.end(), other.m_kept.begin(), other.m_kept.end(),
                    [](const Kept& a, const Kept& b) {
                      return a.fragment->hash == b.fragment->hash && a.file->name == b.file->name &&
                             a.entry->offset == b.entry->offset;
                    });
}

}  // namespace esg::guide
