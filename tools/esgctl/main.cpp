#include <CLI/CLI.hpp>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include "Commands.h"

namespace {

using namespace esgctl;

/// Help in which the usage is the synopsis of the manual.
class Formatter : public CLI::Formatter {
 public:
  Formatter() {
    label("Positionals", "Arguments");
    column_width(26);
  }
  std::string make_usage(const CLI::App* app, std::string) const override {
    const Command* const command = TryFindCommand(app->get_name());
    return "\nUsage: esgctl " +
           (command == nullptr ? "[OPTION]... COMMAND ..." : Synopsis(*command)) + '\n';
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string type = option->get_type_name();
    return option->get_positional() || type.empty() ? "" : ' ' + type.substr(0, type.find(':'));
  }
};

CLI::Option* AddValue(CLI::App& app, const Parameter& parameter, const std::string& name,
                      Request& request) {
  CLI::Option* const option = std::visit(
      [&](auto member) -> CLI::Option* {
        auto& field = request.*member;
        if constexpr (std::is_same_v<decltype(field), bool&>) {
          return app.add_flag(name, field, parameter.help);
        } else {
          return app.add_option(name, field, parameter.help);
        }
      },
      parameter.target);
  option->type_name(parameter.type);
  if (parameter.onlyThese) {
    option->check(CLI::IsMember(Words(parameter.values)));
  }
  return option;
}

/// Arguments and options, as in "KIND [SERVICE]... --from".
void AddParameters(CLI::App& app, const std::string& text, Request& request) {
  for (const std::string& word : Words(text)) {
    const std::string name = NameOf(word);
    CLI::Option& option = *AddValue(app, *TryFindParameter(name), name, request);
    const bool argument = word.front() != '-';
    option.required(argument && word.front() != '[');
    if (argument && word.back() != '.') {
      option.expected(1)->allow_extra_args(false);
    }
  }
  if (CLI::Option* const raw = app.get_option_no_throw("--raw")) {
    raw->excludes("--json");
  }
  if (CLI::Option* const count = app.get_option_no_throw("--count")) {
    count->check(CLI::Range(1, 1000000000));
  }
}

int Fail(int status, const std::string& message) {
  Say(message);
  return status;
}

/// The one place where whatever goes wrong becomes a message and an exit status.
int Run(const Command& command, const Request& request) {
  try {
    Session session(request);
    command.run(session);
    return kFound;
  } catch (const ClosedPipe&) {
    return kFound;
  } catch (const esg::tools::Failure& failure) {
    return Fail(failure.Status(), failure.what());
  } catch (const std::exception& error) {
    return Fail(kOther, error.what());
  }
}

}  // namespace

int main(int argc, char** argv) try {
  esg::tools::ReserveStandardDescriptors();
  // A closed pipe is found out by writing.
  std::signal(SIGPIPE, SIG_IGN);
  // Texts are UTF-8, whatever the user's locale; numbers stay as they are.
  std::setlocale(LC_CTYPE, "C.UTF-8");

  Request request;
  // For the shells: esgctl complete -- and the words of the command line so far.
  if (argc > 2 && argv[1] == std::string_view("complete")) {
    setenv("ESG_LOG", "none", 0);
    request.words.assign(argv + 3, argv + argc);
    return Run({"complete", "", "", RunComplete, ""}, request);
  }

  CLI::App app("Shows, searches and exports the broadcast guide of the guide service.", "esgctl");
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.footer("The options of esgctl itself work here too; see esgctl --help.");
  app.formatter(std::make_shared<Formatter>());
  app.set_version_flag("--version", "esgctl " ESGCTL_VERSION);
  AddParameters(app, kCommonOptions, request);
  app.get_option("--width")->check(CLI::Range(20, 10000));

  const Command* chosen = nullptr;
  for (const Command& command : kCommands) {
    CLI::App& sub = *app.add_subcommand(command.name, command.summary);
    sub.group("Commands");
    AddParameters(sub, std::string(command.arguments) + ' ' + command.options, request);
    sub.preparse_callback([&](std::size_t) { chosen = &command; });
  }
  app.footer(std::string("TIME is ") + kTimeForms + ".\nDURATION is " + kDurationForms +
             ".\nThe list of services is ~/.config/esg-client/services or, without that file, "
             "/etc/esg-client/services.\n"
             "Exit status: 0 found, 10 not found, 2 wrong usage, 8 service or bus not available, 9 "
             "unreadable reply, 1 any other failure.");
  try {
    app.parse(argc, argv);
    if (chosen == nullptr) {
      throw CLI::RequiredError("COMMAND");
    }
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      return app.exit(error);
    }
    const std::vector<std::string> unknown = app.remaining(true);
    const std::string hint = unknown.empty() ? "" : Hint(chosen, unknown.front());
    Say(hint.empty() ? error.what() : hint);
    return Fail(kUsage, "See esgctl --help.");
  }
  // The library's log is for those who ask for it; what failed is told anyway.
  setenv("ESG_LOG", request.verbose ? "debug" : "none", request.verbose ? 1 : 0);
  return Run(*chosen, request);
} catch (...) {
  // Not even the message could be made.
  return kOther;
}
