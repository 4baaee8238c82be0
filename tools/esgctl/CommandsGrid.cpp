// grid, services

#include <json/value.h>

#include <algorithm>
#include <iostream>
#include <iterator>

#include "Commands.h"
#include "Grid.h"
#include "Json.h"
#include "TextWidth.h"

namespace esgctl {
namespace {

constexpr Seconds kGridRange = 3 * 3600;
constexpr Seconds kHalfHour = 1800;

struct GridRequest {
  std::vector<std::string> services;
  RangeOptions range;
};

/// Ids differ in what stands last.
std::string RowName(const std::string& id, const Aliases& aliases) {
  const std::string name = aliases.NameOf(id);
  const std::size_t last = id.find_last_of("/:") + 1;
  return name == id && last < id.size() ? id.substr(last) : name;
}

std::vector<std::string> GridServices(const GridRequest& request, const Aliases& aliases) {
  std::vector<std::string> ids;
  std::transform(request.services.begin(), request.services.end(), std::back_inserter(ids),
                 [&aliases](const std::string& service) { return aliases.Resolve(service); });
  if (request.services.empty()) {
    std::transform(aliases.All().begin(), aliases.All().end(), std::back_inserter(ids),
                   [](const auto& entry) { return entry.second; });
  }
  if (ids.empty()) {
    throw Failure(kUsage,
                  "Which services? Name them, or write lines \"alias = "
                  "global-service-id\" to " +
                      Aliases::DefaultPath());
  }
  return ids;
}

GridRow MakeRow(const std::string& name, const std::vector<FCESGProgramInfo>& programs,
                const Clock& clock) {
  GridRow row{name, {}};
  for (const FCESGProgramInfo& program : programs) {
    const Seconds start = clock.FromRecord(program.GetStartTime());
    row.cells.push_back({start, start + program.Duration(), program.Title()});
  }
  return row;
}

Status Grid(Session& session, const GridRequest& request) {
  const Clock clock = session.MakeClock();
  const Aliases& aliases = session.Services();
  const std::vector<std::string> ids = GridServices(request, aliases);
  // The whole half hour, so that what is on now is seen from its begin more often than not.
  TimeRange range = request.range.Parse(kGridRange, clock);
  if (request.range.from.empty()) {
    const Seconds back = range.from % kHalfHour;
    range.from -= back;
    range.to -= request.range.to.empty() ? back : 0;
  }
  const std::vector<GridRow> rows = session.Ask(clock, [&](Guide& guide) {
    std::vector<GridRow> made;
    made.reserve(ids.size());
    for (const std::string& id : ids) {
      made.push_back(MakeRow(RowName(id, aliases), guide.List(id, range), clock));
    }
    return made;
  });
  if (std::all_of(rows.begin(), rows.end(), [](const GridRow& row) { return row.cells.empty(); })) {
    throw Failure(kNotFound, "Nothing is on from " + FormatDateTime(range.from) + " to " +
                                 FormatDateTime(range.to) + " on any of these services.");
  }
  Print(RenderGrid(rows, range, clock.Now(), GridStyle(session.looks)));
  return kFound;
}

Status ListServices(Session& session, bool names, bool json) {
  const auto& all = session.Services().All();
  if (names) {
    std::string lines;
    for (const auto& entry : all) {
      lines += Printable(entry.first) + '\n';
    }
    Print(lines);
  } else if (json) {
    Json::Value object(Json::objectValue);
    for (const auto& entry : all) {
      object[entry.first] = entry.second;
    }
    Print(JsonText(object, Layout::Indented));
  } else if (all.empty()) {
    std::cerr << "esgctl: no aliases; write lines \"alias = global-service-id\" to "
              << Aliases::DefaultPath() << '\n';
  } else {
    Table table({"ALIAS", "GLOBAL SERVICE ID"});
    for (const auto& entry : all) {
      table.AddRow({entry.first, entry.second});
    }
    // An id that is cut is of no use.
    Print(table.Render({0, TableStyle(session.looks).colour}));
  }
  return kFound;
}

}  // namespace

void AddGridCommands(CLI::App& app, Session& session) {
  const auto request = std::make_shared<GridRequest>();
  CLI::App& grid = *app.add_subcommand("grid", "Draw services against time");
  grid.add_option("SERVICE", request->services, "Aliases or global service ids; else all aliases");
  request->range.AddTo(grid, "3 hours");
  grid.callback([&session, request] {
    session.command = [&session, request] { return Grid(session, *request); };
  });

  struct Form {
    bool names = false;
    bool json = false;
  };
  const auto form = std::make_shared<Form>();
  CLI::App& services = *app.add_subcommand("services", "List the aliases of services");
  CLI::Option* const names = services.add_flag("--names", form->names, "Aliases only, one a line");
  services.add_flag("--json", form->json, "One object: alias to global service id")
      ->excludes(names);
  services.callback([&session, form] {
    session.command = [&session, form] { return ListServices(session, form->names, form->json); };
  });
}

}  // namespace esgctl
