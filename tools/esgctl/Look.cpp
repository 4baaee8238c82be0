#include <set>

#include "Commands.h"

namespace esgctl {
namespace {

constexpr int kWidestChannel = 24;

/// When the next programme starts or ends; 0 if that is not known.
Seconds NextChange(const Showings& showings, Seconds now) {
  std::set<Seconds> changes;
  for (const Showing* const showing : showings) {
    changes.insert({showing->start, showing->end});
  }
  const auto next = changes.upper_bound(now);
  return next == changes.end() ? 0 : *next;
}

std::string AsTable(const Showings& showings, const Session& session) {
  const Request& request = session.request;
  const auto chosen = [&](std::vector<std::string> cells) {
    if (!request.ids) {
      cells.erase(cells.end() - 2);
    }
    if (request.services.size() == 1) {
      cells.erase(cells.begin());
    }
    return cells;
  };
  std::vector<TableRow> rows;
  for (const Showing* const showing : showings) {
    const auto& [service, program, start, end] = *showing;
    rows.push_back({chosen({Cut(Printable(service->Channel()), kWidestChannel),
                            FormatDateTime(start), FormatTimeOfDay(end),
                            FormatDuration(end - start), program.GetEventID(), program.Title()}),
                    showing->IsOn(session.clock.Now())});
  }
  return RenderTable(chosen({"CHANNEL", "START", "END", "LENGTH", "CONTENT-ID", "TITLE"}),
                     std::move(rows), TableStyle(request));
}

}  // namespace

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

void Look(Session& session, const View& view) {
  const Request& request = session.request;
  const auto rangeNow = [&] { return view.range ? view.range() : session.Range(kDay); };
  TimeRange range = rangeNow();  // wrong usage comes first
  const std::vector<Service> services = session.ChosenServices();
  Listings listings;
  const auto look = [&] {
    session.clock.SetNow(PresentTime());
    range = rangeNow();
    listings = view.ask ? view.ask(services, range) : session.guide.Lists(services, range);
    Outcome outcome;
    outcome.changes = NextChange(AllOf(listings), session.clock.Now());
    if (!AllOf(listings).empty() || request.json || request.raw || request.format == "json") {
      outcome.text =
          view.show ? view.show(listings, range) : Written(AllOf(listings), session, view.single);
    }
    outcome.nothing =
        view.nothing + (range.to - range.from > 1 ? ' ' + FormatRange(range) : std::string()) +
        " on " + (services.size() == 1 ? services.front().Label() : "any of these services") + '.';
    return outcome;
  };
  if (request.follow) {
    Follow(session.guide, look);
    return;
  }
  const Outcome outcome = look();
  Print(outcome.text);
  if (AllOf(listings).empty()) {
    throw view.explains ? session.guide.Explain(outcome.nothing, services.front(), range)
                        : Failure(kNotFound, outcome.nothing);
  }
}

}  // namespace esgctl
