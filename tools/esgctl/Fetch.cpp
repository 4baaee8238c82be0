// services, xml, save: what the guide service has beside programmes

#include <sstream>

#include "Commands.h"

namespace esgctl {
namespace {

/// The lines of a text, without what a terminal would obey.
std::string PrintableLines(const std::string& text) {
  std::istringstream rest(text);
  std::string lines;
  for (std::string line; std::getline(rest, line);) {
    lines += Printable(line) + '\n';
  }
  return lines;
}

/// What a command about a fragment has done, for scripts.
std::string ResultJson(const Request& request, const std::string& id, const char* name,
                       const std::string& value) {
  Json::Value result;
  result["kind"] = request.kind;
  result["service"] = id;
  result[name] = value;
  return JsonText(result);
}

}  // namespace

void RunServices(Session& session) {
  const Request& request = session.request;
  std::vector<Service> services = session.NamedServices();
  if (!services.empty() && !request.names) {
    try {
      services = session.ChosenServices();
    } catch (const Failure& failure) {
      // The list itself does not need the guide service.
      Say(std::string("some names are unknown: ") + failure.what());
    }
  }
  std::string names;
  Json::Value list(Json::arrayValue);
  std::vector<TableRow> rows;
  for (const Service& service : services) {
    names += Printable(service.ShortName()) + '\n';
    list.append(ServiceToJson(service));
    rows.push_back({{service.number, service.alias, service.id, service.name}});
  }
  if (request.names) {
    Print(names);
  } else if (request.json) {
    Print(JsonText(list));
  } else if (!rows.empty()) {
    Print(RenderTable({"NUMBER", "ALIAS", "ID", "NAME"}, std::move(rows), TableStyle(request)));
  }
  if (services.empty() && !request.names) {
    Say("there is no list of services.\n" + HowToListServices());
  }
}

void RunXml(Session& session) {
  const Request& request = session.request;
  const TimeRange range = session.Range(kDay);
  const unsigned int start = session.clock.ToRecord(range.from);
  const auto length = static_cast<unsigned int>(range.to - range.from);
  const std::string id = session.ChosenServices().front().id;
  const auto timed =
      request.kind == "schedule" ? &ESGAsync::GetScheduleFragment : &ESGAsync::GetContentFragment;
  const auto texts = session.guide.Ask<std::string>(1, [&](std::size_t, auto done) {
    return request.kind == "service" ? ESGAsync::GetServiceFragment(id, request.bb, std::move(done))
                                     : timed(id, start, length, request.bb, std::move(done));
  });
  const std::optional<std::string>& text = texts.front();
  if (!text) {
    throw Failure(kNotFound, "The guide service has no " + request.kind + " fragment of " + id +
                                 (request.kind == "service" ? "." : " for this time range."));
  }
  Print(request.json         ? ResultJson(request, id, "xml", *text)
        : OutputIsTerminal() ? PrintableLines(*text)
                             : *text);
}

void RunSave(Session& session) {
  const Request& request = session.request;
  const std::string id = session.ChosenServices().front().id;
  const auto save = request.kind == "service"    ? &ESGAsync::SaveServiceFragment
                    : request.kind == "schedule" ? &ESGAsync::SaveScheduleFragment
                                                 : &ESGAsync::SaveContentFragment;
  const auto saved = session.guide.Ask<bool>(1, [&](std::size_t, const auto& done) {
    return save(request.path, id, request.bb,
                [done](const ESGFailure& failure) { done(failure, true); });
  });
  if (!saved.front()) {
    throw Failure(kOther, "The guide service did not save the fragment: it has none of " + id +
                              ", or refuses to write to " + request.path +
                              ".\nIts log says which.");
  }
  if (request.json) {
    Print(ResultJson(request, id, "path", request.path));
  }
}

}  // namespace esgctl
