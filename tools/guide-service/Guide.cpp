#include "Guide.h"

#include <json/value.h>

#include <algorithm>
#include <iterator>

namespace guide {
namespace {

bool StartsBefore(const Program& program, std::uint32_t start) {
  return InOrder(program.time.start) < InOrder(start);
}

template <typename Times>
const Fragment* Nearest(const std::vector<const Fragment*>& fragments, const Times& times,
                        Span range) {
  if (range.duration == 0) {
    if (range.start < fragments.size()) {
      return fragments[range.start];
    }
    range.duration = 1;
  }
  const Fragment* nearest = nullptr;
  std::uint64_t least = 0;
  for (const auto& candidate : times) {
    const std::uint64_t distance = Distance(range, candidate.time);
    if (Overlap(range, candidate.time) && (nearest == nullptr || distance <= least)) {
      nearest = candidate.fragment;
      least = distance;
    }
  }
  return nearest;
}

}  // namespace

const Guide::ServiceEntry* Guide::Find(const std::string& service) const {
  const auto found = m_services.find(service);
  return found == m_services.end() ? nullptr : &found->second;
}

const Program* Guide::At(const std::string& service, std::uint32_t moment) const {
  const ServiceEntry* entry = Find(service);
  if (entry == nullptr) {
    return nullptr;
  }
  const auto found =
      std::find_if(entry->programs.rbegin(), entry->programs.rend(),
                   [&](const Program& program) { return Contains(program.time, moment); });
  return found == entry->programs.rend() ? nullptr : &*found;
}

std::vector<const Program*> Guide::Within(const std::string& service, const Span& range) const {
  std::vector<const Program*> result;
  if (const ServiceEntry* entry = Find(service)) {
    for (const Program& program : entry->programs) {
      if (!Overlap(program.time, range)) {
        continue;
      }
      if (!result.empty() && result.back()->time.start == program.time.start) {
        result.back() = &program;
      } else {
        result.push_back(&program);
      }
    }
  }
  return result;
}

const Program* Guide::Neighbour(const std::string& service, std::uint32_t start,
                                const std::string& contentId, eRelative_Position position) const {
  const ServiceEntry* entry = Find(service);
  if (entry == nullptr) {
    return nullptr;
  }
  const std::vector<Program>& programs = entry->programs;
  const auto first = std::lower_bound(programs.begin(), programs.end(), start, StartsBefore);
  const auto end = std::find_if(
      first, programs.end(), [&](const Program& program) { return program.time.start != start; });
  switch (position) {
    case eRelative_Position_Previous:
      return first == programs.begin() ? nullptr : &*std::prev(first);
    case eRelative_Position_Current: {
      if (first == end) {
        return nullptr;
      }
      const auto meant = std::find_if(
          first, end, [&](const Program& program) { return program.contentId == contentId; });
      return meant != end ? &*meant : &*std::prev(end);
    }
    case eRelative_Position_Next: {
      if (end == programs.end()) {
        return nullptr;
      }
      const auto listed = std::find_if(end, programs.end(), [&](const Program& program) {
        return program.time.start != end->time.start;
      });
      return &*std::prev(listed);
    }
  }
  return nullptr;
}

const Program* Guide::Item(const std::string& service, const std::string& contentId,
                           std::uint32_t moment) const {
  const ServiceEntry* entry = Find(service);
  if (entry == nullptr) {
    return nullptr;
  }
  const auto found =
      std::find_if(entry->programs.rbegin(), entry->programs.rend(), [&](const Program& program) {
        return program.contentId == contentId && Contains(program.time, moment);
      });
  return found == entry->programs.rend() ? nullptr : &*found;
}

FCESGProgramInfo Guide::Record(const std::string& service, const Program& program) {
  Json::Value json;
  json["globalServiceId"] = service;
  json["Start"] = program.time.start;
  json["duration"] = program.time.duration;
  json["eventID"] = program.contentId;
  if (program.fragment != nullptr) {
    const auto& content = std::get<ContentFragment>(program.fragment->body);
    json["title"] = content.title;
    json["synopsis"] = content.synopsis;
    json["genre"] = content.genre;
    ATSC3ESGExtension::CESGPrivateExt::ToJson(content.extension, json["privateExt"]);
  }
  FCESGProgramInfo record;
  FCESGProgramInfo::FromJson(json, record);
  return record;
}

const Fragment* Guide::Service(const std::string& service) const {
  const ServiceEntry* entry = Find(service);
  return entry == nullptr ? nullptr : entry->description;
}

const Fragment* Guide::Schedule(const std::string& service, const Span& range) const {
  const ServiceEntry* entry = Find(service);
  return entry == nullptr ? nullptr : Nearest(entry->schedules, entry->scheduleTimes, range);
}

const Fragment* Guide::Content(const std::string& service, const Span& range) const {
  const ServiceEntry* entry = Find(service);
  return entry == nullptr ? nullptr : Nearest(entry->contents, entry->contentTimes, range);
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

std::map<std::string, std::size_t> Guide::Summary() const {
  std::map<std::string, std::size_t> summary;
  for (const auto& [id, entry] : m_services) {
    summary[id] = entry.programs.size();
  }
  return summary;
}

bool Guide::HasSameFragments(const Guide& other) const {
  return std::equal(
      m_fragments.begin(), m_fragments.end(), other.m_fragments.begin(), other.m_fragments.end(),
      [](const Fragment& a, const Fragment& b) { return a.file == b.file && a.bytes == b.bytes; });
}

}  // namespace guide
