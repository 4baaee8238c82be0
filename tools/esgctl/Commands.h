#ifndef ESGCTL_COMMANDS_H
#define ESGCTL_COMMANDS_H

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>

#include "Aliases.h"
#include "Guide.h"
#include "Progress.h"
#include "Status.h"
#include "Terminal.h"
#include "Time.h"

namespace esgctl {

/// What all commands share: the options in front, and the command that was chosen.
class Session {
 public:
  Looks looks;
  std::string epoch = "ntp";
  bool verbose = false;
  std::function<Status()> command;

  Clock MakeClock() const;

  /// The user's aliases, read on first use; complaints about the file go to standard error.
  const Aliases& Services();

  /// Asks the guide, with a progress line meanwhile, which is gone when this returns.
  template <typename Question>
  auto Ask(const Clock& clock, Question question) {
    Progress progress;
    Guide guide(clock, progress);
    return question(guide);
  }

 private:
  std::optional<Aliases> m_aliases;
};

/// --from, --to and --for as given.
struct RangeOptions {
  std::string from;
  std::string to;
  std::string length;

  void AddTo(CLI::App& command, const std::string& usualLength);
  /// A usage failure also where the records' clock cannot tell these times.
  TimeRange Parse(Seconds usualLength, const Clock& clock) const;
};

inline constexpr Seconds kUsualRange = 24 * 3600;

// Each adds its commands, which set `session.command` when they are chosen.
void AddProgramCommands(CLI::App& app, Session& session);
void AddGridCommands(CLI::App& app, Session& session);
void AddFragmentCommands(CLI::App& app, Session& session);
void AddEventCommands(CLI::App& app, Session& session);

/// The SERVICE argument.
void AddService(CLI::App& command, std::string& service);

}  // namespace esgctl

#endif
