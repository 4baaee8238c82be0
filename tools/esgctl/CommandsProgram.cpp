// now, next, prev, list, show

#include <json/value.h>

#include <algorithm>
#include <memory>

#include "Commands.h"
#include "Json.h"
#include "Table.h"

namespace esgctl {
namespace {

using Programs = std::vector<FCESGProgramInfo>;

/// What the user wrote behind now, next, prev, list or show.
struct Request {
  std::string service;
  std::string of;
  RangeOptions range;
  std::string contentId;
  std::string start;
  bool json = false;
  bool raw = false;
  bool ids = false;
};

struct View {
  Clock clock;
  Style style;
  const Request& request;
  bool known;  ///< the service has an alias
};

bool IsOn(const FCESGProgramInfo& program, const Clock& clock) {
  const Seconds start = clock.FromRecord(program.GetStartTime());
  return start <= clock.Now() && clock.Now() < start + program.Duration();
}

Json::Value ForScripts(const FCESGProgramInfo& program, const View& view) {
  if (!view.request.raw) {
    return ProgramToJson(program, view.clock);
  }
  Json::Value value;
  FCESGProgramInfo::ToJson(program, value);
  return value;
}

std::string AsTable(const Programs& programs, const View& view) {
  const bool ids = view.request.ids;
  Table table(ids ? std::vector<std::string>{"START", "END", "LENGTH", "CONTENT-ID", "TITLE"}
                  : std::vector<std::string>{"START", "END", "LENGTH", "TITLE"});
  for (const FCESGProgramInfo& program : programs) {
    const Seconds start = view.clock.FromRecord(program.GetStartTime());
    std::vector<std::string> cells = {FormatDateTime(start),
                                      FormatTimeOfDay(start + program.Duration()),
                                      FormatDuration(program.Duration()), program.Title()};
    if (ids) {
      cells.insert(cells.end() - 1, program.GetEventID());
    }
    table.AddRow(cells, IsOn(program, view.clock));
  }
  return table.Render(view.style);
}

std::string InFull(const FCESGProgramInfo& program, const View& view) {
  const Seconds start = view.clock.FromRecord(program.GetStartTime());
  const Seconds end = start + program.Duration();
  std::vector<std::pair<std::string, std::string>> fields = {
      {"Title", program.Title()},
      {"Time", FormatTime(start, "%a ") + FormatDateTime(start) + " to " + FormatTimeOfDay(end) +
                   " (" + FormatDuration(program.Duration()) + ')'},
      {"Service", program.GlobalServiceID()},
      {"Content id", program.GetEventID()},
      {"Genre", program.Genre()},
      {"Synopsis", program.Synopsis()}};
  for (const auto& icon : program.PrivateExt().contentIcons) {
    fields.emplace_back("Icon", icon.uri);
  }
  for (const auto& preview : program.PrivateExt().previews) {
    for (const auto& content : preview.contents) {
      fields.emplace_back("Preview", content.uri);
    }
    for (const auto& description : preview.descriptions) {
      fields.emplace_back("Preview", description.text);
    }
  }
  fields.erase(std::remove_if(fields.begin(), fields.end(),
                              [](const auto& field) { return field.second.empty(); }),
               fields.end());
  return RenderFields(fields, view.style);
}

[[noreturn]] void NotFound(const std::string& what, const View& view) {
  std::string message = what + " on " + view.request.service + '.';
  if (!view.known) {
    message += "\nIs that its global service id? Known services are shown by: esgctl services";
  }
  throw Failure(kNotFound, message);
}

Status ShowOne(const std::optional<FCESGProgramInfo>& program, const std::string& absent,
               const View& view, bool full) {
  if (!program) {
    NotFound(absent, view);
  }
  if (view.request.json || view.request.raw) {
    Print(JsonText(ForScripts(*program, view), Layout::Indented));
  } else {
    Print(full ? InFull(*program, view) : AsTable({*program}, view));
  }
  return kFound;
}

Status ShowAll(const Programs& programs, const std::string& absent, const View& view) {
  if (view.request.json || view.request.raw) {
    Json::Value list(Json::arrayValue);
    for (const FCESGProgramInfo& program : programs) {
      list.append(ForScripts(program, view));
    }
    Print(JsonText(list, Layout::Indented));
  }
  if (programs.empty()) {
    NotFound(absent, view);
  }
  if (!view.request.json && !view.request.raw) {
    Print(AsTable(programs, view));
  }
  return kFound;
}

Status Now(Session& session, const View& view) {
  const auto program =
      session.Ask(view.clock, [&](Guide& guide) { return guide.Present(view.request.service); });
  return ShowOne(program, "Nothing is on now", view, false);
}

Status Neighbour(Session& session, const View& view, eRelative_Position position) {
  std::optional<Seconds> time;
  if (!view.request.of.empty()) {
    time = ParseMoment(view.request.of, view.clock.Now()).time;
    view.clock.ToRecord(*time);
  }
  const auto program = session.Ask(view.clock, [&](Guide& guide) {
    return guide.Neighbour(view.request.service, time, position);
  });
  return ShowOne(program,
                 position == eRelative_Position_Next ? "Nothing comes next" : "Nothing was before",
                 view, false);
}

Status List(Session& session, const View& view) {
  const TimeRange range = view.request.range.Parse(kUsualRange, view.clock);
  const Programs programs = session.Ask(
      view.clock, [&](Guide& guide) { return guide.List(view.request.service, range); });
  return ShowAll(
      programs,
      "Nothing is on from " + FormatDateTime(range.from) + " to " + FormatDateTime(range.to), view);
}

Status Show(Session& session, const View& view) {
  const Request& request = view.request;
  const std::string& written = request.start.empty() ? request.contentId : request.start;
  Seconds start = view.clock.Now();
  if (!written.empty()) {
    start = ParseMoment(written, view.clock.Now()).time;
    view.clock.ToRecord(start);
  }
  const auto program = session.Ask(view.clock, [&](Guide& guide) {
    if (written.empty()) {
      return guide.Present(request.service);
    }
    if (!request.start.empty()) {
      return guide.Item(request.service, request.contentId, start);
    }
    const Programs programs = guide.List(request.service, {start, start + 1});
    return programs.empty() ? std::nullopt : std::make_optional(programs.back());
  });
  return ShowOne(program, "There is no such programme", view, true);
}

/// Adds one of the commands; `run` gets its request with the service's id in place of its name.
template <typename Run>
CLI::App& Add(CLI::App& app, Session& session, const char* name, const char* description,
              const std::shared_ptr<Request>& request, Run run) {
  CLI::App& command = *app.add_subcommand(name, description);
  AddService(command, request->service);
  CLI::Option* const json =
      command.add_flag("--json", request->json, "For scripts: JSON, times in Unix seconds");
  command.add_flag("--raw", request->raw, "The record's own JSON, in the protocol's form")
      ->excludes(json);
  command.callback([&session, request, run] {
    session.command = [&session, request, run] {
      const Aliases& aliases = session.Services();
      std::string& id = request->service;
      id = aliases.Resolve(id);
      const bool known = aliases.NameOf(id) != id;
      return run(session, View{session.MakeClock(), TableStyle(session.looks), *request, known});
    };
  });
  return command;
}

}  // namespace

void AddProgramCommands(CLI::App& app, Session& session) {
  const auto request = std::make_shared<Request>();
  Add(app, session, "now", "Show what is on now", request, Now);

  const auto addNeighbour = [&](const char* name, const char* description,
                                eRelative_Position position) {
    CLI::App& command = Add(app, session, name, description, request,
                            [position](Session& asking, const View& view) {
                              return Neighbour(asking, view, position);
                            });
    command
        .add_option("--of", request->of,
                    "Count from what is on at this time; else from what is on now")
        ->type_name("TIME");
  };
  addNeighbour("next", "Show what comes next", eRelative_Position_Next);
  addNeighbour("prev", "Show what was before", eRelative_Position_Previous);

  CLI::App& list = Add(app, session, "list", "List the programmes of a time range", request, List);
  request->range.AddTo(list, "24 hours");
  list.add_flag("--ids", request->ids, "Show content ids too");

  CLI::App& show = Add(app, session, "show", "Show one programme in full", request, Show);
  show.add_option("CONTENT-ID", request->contentId, "Which programme; else what is on at START");
  show.add_option("START", request->start, "When it begins; else what is on now is shown");
}

}  // namespace esgctl
