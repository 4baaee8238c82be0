#include <algorithm>
#include <memory_resource>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "Guide.h"

namespace esg::guide {

/// Puts the fragments together once, while the guide is constructed.
class Guide::Builder {
 public:
  Builder(Guide& guide, std::uint32_t shift, const Report& report)
      : m_guide(guide), m_shift(shift), m_report(report) {}

  void Build() {
    m_contents.reserve(m_guide.m_kept.size());
    for (const Kept& kept : m_guide.m_kept) {
      if (std::holds_alternative<ServiceFragment>(kept.fragment->body)) {
        AddService(kept);
      } else if (std::holds_alternative<ContentFragment>(kept.fragment->body) &&
                 !kept.fragment->id.empty()) {
        m_contents[kept.fragment->id] = &kept;
      }
    }
    for (const Kept& kept : m_guide.m_kept) {
      if (const auto* schedule = std::get_if<ScheduleFragment>(&kept.fragment->body)) {
        AddSchedule(kept, *schedule);
      } else if (const auto* content = std::get_if<ContentFragment>(&kept.fragment->body)) {
        content->services.ForEach([&](std::string_view id) {
          if (Service* service = Referred(kept, std::string(id))) {
            KeepFirst(service->firstContent, &kept);
          }
        });
      }
    }
    for (auto& [id, service] : m_guide.m_services) {
      Finish(id, service);
    }
  }

 private:
  /// The fragments lie one after the other in the order of their files.
  static void KeepFirst(const Kept*& first, const Kept* kept) {
    if (first == nullptr || kept < first) {
      first = kept;
    }
  }

  /// Null where there are too many.
  Service* Named(const std::string& id) {
    if (m_guide.m_services.size() < kMaxServices) {
      return &m_guide.m_services[id];
    }
    const auto found = m_guide.m_services.find(id);
    if (found == m_guide.m_services.end() && !std::exchange(m_tooManyServices, true)) {
      m_report("more than " + std::to_string(kMaxServices) + " services, the others left out");
    }
    return found == m_guide.m_services.end() ? nullptr : &found->second;
  }

  void AddService(const Kept& kept) {
    const std::string& globalId = std::get<ServiceFragment>(kept.fragment->body).globalId;
    const std::string& name = globalId.empty() ? kept.fragment->id : globalId;
    Service* service = Named(name);
    if (service == nullptr) {
      return;
    }
    m_names[kept.fragment->id] = name;
    if (service->description == nullptr) {
      service->description = &kept;
    } else {
      m_report(kept.file->name + ": describes service " + name + " again; the description in " +
               service->description->file->name + " is kept");
    }
  }

  /// References use a service's id; some encoders write its global id there.
  Service* Referred(const Kept& kept, const std::string& id) {
    const auto name = m_names.find(id);
    if (name != m_names.end()) {
      return Named(name->second);
    }
    const std::size_t before = m_guide.m_services.size();
    Service* service = Named(id);
    if (m_guide.m_services.size() != before) {
      m_report(kept.file->name + ": refers to service " + id + ", which nothing describes");
    }
    return service;
  }

  void AddSchedule(const Kept& kept, const ScheduleFragment& schedule) {
    const std::size_t count = schedule.services.Count() * schedule.showings.size();
    if (count > kMaxSchedulePrograms) {
      m_report(kept.file->name + ": a Schedule of " + std::to_string(count) +
               " programmes, left out; " + std::to_string(kMaxSchedulePrograms) + " are possible");
    } else if (m_count + count > kMaxPrograms) {
      m_report(kept.file->name + ": a Schedule left out: the guide has more than " +
               std::to_string(kMaxPrograms) + " programmes");
    } else {
      m_count += count;
      const std::vector<Program> programs = ProgramsOf(kept, schedule);
      schedule.services.ForEach([&](std::string_view id) {
        if (Service* service = Referred(kept, std::string(id))) {
          AddPrograms(*service, kept, programs);
        }
      });
    }
  }

  std::vector<Program> ProgramsOf(const Kept& kept, const ScheduleFragment& schedule) {
    std::vector<Program> programs;
    programs.reserve(schedule.showings.size());
    for (const Showing& showing : schedule.showings) {
      const std::string_view id = schedule.contents.At(showing.content);
      Program program{showing.time, ContentOf(kept, id)};
      if (program.content == nullptr) {
        continue;
      }
      if (program.time.duration == 0) {
        program.time.duration = std::get<ContentFragment>(program.content->fragment->body).length;
      }
      if (program.time.duration == 0) {
        m_report(kept.file->name + ": content " + Short(id) + " at " +
                 std::to_string(showing.time.start) + " has no duration, left out");
        continue;
      }
      program.time.start += m_shift;
      programs.push_back(program);
    }
    return programs;
  }

  /// Null where there are too many that were not sent.
  const Kept* ContentOf(const Kept& kept, std::string_view id) {
    const auto found = m_contents.find(id);
    if (found != m_contents.end()) {
      return found->second;
    }
    if (m_guide.m_missing.size() == kMaxMissing) {
      if (!std::exchange(m_tooManyMissing, true)) {
        m_report("more than " + std::to_string(kMaxMissing) +
                 " contents were not sent, the programmes of the others left out");
      }
      return nullptr;
    }
    m_report(kept.file->name + ": shows content " + Short(id) +
             ", which was not sent or cannot be read; it has no title");
    Fragment& fragment = m_guide.m_notSent.emplace_back();
    fragment.id = id;
    fragment.body = ContentFragment{{}, 0, WriteRecord(id, pugi::xml_node())};
    const Kept& missing = m_guide.m_missing.emplace_back(Kept{&fragment, nullptr, nullptr});
    m_contents[fragment.id] = &missing;
    return &missing;
  }

