#include <algorithm>
#include <functional>
#include <set>
#include <tuple>
#include <utility>

#include "Guide.h"

namespace guide {

/// Puts the fragments together once, while the guide is constructed.
class Guide::Builder {
 public:
  Builder(Guide& guide, std::uint32_t shift, const Report& report)
      : m_guide(guide), m_shift(shift), m_report(report) {}

  void Build() {
    for (const Fragment& fragment : m_guide.m_fragments) {
      if (std::holds_alternative<ServiceFragment>(fragment.body)) {
        AddService(fragment);
      } else if (std::holds_alternative<ContentFragment>(fragment.body) && !fragment.id.empty()) {
        m_contents[fragment.id] = &fragment;
      }
    }
    for (const Fragment& fragment : m_guide.m_fragments) {
      if (const auto* schedule = std::get_if<ScheduleFragment>(&fragment.body)) {
        for (const std::string& id : schedule->services) {
          AddSchedule(fragment, *schedule, id);
        }
      } else if (const auto* content = std::get_if<ContentFragment>(&fragment.body)) {
        for (const std::string& id : content->services) {
          Referred(fragment, id).contents.push_back(&fragment);
        }
      }
    }
    for (auto& [id, entry] : m_guide.m_services) {
      Finish(id, entry);
    }
  }

 private:
  void AddService(const Fragment& fragment) {
    const std::string& globalId = std::get<ServiceFragment>(fragment.body).globalId;
    const std::string& name = globalId.empty() ? fragment.id : globalId;
    m_names[fragment.id] = name;
    const Fragment*& description = m_guide.m_services[name].description;
    if (description == nullptr) {
      description = &fragment;
    } else {
      m_report(fragment.file + ": describes service " + name + " once more than " +
               description->file + ", which is kept");
    }
  }

  // References use a service's id; some encoders write its global id there.
  ServiceEntry& Referred(const Fragment& fragment, const std::string& id) {
    const auto name = m_names.find(id);
    if (name != m_names.end()) {
      return m_guide.m_services[name->second];
    }
    const auto [entry, isNew] = m_guide.m_services.try_emplace(id);
    if (isNew) {
      m_report(fragment.file + ": refers to service " + id + ", which nothing describes");
    }
    return entry->second;
  }

  void AddSchedule(const Fragment& fragment, const ScheduleFragment& schedule,
                   const std::string& service) {
    ServiceEntry& entry = Referred(fragment, service);
    entry.schedules.push_back(&fragment);
    std::uint64_t begin = UINT64_MAX;
    std::uint64_t end = 0;
    for (const ContentReference& reference : schedule.contents) {
      const auto content = m_contents.find(reference.content);
      Program program;
      program.contentId = reference.content;
      if (content != m_contents.end()) {
        program.fragment = content->second;
      } else if (m_missing.insert(reference.content).second) {
        m_report(fragment.file + ": shows content " + reference.content +
                 ", which was not sent or could not be read; it has no title");
      }
      for (const Span& window : reference.windows) {
        program.time = {window.start + m_shift, Duration(window, program)};
        if (program.time.duration == 0) {
          m_report(fragment.file + ": content " + reference.content + " at " +
                   std::to_string(window.start) + " lasts no time, left out");
          continue;
        }
        begin = std::min(begin, InOrder(program.time.start));
        end = std::max(end, InOrder(program.time.start) + program.time.duration);
        entry.programs.push_back(program);
      }
    }
    if (begin < end) {
      const std::uint64_t length = std::min<std::uint64_t>(end - begin, UINT32_MAX);
      entry.scheduleTimes.push_back(
          {&fragment, {static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(length)}});
    }
  }

  static std::uint32_t Duration(const Span& window, const Program& program) {
    return window.duration != 0 || program.fragment == nullptr
               ? window.duration
               : std::get<ContentFragment>(program.fragment->body).length;
  }

  void Finish(const std::string& id, ServiceEntry& entry) {
    std::vector<Program>& programs = entry.programs;
    std::sort(programs.begin(), programs.end(), IsBefore);
    // Schedules overlap, so one programme may stand in several.
    programs.erase(std::unique(programs.begin(), programs.end(),
                               [](const Program& a, const Program& b) {
                                 return a.time == b.time && a.contentId == b.contentId;
                               }),
                   programs.end());
    for (std::size_t i = 0; i < programs.size(); ++i) {
      const Program& program = programs[i];
      if (i + 1 < programs.size() && programs[i + 1].time.start == program.time.start) {
        m_report("service " + id + ": " + programs[i + 1].contentId + " is listed instead of " +
                 program.contentId + ", which starts in the same second, " +
                 std::to_string(program.time.start));
      }
      if (program.fragment != nullptr) {
        entry.contents.push_back(program.fragment);
        entry.contentTimes.push_back({program.fragment, program.time});
      }
    }
    // The fragments lie one behind the other in the order of their files.
    std::sort(entry.contents.begin(), entry.contents.end());
    entry.contents.erase(std::unique(entry.contents.begin(), entry.contents.end()),
                         entry.contents.end());
    entry.schedules.erase(std::unique(entry.schedules.begin(), entry.schedules.end()),
                          entry.schedules.end());
  }

  Guide& m_guide;
  const std::uint32_t m_shift;
  const Report& m_report;
  std::map<std::string, std::string> m_names;
  std::map<std::string, const Fragment*> m_contents;
  std::set<std::string> m_missing;
};

bool Guide::IsBefore(const Program& a, const Program& b) {
  return std::make_tuple(InOrder(a.time.start), a.time.duration, std::cref(a.contentId)) <
         std::make_tuple(InOrder(b.time.start), b.time.duration, std::cref(b.contentId));
}

Guide::Guide(std::vector<Fragment> fragments, std::uint32_t shift, const Report& report)
    : m_fragments(std::move(fragments)) {
  Builder(*this, shift, report).Build();
}

}  // namespace guide
