#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>

#include "Check.h"
#include "Service.h"
#include "common/Program.h"
#include "common/Text.h"

namespace {

using esg::guide::ServiceOptions;

constexpr const char* kProgram = "esg-guide-service";

struct Options : ServiceOptions {
  bool check = false;
  bool strict = false;
  bool aliases = false;
};

/// Ids and file names may hold line breaks.
void Report(const std::string& line) { esg::tools::Report(kProgram, esg::tools::Printable(line)); }

int Check(const Options& options) {
  esg::guide::Source source(options.guideFolder, options.today, Report);
  source.ReportAll();
  std::shared_ptr<const esg::guide::Guide> guide;
  try {
    guide = source.Read(std::thread::hardware_concurrency());
  } catch (const std::system_error& fault) {
    throw esg::tools::Failure(esg::guide::kExitFolder, fault.what());
  }
  if (options.aliases) {
    PrintAliases(std::cout, *guide);
  } else {
    PrintGuide(std::cout, *guide);
  }
  if (!std::cout.flush()) {
    throw esg::tools::Failure(esg::guide::kExitFailed, "the output cannot be written");
  }
  return options.strict && source.FaultCount() != 0 ? esg::guide::kExitFaults
                                                    : esg::guide::kExitDone;
}

int Main(int argc, char** argv) {
  esg::tools::ReserveStandardDescriptors();
  std::signal(SIGPIPE, SIG_IGN);
  Options options;
  CLI::App app(
      "Replies to queries on the system bus from a folder of ATSC A/332 fragments and delivery "
      "units, and emits an event when the guide changes.",
      kProgram);
  app.set_version_flag("--version", std::string(kProgram) + " " GUIDE_SERVICE_VERSION);
  app.add_option("--guide", options.guideFolder,
                 "the folder of fragments (*.xml), delivery units and their descriptors")
      ->required()
      ->type_name("DIR");
  app.add_flag("--today", options.today, "move the guide by whole days so that it starts today");
  app.add_option(
         "--save-dir", options.saveFolder,
         "where clients may have fragments saved; without this option, every save is refused")
      ->type_name("DIR");
  app.add_option("--save-quota", options.saveLimits.quota,
                 "the most that all saved files may occupy, in MiB")
      ->capture_default_str()
      ->check(CLI::Range(0, 1 << 20))
      ->type_name("MIB");
  app.add_option("--save-free", options.saveLimits.free,
                 "the least that a save must leave free on the disk, in MiB")
      ->capture_default_str()
      ->check(CLI::Range(0, 1 << 20))
      ->type_name("MIB");
  app.add_option("--name", options.busName, "the bus name to own")
      ->capture_default_str()
      ->type_name("BUSNAME")
      ->check([](const std::string& name) {
        // Calls name it as their interface too.
        return g_dbus_is_interface_name(name.c_str()) != FALSE
                   ? std::string()
                   : "not a bus name that calls can use: " + name;
      });
  app.add_flag("--stdin-events", options.stdinEvents,
               "emit the events that are written to standard input, one a line: NUMBER [P1 P2 P3]");
  app.add_flag("--check", options.check,
               "print the services, the fragments and all faults, and exit");
  app.add_flag("--aliases", options.aliases,
               "print the list of services for esg-client/services, and exit");
  app.add_option("--alias-file", options.aliasFile,
                 "write that list to FILE at the start and whenever the guide changes")
      ->type_name("FILE");
  app.add_flag("--strict", options.strict,
               "with --check or --aliases: exit with 65 if the guide has any fault");
  app.footer(
      "Exit status: 0 ended by SIGINT or SIGTERM, 64 wrong usage, 65 faults in the guide\n"
      "(--strict), 66 the folder cannot be read (--check, --aliases), 69 no system bus,\n"
      "75 the name is taken, 77 the name is refused, 70 any other failure.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& fault) {
    return app.exit(fault) == 0 ? esg::guide::kExitDone : esg::guide::kExitUsage;
  }
  if (options.check || options.aliases) {
    return Check(options);
  }
  esg::guide::Service(options, Report).Run();
  return esg::guide::kExitDone;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const esg::tools::Failure& fault) {
    Report(fault.what());
    return fault.Status();
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "%s: %s\n", kProgram, fault.what());
    return esg::guide::kExitFailed;
  }
}
