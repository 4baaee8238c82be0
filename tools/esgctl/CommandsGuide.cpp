// grid, search, services, xml, save

#include <glib.h>
#include <json/value.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "Commands.h"
#include "Grid.h"
#include "Json.h"
#include "Table.h"
#include "Text.h"

namespace esgctl {
namespace {

constexpr Seconds kHalfHour = 1800;
constexpr Seconds kDay = 24 * 3600;
constexpr Seconds kGridRange = 3 * 3600;

/// Whether a text has something in it; accents and case do not count.
class Pattern {
 public:
  Pattern(const std::string& written, const Request& request) {
    const std::string plain = WithoutAccents(written);
    g_autofree char* escaped = g_regex_escape_string(plain.c_str(), -1);
    std::string text = request.regex ? plain : escaped;
    if (request.word) {
      text = "(?<!\\w)(?:" + text + ")(?!\\w)";
    }
    g_autoptr(GError) error = nullptr;
    m_regex.reset(g_regex_new(text.c_str(),
                              static_cast<GRegexCompileFlags>(G_REGEX_CASELESS | G_REGEX_OPTIMIZE),
                              static_cast<GRegexMatchFlags>(0), &error));
    if (m_regex == nullptr) {
      throw Failure(kUsage, "\"" + written + "\" is no regular expression: " + error->message);
    }
  }

  bool IsIn(const std::string& text) const {
    return g_regex_match(m_regex.get(), text.c_str(), static_cast<GRegexMatchFlags>(0), nullptr) !=
           FALSE;
  }