  static void AddPrograms(Service& service, const Kept& kept,
                          const std::vector<Program>& programs) {
    KeepFirst(service.firstSchedule, &kept);
    std::uint64_t start = UINT64_MAX;
    std::uint64_t end = 0;
    for (const Program& program : programs) {
      start = std::min(start, InOrder(program.time.start));
      end = std::max(end, InOrder(program.time.start) + program.time.duration);
      service.programs.push_back(program);
    }
    if (start < end) {
      const std::uint64_t length = std::min<std::uint64_t>(end - start, UINT32_MAX);
      service.schedules.push_back(
          {&kept, {static_cast<std::uint32_t>(start), static_cast<std::uint32_t>(length)}});
    }
  }

  void Finish(const std::string& id, Service& service) {
    std::vector<Program>& programs = service.programs;
    // Merges, as each Schedule is in order by itself.
    std::stable_sort(programs.begin(), programs.end(), IsBefore);
    // Schedules overlap, so one programme may stand in several.
    programs.erase(std::unique(programs.begin(), programs.end(),
                               [](const Program& a, const Program& b) {
                                 return a.time == b.time && a.content == b.content;
                               }),
                   programs.end());
    programs.shrink_to_fit();
    for (std::size_t i = 0; i < programs.size(); ++i) {
      const Program& program = programs[i];
      if (i + 1 < programs.size() && programs[i + 1].time.start == program.time.start) {
        m_report("service " + Short(id) + ": " + Short(programs[i + 1].content->fragment->id) +
                 " is listed instead of " + Short(program.content->fragment->id) +
                 ", which starts in the same second, " + std::to_string(program.time.start));
      }
      if (program.content->file != nullptr) {
        KeepFirst(service.firstContent, program.content);
      }
    }
  }

  Guide& m_guide;
  const std::uint32_t m_shift;
  const Report& m_report;
  std::unordered_map<std::string, std::string> m_names;
  std::pmr::monotonic_buffer_resource m_blocks;
  std::pmr::unordered_map<std::string_view, const Kept*> m_contents{&m_blocks};
  std::size_t m_count = 0;
  bool m_tooManyServices = false;
  bool m_tooManyMissing = false;
};

bool Guide::IsBefore(const Program& a, const Program& b) {
  if (a.time.start != b.time.start) {
    return InOrder(a.time.start) < InOrder(b.time.start);
  }
  return a.time.duration != b.time.duration ? a.time.duration < b.time.duration
                                            : a.content->fragment->id < b.content->fragment->id;
}

Guide::Guide(Files files, std::uint32_t shift, const Report& report)
    : m_files(std::move(files)), m_kept(KeepNewest(m_files, report)) {
  Builder(*this, shift, report).Build();
}

namespace {

/// The files that count: all, less the delivery units that are stale.
std::vector<const File*> Current(const Files& files, const Report& report) {
  std::unordered_set<std::string_view> named;
  for (const auto& file : files) {
    named.insert(file->units.begin(), file->units.end());
  }
  const auto isNamed = [&](const auto& file) { return named.count(file->name) != 0; };
  const bool believed = std::any_of(files.begin(), files.end(), isNamed);
  std::vector<const File*> current;
  for (const auto& file : files) {
    if (believed && file->isUnit && !isNamed(file)) {
      report(file->name + ": stale, left out: no descriptor names it");
    } else {
      current.push_back(file.get());
    }
  }
  return current;
}

}  // namespace

std::vector<Kept> KeepNewest(const Files& files, const Report& report) {
  constexpr std::size_t kNone = SIZE_MAX;
  std::vector<Kept> all;
  std::vector<std::size_t> before;         // the fragment kept before with the same id
  std::unordered_set<std::uint64_t> seen;  // of the ids that come more than once
  // There are as many ids as programmes: nodes in blocks are half the size of nodes alone.
  std::pmr::monotonic_buffer_resource blocks;
  using Places = std::pmr::unordered_map<std::string_view, std::size_t>;
  Places last[] = {Places(&blocks), Places(&blocks), Places(&blocks)};
  const std::vector<const File*> current = Current(files, report);
  std::size_t count = 0;
  for (const File* file : current) {
    count += file->fragments.size();
  }
  all.reserve(count);
  before.reserve(count);
  last[2].reserve(count);
  for (const File* file : current) {
    for (const Entry& entry : file->fragments) {
      const Fragment& fragment = *entry.fragment;
      const bool sideBySide = std::holds_alternative<ScheduleFragment>(fragment.body);
      std::size_t& place =
          last[fragment.body.index()].try_emplace(fragment.id, kNone).first->second;
      std::size_t same = place;
      if (same != kNone) {
        const Fragment& newest = *all[same].fragment;
        seen.insert(newest.hash);
        if (!seen.insert(fragment.hash).second ||
            (!fragment.id.empty() && fragment.version < newest.version)) {
          continue;
        }
        if (!fragment.id.empty() && fragment.version == newest.version) {
          report(file->name + ": differs from " + all[same].file->name +
                 " with the same id and version; " + (sideBySide ? "both are" : "the later is") +
                 " kept");
        }
        if (!fragment.id.empty() && (fragment.version > newest.version || !sideBySide)) {
          for (; same != kNone; same = before[same]) {
            all[same].entry = nullptr;
          }
        }
      }
      place = all.size();
      before.push_back(same);
      all.push_back({&fragment, file, &entry});
    }
  }
  all.erase(std::remove_if(all.begin(), all.end(),
                           [](const Kept& kept) { return kept.entry == nullptr; }),
            all.end());
  all.shrink_to_fit();
  return all;
}

}  // namespace esg::guide
