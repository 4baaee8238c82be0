#include <json/value.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>

#include "Commands.h"
#include "TextWidth.h"

namespace {

using esgctl::Session;
using esgctl::Status;

constexpr char kFooter[] =
    "SERVICE is an alias of the file ~/.config/esg-client/services (lines \"alias = "
    "global-service-id\"), a part of one, or a global service id.\n"
    "Exit status: 0 found, 10 not found, 2 wrong usage, 8 service or bus not there, 9 unreadable "
    "answer, 1 anything else.";

void AddOptions(CLI::App& app, Session& session) {
  app.set_version_flag("--version", "esgctl " ESGCTL_VERSION);
  app.add_flag("--verbose", session.verbose, "Show the library's log on standard error");
  app.add_option("--epoch", session.epoch, "What times of the service count from: ntp or unix")
      ->check(CLI::IsMember({"ntp", "unix"}))
      ->capture_default_str();
  app.add_option("--color", session.looks.colour, "auto, always or never")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->capture_default_str();
  app.add_option("--width", session.looks.width, "Columns to draw in; else the terminal's")
      ->check(CLI::Range(20, 10000));
}

int Fail(int status, const std::string& message) {
  esg::tools::Report("esgctl", message);
  return status;
}

/// The one place where whatever goes wrong becomes a message and an exit status.
int Run(const Session& session) {
  try {
    return session.command();
  } catch (const esgctl::ClosedPipe&) {
    return esgctl::kFound;
  } catch (const esg::tools::Failure& failure) {
    return Fail(failure.Status(), failure.what());
  } catch (const Json::Exception& error) {
    return Fail(esgctl::kUnreadable,
                std::string("The answer of the guide service cannot be read: ") + error.what());
  } catch (const std::exception& error) {
    return Fail(esgctl::kOther, error.what());
  }
}

int Main(int argc, char** argv) {
  esgctl::ReserveStandardDescriptors();
  // A closed pipe is found out by writing.
  std::signal(SIGPIPE, SIG_IGN);

  Session session;
  CLI::App app("Looks into the broadcast guide through the guide service.", "esgctl");
  app.require_subcommand(1);
  app.fallthrough();
  app.footer("The options of esgctl itself may stand here too; see esgctl --help.");
  AddOptions(app, session);
  esgctl::AddProgramCommands(app, session);
  esgctl::AddGridCommands(app, session);
  esgctl::AddFragmentCommands(app, session);
  esgctl::AddEventCommands(app, session);
  app.footer(kFooter);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : esgctl::kUsage;
  }
  // The library's log is for those who ask for it; what failed is told anyway.
  setenv("ESG_LOG", session.verbose ? "debug" : "none", session.verbose ? 1 : 0);
  return Run(session);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (...) {
    // Not even the message could be made.
    return esgctl::kOther;
  }
}
