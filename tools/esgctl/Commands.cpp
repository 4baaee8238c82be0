#include "Commands.h"

#include <glib.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <string_view>

namespace esgctl {
namespace {

constexpr char kTimes[] = "now today tonight tomorrow yesterday 8pm 20:00 +2h";

const std::vector<Parameter> kParameters = {
    {"SERVICE", &Request::services,
     "A channel number, an alias, a name or an unambiguous part of one, or a global service id"},
    {"CONTENT-ID", &Request::contentId, "Which programme; without START, its next showing"},
    {"START", &Request::start,
     "A time at which the programme is on, or starts if a content id is given", "", kTimes},
    {"WORD", &Request::words, "What to look for; all words must occur. Optional with --genre"},
    {"KIND", &Request::kind, "Which kind of fragment: schedule, service or content", "",
     "schedule service content", true},
    {"FORMAT", &Request::format, "xmltv for other programs, html for a browser, json for scripts",
     "", "xmltv html json", true},
    {"PATH", &Request::path, "The file to write; the service opens it, not esgctl"},
    {"EVENT", &Request::events, "The number of an event"},
    {"NUMBER", &Request::numbers, "Up to three integers that the event carries"},

    {"--from", &Request::from, "Start of the time range", "TIME", kTimes},
    {"--to", &Request::to, "End of the time range", "TIME", kTimes},
    {"--for", &Request::length, "Length of the time range, for example 90m, 6h or 2d", "DURATION",
     "30m 3h 6h 1d 7d"},
    {"--of", &Request::of, "Start from the programme that is on at this time", "TIME", kTimes},
    {"--genre", &Request::genre, "Only programmes of this genre", "GENRE"},
    {"--title", &Request::title, "Look into the titles only"},
    {"--word", &Request::word, "Find whole words only"},
    {"--regex", &Request::regex, "Each WORD is a regular expression"},
    {"--ids", &Request::ids, "Show content ids too"},
    {"--follow", &Request::follow, "Print again whenever a programme ends or the guide changes"},
    {"--json", &Request::json, "Print JSON, with times in Unix seconds"},
    {"--raw", &Request::raw, "Print the record's own JSON, in the form of the protocol"},
    {"--names", &Request::names, "Print one short name a line"},
    {"--bb", &Request::bb, "Pass the flag BB to the service"},
    {"--count", &Request::count, "End after N events", "N"},

    {"--epoch", &Request::epoch, "Where the service's times count from: ntp (1900) or unix",
     "EPOCH", "ntp unix", true},
    {"--color", &Request::colour, "When to use colours: auto, always or never", "WHEN",
     "auto always never", true},
    {"--width", &Request::width,
     "Width of the output, 20 to 10000 columns; by default that of the terminal", "COLUMNS"},
    {"--verbose", &Request::verbose, "Show the library's log on standard error"},
};

template <typename Item>
const Item* TryFind(const std::vector<Item>& items, const std::string& name) {
  const auto found =
      std::find_if(items.begin(), items.end(), [&](const Item& item) { return name == item.name; });
  return found == items.end() ? nullptr : &*found;
}

/// How many letters only one of the two has; their order makes no difference.
std::size_t Difference(std::string one, std::string other) {
  std::sort(one.begin(), one.end());
  std::sort(other.begin(), other.end());
  std::string different;
  std::set_symmetric_difference(one.begin(), one.end(), other.begin(), other.end(),
                                std::back_inserter(different));
  return different.size();
}

/// Completes the last of these words, which are the arguments of esgctl so far.
std::vector<std::string> Completions(const std::vector<std::string>& words,
                                     const Services& services) {
  const Command* command = nullptr;
  const Parameter* parameter = nullptr;  // what the last word is a value of
  std::vector<std::string> arguments;    // that are still to come
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    if (parameter != nullptr) {
      parameter = nullptr;
    } else if (words[i].substr(0, 2) == "--") {
      const Parameter* const option = TryFindParameter(words[i]);
      parameter = option != nullptr && *option->type != '\0' ? option : nullptr;
    } else if (command == nullptr) {
      command = TryFindCommand(words[i]);
      if (command == nullptr) {
        return {};
      }
      arguments = Words(command->arguments);
    } else if (!arguments.empty() && arguments.front().back() != '.') {
      arguments.erase(arguments.begin());
    }
  }
  if (parameter == nullptr && !words.empty() && words.back().substr(0, 1) == "-") {
    return Words(std::string(command == nullptr ? "--version" : command->options) + ' ' +
                 kCommonOptions + " --help");
  }
  if (parameter == nullptr && !arguments.empty()) {
    parameter = TryFindParameter(NameOf(arguments.front()));
  }
  std::vector<std::string> candidates = Words(parameter == nullptr ? "" : parameter->values);
  if (parameter == nullptr && command == nullptr) {
    for (const Command& known : kCommands) {
      candidates.emplace_back(known.name);
    }
  } else if (parameter != nullptr && parameter->name == std::string_view("SERVICE")) {
    // Numbers are only for those who begin to write one.
    const bool digit = !words.empty() && g_ascii_isdigit(words.back()[0]) != FALSE;
    for (const Service& service : services.all) {
      candidates.push_back(service.ShortName());
      if (digit && !service.number.empty()) {
        candidates.push_back(service.number);
      }
    }
  }
  return candidates;
}

}  // namespace

