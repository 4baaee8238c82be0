#include "Commands.h"

#include <glib.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "Text.h"

namespace esgctl {
namespace {

constexpr char kTimes[] = "now today tonight tomorrow yesterday 8pm 20:00 +2h";
constexpr char kLengths[] = "30m 3h 6h 1d 7d";

const std::vector<Parameter>& Parameters() {
  static const std::vector<Parameter> parameters = {
      {"SERVICE", nullptr, nullptr, nullptr, &Request::services,
       "A channel number, a name or an unambiguous part of one, or a global service id"},
      {"CONTENT-ID", nullptr, nullptr, nullptr, &Request::contentId,
       "Which programme; without START its next showing"},
      {"START", nullptr, nullptr, kTimes, &Request::start,
       "A time at which the programme is on, or starts if a content id is given"},
      {"WORD", nullptr, nullptr, nullptr, &Request::words,
       "What to look for; all words must occur"},
      {"KIND", nullptr, "schedule service content", nullptr, &Request::kind,
       "Which kind of fragment: schedule, service or content"},
      {"FORMAT", nullptr, "xmltv html", nullptr, &Request::format,
       "xmltv for other programs, html for a browser"},
      {"PATH", nullptr, nullptr, nullptr, &Request::path,
       "Where to; the service opens this file, not esgctl"},
      {"EVENT", nullptr, nullptr, nullptr, &Request::events, "The number of an event"},
      {"NUMBER", nullptr, nullptr, nullptr, &Request::numbers,
       "Up to three integers that the event carries"},

      {"--from", "TIME", nullptr, kTimes, &Request::from, "Start of the time range"},
      {"--to", "TIME", nullptr, kTimes, &Request::to, "End of the time range"},
      {"--for", "DURATION", nullptr, kLengths, &Request::length,
       "Length of the time range, for example 90m, 6h or 2d"},
      {"--of", "TIME", nullptr, kTimes, &Request::of,
       "Count from what is on at this time, not now"},
      {"--genre", "GENRE", nullptr, nullptr, &Request::genre, "Only programmes of this genre"},
      {"--title", nullptr, nullptr, nullptr, &Request::title, "Look into the titles only"},
      {"--word", nullptr, nullptr, nullptr, &Request::word, "Find whole words only"},
      {"--regex", nullptr, nullptr, nullptr, &Request::regex, "Each WORD is a regular expression"},
      {"--ids", nullptr, nullptr, nullptr, &Request::ids, "Show content ids too"},
      {"--follow", nullptr, nullptr, nullptr, &Request::follow,
       "Print again whenever a programme ends or the guide changes"},
      {"--json", nullptr, nullptr, nullptr, &Request::json,
       "Print JSON, with times in Unix seconds"},
      {"--raw", nullptr, nullptr, nullptr, &Request::raw,
       "Print the record's own JSON, in the form of the protocol"},
      {"--names", nullptr, nullptr, nullptr, &Request::names, "Print only what names each service"},
      {"--bb", nullptr, nullptr, nullptr, &Request::bb, "Pass the flag BB to the service"},
      {"--count", "N", nullptr, nullptr, &Request::count, "End after N events"},

      {"--epoch", "EPOCH", "ntp unix", nullptr, &Request::epoch,
       "What times of the service count from: ntp or unix"},
      {"--color", "WHEN", "auto always never", nullptr, &Request::colour,
       "When to use colours: auto, always or never"},
      {"--width", "COLUMNS", nullptr, nullptr, &Request::width,
       "Columns to draw in, from 20 to 10000; otherwise those of the terminal"},
      {"--verbose", nullptr, nullptr, nullptr, &Request::verbose,
       "Show the library's log on standard error"},
  };
  return parameters;
}

}  // namespace

const char* const kCommonOptions = "--epoch --color --width --verbose";

const std::vector<Command> kCommands = {
    {"now", "[SERVICE]...", "--follow --json --raw", RunNow, "Show what is on now"},
    {"next", "[SERVICE]...", "--of --follow --json --raw", RunNext, "Show what comes next"},
    {"prev", "[SERVICE]...", "--of --follow --json --raw", RunPrevious, "Show what was on before"},
    {"list", "[SERVICE]...", "--from --to --for --ids --follow --json --raw", RunList,
     "List the programmes of a time range, 24 hours from now by default"},
    {"show", "SERVICE [CONTENT-ID] [START]", "--json --raw", RunShow, "Show one programme in full"},
    {"grid", "[SERVICE]...", "--from --to --for --json", RunGrid,
     "Draw services against time, for 3 hours by default"},
    {"search", "WORD...", "--title --genre --word --regex --from --to --for --ids --json",
     RunSearch, "Search all services, from yesterday to two weeks ahead by default"},
    {"services", "[SERVICE]...", "--names --json", RunServices,
     "List the services that can be named"},
    {"export", "FORMAT [SERVICE]...", "--from --to --for", RunExport,
     "Write the guide for other programs: a week as XMLTV, or an evening as a page"},
    {"xml", "KIND SERVICE", "--from --to --for --bb", RunXml, "Print the XML of a fragment"},
    {"save", "KIND SERVICE PATH", "--bb", RunSave, "Have the service save a fragment"},
    {"watch", "EVENT...", "--count --json", RunWatch, "Print events as they arrive, one a line"},
    {"emit", "EVENT [NUMBER]...", "", RunEmit, "Broadcast an event as the service does"},
};

const Parameter* TryFindParameter(const std::string& name) {
  const auto& all = Parameters();
  const auto found = std::find_if(
      all.begin(), all.end(), [&](const Parameter& parameter) { return name == parameter.name; });
  return found == all.end() ? nullptr : &*found;
}

std::string NameOf(const std::string& argument) {
  const std::size_t first = argument.find_first_not_of('[');
  return argument.substr(first, argument.find_first_of("].") - first);
}

std::string Synopsis(const Command& command) {
  std::string text = std::string(command.name) + ' ' + command.arguments;
  for (const std::string& option : Words(command.options)) {
    const Parameter& parameter = *TryFindParameter(option);
    text +=
        " [" + option + (parameter.type == nullptr ? "" : std::string(" ") + parameter.type) + ']';
  }
  return text;
}

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
      parameter = option != nullptr && option->type != nullptr ? option : nullptr;
    } else if (command == nullptr) {
      const auto named = std::find_if(kCommands.begin(), kCommands.end(),
                                      [&](const Command& known) { return words[i] == known.name; });
      if (named == kCommands.end()) {
        return {};
      }
      command = &*named;
      arguments = Words(command->arguments);
    } else if (!arguments.empty() && arguments.front().back() != '.') {
      arguments.erase(arguments.begin());
    }
  }
  std::vector<std::string> candidates;
  if (parameter == nullptr && !words.empty() && words.back().substr(0, 1) == "-") {
    return Words(std::string(command == nullptr ? "--version" : command->options) + ' ' +
                 kCommonOptions + " --help");
  }
  if (parameter == nullptr && command == nullptr) {
    std::transform(kCommands.begin(), kCommands.end(), std::back_inserter(candidates),
                   [](const Command& known) { return known.name; });
    return candidates;
  }
  if (parameter == nullptr && !arguments.empty()) {
    parameter = TryFindParameter(NameOf(arguments.front()));
  }
  if (parameter == nullptr) {
    return candidates;
  }
  for (const char* const list : {parameter->choices, parameter->examples}) {
    for (std::string& value : Words(list == nullptr ? "" : list)) {
      candidates.push_back(std::move(value));
    }
  }
  if (parameter->name == std::string_view("SERVICE")) {
    std::transform(services.All().begin(), services.All().end(), std::back_inserter(candidates),
                   [](const Service& service) { return service.ShortName(); });
  }
  return candidates;
}

