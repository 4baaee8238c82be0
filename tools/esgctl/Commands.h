#ifndef ESGCTL_COMMANDS_H
#define ESGCTL_COMMANDS_H

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Guide.h"
#include "Output.h"
#include "Services.h"
#include "Time.h"

namespace esgctl {

/// What the user wrote.
struct Request : OutputOptions {
  std::vector<std::string> services;
  std::vector<std::string> words;
  std::vector<int> events;
  std::vector<int> numbers;
  std::string kind;
  std::string format;
  std::string path;
  std::string contentId;
  std::string start;

  std::string from;
  std::string to;
  std::string length;
  std::string of;
  std::string genre;
  std::string epoch = "ntp";
  unsigned int count = 0;
  bool json = false;
  bool raw = false;
  bool ids = false;
  bool follow = false;
  bool names = false;
  bool bb = false;
  bool title = false;
  bool word = false;
  bool regex = false;
  bool verbose = false;
};

/// What all commands share.
class Session {
 public:
  explicit Session(const Request& wanted);

  const Request& request;
  Clock clock;
  Guide guide{clock};

  /// The user's services, read on first use; complaints about the file go to standard error.
  Services& KnownServices();
  /// The services that the request names, or all.
  std::vector<Service> NamedServices();
  /// The same, with what the guide service knows of them; a usage failure where there are none.
  std::vector<Service> ChosenServices();

  /// --from, --to and --for. A usage failure also where the records' clock cannot tell these times.
  TimeRange Range(Seconds usualLength) const;

 private:
  std::optional<Services> m_services;
};

/// What to do where there is no list of services.
std::string HowToListServices();

/// Where an argument's or an option's value goes.
using Target = std::variant<bool Request::*, unsigned int Request::*, std::string Request::*,
                            std::vector<std::string> Request::*, std::vector<int> Request::*>;

/// One argument, or one option, whose name starts with "--".
struct Parameter {
  const char* name;
  Target target;
  const char* help;
  const char* type = "";    ///< of an option's value; empty for a flag
  const char* values = "";  ///< that completion offers
  bool onlyThese = false;   ///< whether there are no other values
};

/// One command. Parsing, help, completion and the manual follow from these.
struct Command {
  const char* name;
  const char* arguments;  ///< as in "KIND SERVICE [TIME]" and "[SERVICE]..."
  const char* options;    ///< names
  void (*run)(Session& session);
  const char* summary;
};

extern const std::vector<Command> kCommands;
extern const char* const kCommonOptions;

/// The command, or the argument or option, of this name; null where there is none.
const Command* TryFindCommand(const std::string& name);
const Parameter* TryFindParameter(const std::string& name);
/// The name in an argument such as "[SERVICE]...".
std::string NameOf(const std::string& argument);

/// The command or option that the last of these words, which are the first of the command line, is
/// likely to be a mistyped form of; empty if none is near.
std::string Suggestion(const std::vector<std::string>& words);

/// "list [SERVICE]... [--from TIME] ...".
std::string Synopsis(const Command& command);

// The commands. Whatever goes wrong is an exception.
void RunNow(Session& session);
void RunNext(Session& session);
void RunPrevious(Session& session);
void RunList(Session& session);
void RunShow(Session& session);
void RunGrid(Session& session);
void RunSearch(Session& session);
void RunServices(Session& session);
void RunExport(Session& session);
void RunXml(Session& session);
void RunSave(Session& session);
void RunWatch(Session& session);
void RunEmit(Session& session);
void RunComplete(Session& session);

}  // namespace esgctl

#endif
