#ifndef ESGCTL_COMMANDS_H
#define ESGCTL_COMMANDS_H

#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Guide.h"
#include "Table.h"
#include "Text.h"

/// What all commands share, and the table of them.
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

/// A command that looks at the programmes of the chosen services in a time range. By default it
/// lists those of a day.
struct View {
  /// Says that there are none.
  std::string nothing = "Nothing is on";
  /// Whether a service has at most one.
  bool single = false;
  /// Whether the guide of the first service tells why there are none.
  bool explains = true;
  /// The time range, seen from the present. A usage failure where the user wrote a wrong one.
  std::function<TimeRange()> range;
  std::function<Listings(const std::vector<Service>&, const TimeRange&)> ask;
  /// The output, which is used if there are programmes; that in JSON also if there are none.
  std::function<std::string(const Listings&, const TimeRange&)> show;
};

/// Asks and prints: once, or with --follow again whenever the output changes.
void Look(Session& session, const View& view);

/// What a command found at some moment.
struct Outcome {
  std::string text;     ///< to print
  std::string nothing;  ///< to say if there is no text
  Seconds changes = 0;  ///< when to look again, because a programme ends; 0: not known
};

/// Prints what `look` finds, and again whenever it has changed, until watching ends.
void Follow(Guide& guide, const std::function<Outcome()>& look);

using Showings = std::vector<const Showing*>;
Showings AllOf(const Listings& listings);

/// The programmes as a table, or in JSON. There a `single` programme of the one service that was
/// named is an object, and otherwise there is an array.
std::string Written(const Showings& showings, const Session& session, bool single = false);

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
  std::function<void(Session&)> run;
  const char* summary;
};

extern const std::vector<Command> kCommands;
extern const char* const kCommonOptions;

/// The command, or the argument or option, of this name; null where there is none.
const Command* TryFindCommand(const std::string& name);
const Parameter* TryFindParameter(const std::string& name);
/// The name in an argument such as "[SERVICE]...".
std::string NameOf(const std::string& argument);

/// What the user may have meant by an unknown word, which follows the command if there is one;
/// empty if nothing is near.
std::string Hint(const Command* command, const std::string& word);

/// "list [SERVICE]... [--from TIME] ...".
std::string Synopsis(const Command& command);

// The commands. Whatever goes wrong is an exception.
/// Shows one programme of each service: the present one, or the one before or after.
std::function<void(Session&)> RunOne(eRelative_Position position, const char* nothing);
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
