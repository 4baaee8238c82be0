#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>
#include <system_error>

#include "Service.h"
#include "common/Failure.h"
#include "common/Text.h"

namespace {

using guide::ServiceOptions;

/// One line each: ids and file names may hold anything.
void Report(const std::string& line) {
  esg::tools::Report("esg-guide-service", esg::tools::Printable(line));
}

void Check(const ServiceOptions& options) {
  guide::GuideSource source(options.guideFolder, options.today, Report);
  source.Read();
  const guide::Guide& guide = *source.Current();
  for (const auto& [service, programs] : guide.Summary()) {
    std::cout << esg::tools::Printable(service) << ": " << programs << " programmes\n";
  }
  std::cout << guide.ServiceCount() << " services, " << guide.ProgramCount() << " programmes\n";
  if (!std::cout.flush()) {
    throw esg::tools::Failure(guide::kExitFailed, "the output cannot be written");
  }
}

int Run(const ServiceOptions& options, bool checkOnly) {
  try {
    if (checkOnly) {
      Check(options);
    } else {
      guide::Service(options, Report).Run();
    }
    return guide::kExitDone;
  } catch (const esg::tools::Failure& fault) {
    Report(fault.what());
    return fault.Status();
  } catch (const std::system_error& fault) {
    Report(fault.what());
    return guide::kExitFolder;
  }
}

int Main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  ServiceOptions options;
  bool checkOnly = false;
  CLI::App app(
      "Answers the guide's queries on the system bus from a folder of ATSC A/332 fragments, and "
      "emits an event when the folder changes or on SIGHUP.",
      "esg-guide-service");
  app.set_version_flag("--version", "esg-guide-service " GUIDE_SERVICE_VERSION);
  app.add_option("--guide", options.guideFolder, "the folder of fragment files (*.xml)")
      ->required()
      ->type_name("DIR");
  app.add_flag("--today", options.today, "move the guide by whole days so that it begins today");
  app.add_option("--save-dir", options.saveFolder,
                 "where clients may have fragments saved; without it, nowhere")
      ->type_name("DIR");
  app.add_option("--name", options.busName, "the bus name to own")
      ->capture_default_str()
      ->type_name("BUSNAME")
      ->check([](const std::string& name) {
        // Calls name it as their interface too.
        return g_dbus_is_interface_name(name.c_str()) != FALSE
                   ? std::string()
                   : "not a bus name that calls can go to: " + name;
      });
  app.add_flag("--stdin-events", options.stdinEvents,
               "emit the events written on standard input, a line each: NUMBER [P1 P2 P3]");
  app.add_flag("--check", checkOnly, "read the folder, print what is in it, and exit");
  app.footer(
      "Exit status: 0 done, 2 wrong usage, 3 a folder cannot be read, 4 the name is taken,\n"
      "5 the name is refused, 8 no bus, 1 anything else.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& fault) {
    return app.exit(fault) == 0 ? guide::kExitDone : guide::kExitUsage;
  }
  return Run(options, checkOnly);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "esg-guide-service: %s\n", fault.what());
    return guide::kExitFailed;
  }
}