 private:
  struct Release {
    void operator()(GRegex* regex) const { g_regex_unref(regex); }
  };
  std::unique_ptr<GRegex, Release> m_regex;
};

GridRow MakeRow(const Service& service, const Programs& programs, const Clock& clock) {
  GridRow row{service.Label(), {}};
  for (const FCESGProgramInfo& program : programs) {
    const Seconds start = clock.FromRecord(program.GetStartTime());
    row.cells.push_back({start, start + program.Duration(), program.Title()});
  }
  return row;
}

Json::Value GridJson(const std::vector<Service>& services, const std::vector<Programs>& lists,
                     const Clock& clock) {
  Json::Value rows(Json::arrayValue);
  for (std::size_t i = 0; i < services.size(); ++i) {
    Json::Value& row = rows.append(ServiceToJson(services[i]));
    row["programmes"] = Json::arrayValue;
    for (const FCESGProgramInfo& program : lists[i]) {
      row["programmes"].append(ProgramToJson(program, services[i], clock));
    }
  }
  return rows;
}

/// What a search has found.
struct Hit {
  const Service* service;
  const FCESGProgramInfo* program;
  Seconds start;
  Seconds end;
};

bool Fits(const FCESGProgramInfo& program, const std::vector<Pattern>& words,
          const std::optional<Pattern>& genre, bool titleOnly) {
  const std::string text =
      WithoutAccents(titleOnly ? program.Title() : program.Title() + '\n' + program.Synopsis());
  return std::all_of(words.begin(), words.end(),
                     [&](const Pattern& word) { return word.IsIn(text); }) &&
         (!genre || genre->IsIn(WithoutAccents(program.Genre())));
}

}  // namespace

int RunGrid(Session& session) {
  const Request& request = session.request;
  const Clock clock = session.MakeClock();
  session.ChosenServices();  // wrong usage comes first
  TimeRange range = session.Range(kGridRange, clock);
  // The whole half hour, so that what is on now is seen from its start more often than not.
  if (request.from.empty()) {
    const Seconds back = range.from % kHalfHour;
    range.from -= back;
    range.to -= request.to.empty() ? back : 0;
  }
  Guide guide(clock);
  const std::vector<Service> services = session.ChosenServices(guide);
  const std::vector<Programs> lists = guide.Lists(Ids(services), range);
  const bool found = std::any_of(lists.begin(), lists.end(),
                                 [](const Programs& programs) { return !programs.empty(); });
  if (request.json) {
    Print(JsonText(GridJson(services, lists, clock), Layout::Indented));
  } else if (found) {
    std::vector<GridRow> rows;
    for (std::size_t i = 0; i < services.size(); ++i) {
      rows.push_back(MakeRow(services[i], lists[i], clock));
    }
    Print(RenderGrid(rows, range, clock.Now(), GridStyle(request)));
  }
  if (!found && services.size() == 1) {
    throw guide.Explain("Nothing is on in this time range", services.front(), range);
  }
  if (!found) {
    throw Failure(kNotFound, "Nothing is on from " + FormatDateTime(range.from) + " to " +
                                 FormatDateTime(range.to) + " on any of these services.");
  }
  return kFound;
}

int RunSearch(Session& session) {
  Request& request = session.request;
  const Clock clock = session.MakeClock();
  session.ChosenServices();  // wrong usage comes first
  std::vector<Pattern> words;
  for (const std::string& word : request.words) {
    words.emplace_back(word, request);
  }
  std::optional<Pattern> genre;
  if (!request.genre.empty()) {
    Request plain;
    genre.emplace(request.genre, plain);
  }
  TimeRange range = session.Range(15 * kDay, clock);
  if (request.from.empty() && request.to.empty() && request.length.empty()) {
    range = {clock.Now() - kDay, clock.Now() + 14 * kDay};
  }
  Guide guide(clock);
  const std::vector<Service> services = session.ChosenServices(guide);
  const std::vector<Programs> lists = guide.Lists(Ids(services), range);
  std::vector<Hit> hits;
  for (std::size_t i = 0; i < services.size(); ++i) {
    for (const FCESGProgramInfo& program : lists[i]) {
      if (Fits(program, words, genre, request.title)) {
        const Seconds start = clock.FromRecord(program.GetStartTime());
        hits.push_back({&services[i], &program, start, start + program.Duration()});
      }
    }
  }
  // What is on or comes first, by time; then what is over.
  std::stable_sort(hits.begin(), hits.end(), [&](const Hit& a, const Hit& b) {
    return std::make_pair(a.end <= clock.Now(), a.start) <
           std::make_pair(b.end <= clock.Now(), b.start);
  });
  if (request.json) {
    Json::Value list(Json::arrayValue);
    for (const Hit& hit : hits) {
      list.append(ProgramToJson(*hit.program, *hit.service, clock));
    }
    Print(JsonText(list, Layout::Indented));
  } else if (!hits.empty()) {
    std::vector<std::string> header = {"START", "END", "CHANNEL", "TITLE"};
    if (request.ids) {
      header.insert(header.end() - 1, "CONTENT-ID");
    }
    std::vector<TableRow> rows;
    for (const Hit& hit : hits) {
      TableRow row{{FormatTime(hit.start, "%a ") + FormatDateTime(hit.start),
                    FormatTimeOfDay(hit.end), ChannelCell(*hit.service), hit.program->Title()},
                   hit.start <= clock.Now() && clock.Now() < hit.end};
      if (request.ids) {
        row.cells.insert(row.cells.end() - 1, hit.program->GetEventID());
      }
      rows.push_back(std::move(row));
    }
    Print(RenderTable(header, rows, TableStyle(request)));
  }
  if (hits.empty()) {
    throw Failure(kNotFound, "Nothing like that is in the guide from " +
                                 FormatDateTime(range.from) + " to " + FormatDateTime(range.to) +
                                 '.');
  }
  return kFound;
}

int RunServices(Session& session) {
  const Request& request = session.request;
  std::vector<Service> services;
  if (!request.services.empty() || !session.KnownServices().All().empty()) {
    services = session.ChosenServices();
  }
  if (request.names) {
    std::string lines;
    for (const Service& service : services) {
      lines += Printable(service.ShortName()) + '\n';
    }
    Print(lines);
    return kFound;
  }
  const bool complete = std::all_of(services.begin(), services.end(), [](const Service& service) {
    return !service.number.empty() && !service.name.empty();
  });
  if (!complete) {
    try {
      Guide guide(session.MakeClock());
      services = session.ChosenServices(guide);
    } catch (const Failure& failure) {
      // The list itself is there without the guide service.
      esg::tools::Report("esgctl", std::string("some names are not known: ") + failure.what());
    }
  }
  if (request.json) {
    Json::Value list(Json::arrayValue);
    for (const Service& service : services) {
      list.append(ServiceToJson(service));
    }
    Print(JsonText(list, Layout::Indented));
  } else if (!services.empty()) {
    std::vector<TableRow> rows;
    std::transform(services.begin(), services.end(), std::back_inserter(rows),
                   [](const Service& service) -> TableRow {
                     return {{service.number, service.alias, service.id, service.name}};
                   });
    Print(RenderTable({"NUMBER", "ALIAS", "ID", "NAME"}, rows, TableStyle(request)));
  }
  if (services.empty()) {
    esg::tools::Report("esgctl",
                       "there is no list of services.\nWrite one with: esg-guide-service --guide "
                       "DIR --aliases > " +
                           Services::UserPath());
  }
  return kFound;
}

int RunXml(Session& session) {
  const Request& request = session.request;
  const Clock clock = session.MakeClock();
  session.ChosenServices();  // wrong usage comes first
  const TimeRange range = session.Range(kDay, clock);
  const unsigned int start = clock.ToRecord(range.from);
  const auto length = static_cast<unsigned int>(range.to - range.from);

  Guide guide(clock);
  const Service service = session.ChosenServices(guide).front();
  const auto timed =
      request.kind == "schedule" ? &ESGAsync::GetScheduleFragment : &ESGAsync::GetContentFragment;
  const auto texts = guide.Ask<std::string>(1, [&](std::size_t, ESGAsync::FragmentCallback done) {
    return request.kind == "service"
               ? ESGAsync::GetServiceFragment(service.id, request.bb, std::move(done))
               : timed(service.id, start, length, request.bb, std::move(done));
  });
  const std::optional<std::string>& text = texts.front();
  if (!text) {
    throw Failure(kNotFound, "The guide service has no " + request.kind + " fragment of " +
                                 service.id +
                                 (request.kind == "service" ? "." : " for this time range."));
  }
  if (!OutputIsTerminal()) {
    Print(*text);
    return kFound;
  }
  // A terminal would obey what a file only keeps.
  std::string_view rest = *text;
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    Print(Printable(line) + '\n');
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
  }
  return kFound;
}

int RunSave(Session& session) {
  const Request& request = session.request;
  session.ChosenServices();  // wrong usage comes first
  Guide guide(session.MakeClock());
  const std::string id = session.ChosenServices(guide).front().id;
  const auto save = request.kind == "service"    ? &ESGAsync::SaveServiceFragment
                    : request.kind == "schedule" ? &ESGAsync::SaveScheduleFragment
                                                 : &ESGAsync::SaveContentFragment;
  const auto saved = guide.Ask<bool>(1, [&](std::size_t, const auto& done) {
    return save(request.path, id, request.bb,
                [done](const ESGFailure& failure) { done(failure, true); });
  });
  if (!saved.front()) {
    throw Failure(kOther, "The guide service did not save the fragment: it has none of " + id +
                              ", or does not write to " + request.path +
                              ".\nIts own log says which.");
  }
  return kFound;
}

}  // namespace esgctl
