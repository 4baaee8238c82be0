// now, next, prev, list, show

#include <json/value.h>

#include <algorithm>

#include "Commands.h"
#include "Fragments.h"
#include "Json.h"
#include "Table.h"
#include "Text.h"
#include "Watch.h"

namespace esgctl {
namespace {

constexpr Seconds kUsualRange = 24 * 3600;
constexpr Seconds kFortnight = 14 * 24 * 3600;

/// What a question gave: one list of programmes for each service.
struct Answer {
  const std::vector<Service>& services;
  std::vector<Programs> lists;
  TimeRange range;      ///< that was asked for
  const char* nothing;  ///< what to say where there is none
  bool single = false;  ///< one programme of a service at most
};

Seconds StartOf(const FCESGProgramInfo& program, const Clock& clock) {
  return clock.FromRecord(program.GetStartTime());
}

bool IsOn(const FCESGProgramInfo& program, const Clock& clock) {
  const Seconds start = StartOf(program, clock);
  return start <= clock.Now() && clock.Now() < start + program.Duration();
}

Json::Value ForScripts(const FCESGProgramInfo& program, const Service& service, const Clock& clock,
                       bool raw) {
  if (!raw) {
    return ProgramToJson(program, service, clock);
  }
  Json::Value value;
  FCESGProgramInfo::ToJson(program, value);
  return value;
}

std::string AsTable(const Answer& answer, const Request& request, const Clock& clock,
                    const Style& style) {
  const bool channels = answer.services.size() > 1;
  std::vector<std::string> header = {"START", "END", "LENGTH"};
  if (channels) {
    header.insert(header.begin(), "CHANNEL");
  }
  if (request.ids) {
    header.emplace_back("CONTENT-ID");
  }
  header.emplace_back("TITLE");
  std::vector<TableRow> rows;
  for (std::size_t i = 0; i < answer.lists.size(); ++i) {
    for (const FCESGProgramInfo& program : answer.lists[i]) {
      const Seconds start = StartOf(program, clock);
      TableRow row{{FormatDateTime(start), FormatTimeOfDay(start + program.Duration()),
                    FormatDuration(program.Duration())},
                   IsOn(program, clock)};
      if (channels) {
        row.cells.insert(row.cells.begin(), ChannelCell(answer.services[i]));
      }
      if (request.ids) {
        row.cells.push_back(program.GetEventID());
      }
      row.cells.push_back(program.Title());
      rows.push_back(std::move(row));
    }
  }
  return RenderTable(header, rows, style);
}

std::string AsJson(const Answer& answer, const Request& request, const Clock& clock) {
  Json::Value list(Json::arrayValue);
  for (std::size_t i = 0; i < answer.lists.size(); ++i) {
    for (const FCESGProgramInfo& program : answer.lists[i]) {
      list.append(ForScripts(program, answer.services[i], clock, request.raw));
    }
  }
  const Layout layout = request.follow ? Layout::OneLine : Layout::Indented;
  if (answer.single && request.services.size() == 1) {
    return list.empty() && !request.follow
               ? ""
               : JsonText(list.empty() ? Json::Value() : list[0], layout);
  }
  return JsonText(list, layout);
}

Outcome MakeOutcome(const Answer& answer, const Request& request, const Clock& clock,
                    const Style& style) {
  Outcome outcome;
  outcome.found = std::any_of(answer.lists.begin(), answer.lists.end(),
                              [](const Programs& programs) { return !programs.empty(); });
  if (request.json || request.raw) {
    outcome.text = AsJson(answer, request, clock);
  } else if (outcome.found) {
    outcome.text = AsTable(answer, request, clock, style);
  }
  outcome.nothing =
      std::string(answer.nothing) + " on " +
      (answer.services.size() == 1 ? answer.services.front().Label() : "any of these services") +
      '.';
  for (const Programs& programs : answer.lists) {
    for (const FCESGProgramInfo& program : programs) {
      const Seconds start = StartOf(program, clock);
      for (const Seconds change : {start, start + static_cast<Seconds>(program.Duration())}) {
        if (change > clock.Now() && (outcome.changes == 0 || change < outcome.changes)) {
          outcome.changes = change;
        }
      }
    }
  }
  return outcome;
}

std::vector<Programs> AsLists(std::vector<std::optional<FCESGProgramInfo>> programs) {
  std::vector<Programs> lists(programs.size());
  for (std::size_t i = 0; i < programs.size(); ++i) {
    if (programs[i]) {
      lists[i].push_back(std::move(*programs[i]));
    }
  }
  return lists;
}

/// Asks once, or with --follow again and again.
template <typename Question>
int Run(Session& session, Question question) {
  const Request& request = session.request;
  session.ChosenServices();  // wrong usage comes first
  const Style style = TableStyle(request);
  Guide guide(session.MakeClock());
  const std::vector<Service> services = session.ChosenServices(guide);
  const auto ask = [&](const Clock& clock) {
    guide.SetClock(clock);
    return question(guide, clock, services);
  };
  if (request.follow) {
    return Follow(guide, [&] {
      const Clock clock = session.MakeClock();
      return MakeOutcome(ask(clock), request, clock, style);
    });
  }
  const Clock clock = session.MakeClock();
  const Answer answer = ask(clock);
  const Outcome outcome = MakeOutcome(answer, request, clock, style);
  Print(outcome.text);
  if (!outcome.found) {
    throw services.size() == 1 ? guide.Explain(answer.nothing, services.front(), answer.range)
                               : Failure(kNotFound, outcome.nothing);
  }
  return kFound;
}

int RunNeighbour(Session& session, eRelative_Position position, const char* nothing) {
  const auto when = [&](const Clock& clock) -> std::optional<Seconds> {
    if (session.request.of.empty()) {
      return std::nullopt;
    }
    const Seconds time = ParseMoment(session.request.of, clock.Now()).time;
    clock.ToRecord(time);
    return time;
  };
  when(session.MakeClock());  // wrong usage comes first
  return Run(session, [&](Guide& guide, const Clock& clock, const std::vector<Service>& services) {
    const std::optional<Seconds> time = when(clock);
    const Seconds from = time.value_or(clock.Now());
    return Answer{services,
                  AsLists(guide.Neighbours(Ids(services), time, position)),
                  {from, from + 1},
                  nothing,
                  true};
  });
}

using Fields = std::vector<std::pair<std::string, std::string>>;

/// Adds what a member of a programme's JSON says, a line for each of its values; `known` is left
/// out.
void AddFields(Fields& fields, const std::string& label, const Json::Value& value,
               const std::string& known = {}) {
  if (value.isArray()) {
    for (const Json::Value& item : value) {
      AddFields(fields, label, item, known);
    }
    return;
  }
  std::string text = value.isString() ? value.asString() : "";
  for (const char* const name : {"text", "value", "uri"}) {
    text += value.isObject() ? value[name].asString() : "";
  }
  if (text.empty() || text == known) {
    return;
  }
  for (const char* const name : {"lang", "system"}) {
    if (value.isObject() && value.isMember(name)) {
      text += " [" + value[name].asString() + ']';
    }
  }
  fields.emplace_back(label, text);
}

std::string InFull(const Json::Value& program, const Service& service, const Style& style) {
  const Seconds start = program["start"].asInt64();
  const Seconds end = program["end"].asInt64();
  const std::string title = program["title"].asString();
  const std::string synopsis = program["synopsis"].asString();
  Fields fields;
  AddFields(fields, "Title", title);
  fields.emplace_back("Time", FormatTime(start, "%a ") + FormatDateTime(start) + " to " +
                                  FormatTimeOfDay(end) + " (" + FormatDuration(end - start) + ')');
  if (!service.number.empty() || !service.name.empty()) {
    fields.emplace_back("Channel", service.Channel());
  }
  AddFields(fields, "Service", service.id);
  AddFields(fields, "Content id", program["content_id"]);
  AddFields(fields, "Series", program["series"]);
  AddFields(fields, "Episode", program["episode"]);
  AddFields(fields, "Genre", program["genre"]);
  AddFields(fields, "Synopsis", synopsis);
  AddFields(fields, "Title", program["titles"], title);
  AddFields(fields, "Synopsis", program["synopses"], synopsis);
  AddFields(fields, "Rating", program["ratings"]);
  AddFields(fields, "Language", program["titles"][0]["lang"]);
  AddFields(fields, "Audio", program["audio_languages"]);
  AddFields(fields, "Subtitles", program["text_languages"]);
  AddFields(fields, "Icon", program["icons"]);
  AddFields(fields, "Channel icon", program["channel_icons"]);
  for (const Json::Value& preview : program["previews"]) {
    AddFields(fields, "Preview", preview["contents"]);
    AddFields(fields, "Preview", preview["descriptions"]);
  }
  return RenderFields(fields, style);
}

/// The next showing of a content, or else the last one.
std::optional<FCESGProgramInfo> NextShowing(Guide& guide, const std::string& service,
                                            const std::string& contentId, Seconds now) {
  for (const TimeRange& range :
       {TimeRange{now, now + kFortnight}, TimeRange{now - kFortnight, now}}) {
    std::optional<FCESGProgramInfo> showing;
    std::vector<Programs> lists = guide.Lists({service}, range);
    for (FCESGProgramInfo& program : lists.front()) {
      if (program.GetEventID() == contentId && (!showing || range.to == now)) {
        showing = std::move(program);
      }
    }
    if (showing) {
      return showing;
    }
  }
  return std::nullopt;
}

std::optional<FCESGProgramInfo> First(std::vector<std::optional<FCESGProgramInfo>> programs) {
  return std::move(programs.front());
}

}  // namespace

int RunNow(Session& session) {
  return Run(session, [](Guide& guide, const Clock& clock, const std::vector<Service>& services) {
    return Answer{services,
                  AsLists(guide.Present(Ids(services))),
                  {clock.Now(), clock.Now() + 1},
                  "Nothing is on now",
                  true};
  });
}

int RunNext(Session& session) {
  return RunNeighbour(session, eRelative_Position_Next, "Nothing comes next");
}

int RunPrevious(Session& session) {
  return RunNeighbour(session, eRelative_Position_Previous, "Nothing was on before");
}

int RunList(Session& session) {
  session.Range(kUsualRange, session.MakeClock());  // wrong usage comes first
  return Run(session, [&](Guide& guide, const Clock& clock, const std::vector<Service>& services) {
    const TimeRange range = session.Range(kUsualRange, clock);
    return Answer{services, guide.Lists(Ids(services), range), range,
                  "Nothing is on in this time range"};
  });
}

int RunShow(Session& session) {
  Request& request = session.request;
  const Clock clock = session.MakeClock();
  session.ChosenServices();  // wrong usage comes first
  std::optional<Seconds> start;
  if (request.start.empty() && !request.contentId.empty()) {
    // A single word is a time if it can be one.
    try {
      start = ParseMoment(request.contentId, clock.Now()).time;
      request.contentId.clear();
    } catch (const Failure&) {
    }
  } else if (!request.start.empty()) {
    start = ParseMoment(request.start, clock.Now()).time;
  }
  const unsigned int time = clock.ToRecord(start.value_or(clock.Now()));

  Guide guide(clock);
  const Service service = session.ChosenServices(guide).front();
  std::optional<FCESGProgramInfo> program;
  if (request.contentId.empty() && start) {
    Programs programs = guide.Lists({service.id}, {*start, *start + 1}).front();
    program = programs.empty() ? std::nullopt : std::make_optional(programs.back());
  } else if (request.contentId.empty()) {
    program = First(guide.Present({service.id}));
  } else if (start) {
    program =
        First(guide.Ask<FCESGProgramInfo>(1, [&](std::size_t, ESGAsync::ProgramCallback done) {
          return ESGAsync::GetProgramItem(service.id, request.contentId, time, std::move(done));
        }));
  } else {
    program = NextShowing(guide, service.id, request.contentId, clock.Now());
  }
  if (!program) {
    if (!request.contentId.empty()) {
      throw Failure(kNotFound, "There is no showing of " + request.contentId + " on " +
                                   service.Label() +
                                   (start ? " at this time." : " within two weeks of now."));
    }
    const Seconds from = start.value_or(clock.Now());
    throw guide.Explain("Nothing is on at this time", service, {from, from + 1});
  }
  if (request.raw) {
    Print(JsonText(ForScripts(*program, service, clock, true), Layout::Indented));
    return kFound;
  }
  const Facts channel = ParseFacts(guide.ServiceFragments({service.id}).front());
  Facts content = ParseFacts(guide.ContentFragments({{service.id, *program}}).front());
  if (content.id != program->GetEventID()) {
    content = {};
  }
  Json::Value value = ProgramToJson(*program, service, clock);
  AddFacts(value, content, channel);
  Print(request.json ? JsonText(value, Layout::Indented)
                     : InFull(value, service, TableStyle(request)));
  return kFound;
}

}  // namespace esgctl