Clock Session::MakeClock() const {
  return {request.epoch == "unix" ? Epoch::Unix : Epoch::Ntp, g_get_real_time() / G_USEC_PER_SEC};
}

Services& Session::KnownServices() {
  if (!m_services) {
    m_services = Services::Load();
    for (const std::string& complaint : m_services->Complaints()) {
      esg::tools::Report("esgctl", m_services->Path() + ", " + complaint);
    }
  }
  return *m_services;
}

std::vector<Service> Session::ChosenServices() {
  const Services& known = KnownServices();
  if (request.services.empty()) {
    if (known.All().empty()) {
      throw Failure(kUsage,
                    "No service is named, and there is no list of services.\nName one, or "
                    "write the list with: esg-guide-service --guide DIR --aliases > " +
                        Services::UserPath());
    }
    return known.All();
  }
  std::vector<Service> chosen;
  for (const std::string& text : request.services) {
    chosen.push_back(known.Resolve(text));
  }
  return chosen;
}

std::vector<Service> Session::ChosenServices(Guide& guide) {
  std::vector<Service> chosen = ChosenServices();
  std::vector<Service>& known = KnownServices().All();
  const bool unlisted = std::any_of(chosen.begin(), chosen.end(), [&](const Service& service) {
    return std::none_of(known.begin(), known.end(),
                        [&](const Service& listed) { return listed.id == service.id; });
  });
  if (unlisted && guide.Complete(known)) {
    chosen = ChosenServices();
  }
  guide.Complete(chosen);
  return chosen;
}

TimeRange Session::Range(Seconds usualLength, const Clock& clock) const {
  const TimeRange range =
      ParseRange(request.from, request.to, request.length, usualLength, clock.Now());
  clock.ToRecord(range.from);
  clock.ToRecord(range.to - 1);
  return range;
}

int RunComplete(Session& session) {
  const std::vector<std::string>& words = session.request.words;
  std::string lines;
  for (const std::string& candidate : Completions(words, session.KnownServices())) {
    lines += Printable(candidate) + '\n';
  }
  Print(lines);
  return kFound;
}

}  // namespace esgctl
