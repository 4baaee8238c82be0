// xml, save

#include <IESGService.h>

#include "Commands.h"

namespace esgctl {
namespace {

struct FragmentRequest {
  std::string kind;
  std::string service;
  std::string path;
  RangeOptions range;
  std::optional<std::uint32_t> number;
  bool bb = false;
};

/// What the service is asked for: a range of time, or, with a length of 0, one fragment by its
/// number.
Piece Which(const FragmentRequest& request, const Clock& clock) {
  if (request.number) {
    return {*request.number, 0};
  }
  const TimeRange range = request.range.Parse(kUsualRange, clock);
  return {clock.ToRecord(range.from), static_cast<std::uint32_t>(range.to - range.from)};
}

Status Xml(Session& session, const FragmentRequest& request) {
  const Clock clock = session.MakeClock();
  const Piece which = Which(request, clock);
  std::string id = session.Services().Resolve(request.service);

  std::string text;
  const bool found = session.Ask(clock, [&](Guide& guide) {
    return guide.Ask([&](IESGService& api) {
      if (request.kind == "service") {
        return api.GetServiceFragment(text, id, request.bb);
      }
      return request.kind == "schedule"
                 ? api.GetScheduleFragment(text, id, which.start, which.duration, request.bb)
                 : api.GetContentFragment(text, id, which.start, which.duration, request.bb);
    });
  });
  if (!found) {
    throw Failure(kNotFound, "The guide service has no such " + request.kind + " fragment of " +
                                 id + (request.number ? " by this number." : " for this time."));
  }
  Print(text);
  return kFound;
}

Status Save(Session& session, const FragmentRequest& request) {
  const std::string id = session.Services().Resolve(request.service);
  const bool saved = session.Ask(session.MakeClock(), [&](Guide& guide) {
    return guide.Ask([&](IESGService& api) {
      if (request.kind == "service") {
        return api.SaveServiceFragment(request.path, id, request.bb);
      }
      return request.kind == "schedule" ? api.SaveScheduleFragment(request.path, id, request.bb)
                                        : api.SaveContentFragment(request.path, id, request.bb);
    });
  });
  if (!saved) {
    throw Failure(kOther, "The guide service did not save the fragment: it has none of " + id +
                              ", or does not write to " + request.path +
                              ".\nIts own log says which.");
  }
  return kFound;
}

CLI::App& AddFragment(CLI::App& app, const char* name, const char* description,
                      FragmentRequest& request) {
  CLI::App& command = *app.add_subcommand(name, description);
  command.add_option("KIND", request.kind, "schedule, service or content")
      ->required()
      ->check(CLI::IsMember({"schedule", "service", "content"}));
  AddService(command, request.service);
  command.add_flag("--bb", request.bb, "Pass the flag BB on to the service");
  return command;
}

}  // namespace

void AddFragmentCommands(CLI::App& app, Session& session) {
  const auto request = std::make_shared<FragmentRequest>();
  CLI::App& xml = AddFragment(app, "xml", "Print a fragment's XML, byte for byte", *request);
  request->range.AddTo(xml, "24 hours");
  CLI::Option& number = *xml.add_option(
      "--number", request->number,
      "Which of the service's fragments of this kind, from 0 on, in place of a time");
  for (const char* option : {"--from", "--to", "--for"}) {
    number.excludes(option);
  }
  xml.callback([&session, request] {
    session.command = [&session, request] { return Xml(session, *request); };
  });

  CLI::App& save = AddFragment(app, "save", "Have the service save a fragment", *request);
  save.add_option("PATH", request->path, "Where; the service opens it, not esgctl")->required();
  save.callback([&session, request] {
    session.command = [&session, request] { return Save(session, *request); };
  });
}

}  // namespace esgctl
