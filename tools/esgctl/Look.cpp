#include "Look.h"

#include <json/value.h>

#include <algorithm>
#include <functional>

#include "Json.h"
#include "Table.h"
#include "Watch.h"

namespace esgctl {
namespace {

bool IsEmpty(const Listings& listings) {
  return std::all_of(listings.begin(), listings.end(),
                     [](const Listing& listing) { return listing.showings.empty(); });
}

/// When the next programme starts or ends; 0 if that is not known.
Seconds NextChange(const Listings& listings, Seconds now) {
  Seconds next = 0;
  for (const Listing& listing : listings) {
    for (const Showing& showing : listing.showings) {
      for (const Seconds change : {showing.start, showing.end}) {
        if (change > now && (next == 0 || change < next)) {
          next = change;
        }
      }
    }
  }
  return next;
}

std::string AsTable(const Showings& showings, const Session& session) {
  struct Column {
    const char* name;
    std::function<std::string(const Showing&)> cell;
  };
  const Request& request = session.request;
  std::vector<Column> columns;
  if (request.services.size() != 1) {
    columns.push_back({"CHANNEL", [](const Showing& it) { return ChannelCell(*it.service); }});
  }
  columns.push_back({"START", [](const Showing& it) { return FormatDateTime(it.start); }});
  columns.push_back({"END", [](const Showing& it) { return FormatTimeOfDay(it.end); }});
  columns.push_back(
      {"LENGTH", [](const Showing& it) { return FormatDuration(it.end - it.start); }});
  if (request.ids) {
    columns.push_back({"CONTENT-ID", [](const Showing& it) { return it.program.GetEventID(); }});
  }
  columns.push_back({"TITLE", [](const Showing& it) { return it.program.Title(); }});

  std::vector<std::string> header;
  header.reserve(columns.size());
  for (const Column& column : columns) {
    header.emplace_back(column.name);
  }
  std::vector<TableRow> rows;
  for (const Showing* const showing : showings) {
    TableRow& row = rows.emplace_back();
    row.marked = showing->IsOn(session.clock.Now());
    for (const Column& column : columns) {
      row.cells.push_back(column.cell(*showing));
    }
  }
  return RenderTable(header, std::move(rows), TableStyle(request));
}

}  // namespace

View::View(Session& session) {
  range = [&session] { return session.Range(kDay); };
  ask = [&session](const std::vector<Service>& services, const TimeRange& when) {
    return session.guide.Lists(services, when);
  };
  show = [&session](const Listings& listings, const TimeRange&) {
    return Written(AllOf(listings), session);
  };
}

Showings AllOf(const Listings& listings) {
  Showings showings;
  for (const Listing& listing : listings) {
    for (const Showing& showing : listing.showings) {
      showings.push_back(&showing);
    }
  }
  return showings;
}

std::string Written(const Showings& showings, const Session& session, bool single) {
  const Request& request = session.request;
  if (!request.json && !request.raw) {
    return AsTable(showings, session);
  }
  Json::Value list(Json::arrayValue);
  for (const Showing* const showing : showings) {
    list.append(request.raw ? RecordToJson(*showing) : ProgramToJson(*showing));
  }
  const Layout layout = request.follow ? Layout::OneLine : Layout::Indented;
  if (single && request.services.size() == 1) {
    return list.empty() && !request.follow ? "" : JsonText(list.get(0U, Json::Value()), layout);
  }
  return JsonText(list, layout);
}

int Look(Session& session, const View& view) {
  const Request& request = session.request;
  TimeRange range = view.range();  // wrong usage comes first
  const std::vector<Service> services = session.ChosenServices();
  Listings listings;
  const auto look = [&] {
    session.clock.SetNow(PresentTime());
    range = view.range();
    listings = view.ask(services, range);
    Outcome outcome;
    outcome.changes = NextChange(listings, session.clock.Now());
    if (!IsEmpty(listings) || request.json || request.raw) {
      outcome.text = view.show(listings, range);
    }
    outcome.nothing =
        view.nothing + (range.to - range.from > 1 ? ' ' + FormatRange(range) : std::string()) +
        " on " + (services.size() == 1 ? services.front().Label() : "any of these services") + '.';
    return outcome;
  };
  if (request.follow) {
    return Follow(session.guide, look);
  }
  const Outcome outcome = look();
  Print(outcome.text);
  if (IsEmpty(listings)) {
    throw request.services.size() == 1
        ? session.guide.Explain(outcome.nothing, services.front(), range)
        : Failure(kNotFound, outcome.nothing);
  }
  return kFound;
}

}  // namespace esgctl