const char* const kCommonOptions = "--epoch --color --width --verbose";

const std::vector<Command> kCommands = {
    {"now", "[SERVICE]...", "--follow --json --raw",
     RunOne(eRelative_Position_Current, "Nothing is on now"), "Show what is on now"},
    {"next", "[SERVICE]...", "--of --follow --json --raw",
     RunOne(eRelative_Position_Next, "Nothing comes next"), "Show what comes next"},
    {"prev", "[SERVICE]...", "--of --follow --json --raw",
     RunOne(eRelative_Position_Previous, "Nothing was on before"), "Show what was on before"},
    {"list", "[SERVICE]...", "--from --to --for --ids --follow --json --raw", RunList,
     "List the programmes of a time range, 24 hours from now by default"},
    {"show", "SERVICE [CONTENT-ID] [START]", "--json --raw", RunShow, "Show one programme in full"},
    {"grid", "[SERVICE]...", "--from --to --for --json", RunGrid,
     "Draw services against time, for 3 hours by default"},
    {"search", "[WORD]...", "--title --genre --word --regex --from --to --for --ids --json",
     RunSearch, "Search all services, from yesterday to two weeks ahead by default"},
    {"services", "[SERVICE]...", "--names --json", RunServices,
     "List the services that can be named"},
    {"export", "FORMAT [SERVICE]...", "--from --to --for", RunExport,
     "Export the guide: a week as XMLTV or JSON, or an evening as a web page"},
    {"xml", "KIND SERVICE", "--from --to --for --bb --json", RunXml, "Print the XML of a fragment"},
    {"save", "KIND SERVICE PATH", "--bb --json", RunSave, "Have the service save a fragment"},
    {"watch", "EVENT...", "--count --json", RunWatch, "Print events as they arrive, one a line"},
    {"emit", "EVENT [NUMBER]...", "--json", RunEmit, "Broadcast an event as the service does"},
};

const Command* TryFindCommand(const std::string& name) { return TryFind(kCommands, name); }

const Parameter* TryFindParameter(const std::string& name) { return TryFind(kParameters, name); }

std::string NameOf(const std::string& argument) {
  const std::size_t first = argument.find_first_not_of('[');
  return argument.substr(first, argument.find_first_of("].") - first);
}

std::string Hint(const Command* command, const std::string& word) {
  std::vector<std::string> words = {word.substr(0, word.find('='))};
  if (command != nullptr) {
    words.insert(words.begin(), command->name);
  }
  std::map<std::size_t, std::string> byDifference = {{3, ""}};
  for (const std::string& name : Completions(words, Services())) {
    if (name != words.back()) {
      byDifference.emplace(Difference(words.back(), name), name);
    }
  }
  const std::string& meant = byDifference.begin()->second;
  return meant.empty() ? "" : "\"" + word + "\" is unknown. Did you mean " + meant + "?";
}

std::string Synopsis(const Command& command) {
  std::string text = std::string(command.name) + ' ' + command.arguments;
  for (const std::string& option : Words(command.options)) {
    const std::string type = TryFindParameter(option)->type;
    text += " [" + option + (type.empty() ? "" : ' ' + type) + ']';
  }
  return text;
}

std::string HowToListServices() {
  const std::string path = Services::UserPath();
  return "To create it, run: mkdir -p " + path.substr(0, path.rfind('/')) +
         "; esg-guide-service --guide DIR --aliases > " + path;
}

Session::Session(const Request& wanted)
    : request(wanted), clock(wanted.epoch == "unix" ? Epoch::Unix : Epoch::Ntp, PresentTime()) {}

Services& Session::KnownServices() {
  if (!m_services) {
    m_services = Services::Load();
    for (const std::string& complaint : m_services->complaints) {
      Say(m_services->path + ", " + complaint);
    }
  }
  return *m_services;
}

std::vector<Service> Session::NamedServices() {
  const Services& known = KnownServices();
  if (request.services.empty()) {
    return known.all;
  }
  std::vector<Service> named;
  for (const std::string& text : request.services) {
    named.push_back(known.Resolve(text));
  }
  return named;
}

std::vector<Service> Session::ChosenServices() {
  std::vector<Service> chosen = NamedServices();
  if (chosen.empty()) {
    throw Failure(kUsage,
                  "No service is named, and there is no list of services.\n" + HowToListServices());
  }
  std::vector<Service>& known = KnownServices().all;
  const bool unlisted = std::any_of(chosen.begin(), chosen.end(), [&](const Service& service) {
    return std::none_of(known.begin(), known.end(),
                        [&](const Service& listed) { return listed.id == service.id; });
  });
  if (unlisted && guide.Complete(known)) {
    chosen = NamedServices();
  }
  guide.Complete(chosen);
  return chosen;
}

TimeRange Session::Range(Seconds usualLength) const {
  const TimeRange range =
      ParseRange(request.from, request.to, request.length, usualLength, clock.Now());
  clock.ToRecord(range.from);
  clock.ToRecord(range.to - 1);
  return range;
}

void RunComplete(Session& session) {
  for (const std::string& word : Completions(session.request.words, session.KnownServices())) {
    Print(Printable(word) + '\n');
  }
}

}  // namespace esgctl
