#include "Check.h"

#include <glib.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/Text.h"
#include "common/Time.h"

namespace esg::guide {
namespace {

using tools::Printable;

struct Named {
  std::string channel = "-";
  std::string alias = "-";
  std::string id;
  std::string name;
  const Guide::Service* service = nullptr;
};

/// The first word, or all words with hyphens in between, in ASCII.
std::string AliasOf(const std::string& name, bool all) {
  g_autofree char* ascii = g_str_to_ascii(name.c_str(), "C");
  g_auto(GStrv) words = g_str_tokenize_and_fold(ascii, "C", nullptr);
  g_autofree char* joined = g_strjoinv("-", words);
  const std::string alias = all || words[0] == nullptr ? joined : words[0];
  // Digits alone are for channel numbers.
  return std::any_of(alias.begin(), alias.end(), [](char c) { return g_ascii_isalpha(c) != FALSE; })
             ? alias
             : "-";
}

/// Services without a number come last.
auto InOrderOfChannels(const Named& service) {
  // Takes digits for numbers: 9.2 comes before 9.10.
  g_autofree char* key = g_utf8_collate_key_for_filename(service.channel.c_str(), -1);
  return std::make_tuple(service.channel == "-", std::string(key), service.id);
}

/// The services in the order of their channels. An alias stands for one service only.
std::vector<Named> NamedServices(const Guide& guide) {
  std::vector<Named> services;
  for (const auto& [id, service] : guide.Services()) {
    Named named{"-", "-", id, {}, &service};
    if (service.description != nullptr) {
      const auto& body = std::get<ServiceFragment>(service.description->fragment->body);
      named.channel = body.channel.empty() ? "-" : body.channel;
      named.name = body.name;
    }
    services.push_back(std::move(named));
  }
  std::sort(services.begin(), services.end(), [](const Named& a, const Named& b) {
    return InOrderOfChannels(a) < InOrderOfChannels(b);
  });
  std::map<std::string, int> words;
  std::map<std::string, int> aliases;
  for (const Named& service : services) {
    ++words[AliasOf(service.name, false)];
  }
  for (Named& service : services) {
    const std::string word = AliasOf(service.name, false);
    service.alias = words[word] == 1 ? word : AliasOf(service.name, true);
    ++aliases[service.alias];
  }
  for (Named& service : services) {
    service.alias = aliases[service.alias] == 1 ? service.alias : "-";
  }
  return services;
}

std::string LocalTime(std::uint32_t ntp) {
  const tools::Seconds now = g_get_real_time() / G_USEC_PER_SEC;
  g_autoptr(GDateTime) time = g_date_time_new_from_unix_local(tools::UnixFromNtp(ntp, now));
  g_autofree char* text = g_date_time_format(time, "%Y-%m-%d %H:%M");
  return text;
}

std::string Describe(const Guide::Service& service) {
  if (service.programs.empty()) {
    return "no programmes";
  }
  const Program& last = service.programs.back();
  return std::to_string(service.programs.size()) + " programmes, " +
         LocalTime(service.programs.front().time.start) + " to " +
         LocalTime(last.time.start + last.time.duration);
}

std::string NamesOf(const Named& service) {
  return Printable(service.channel) + ' ' + service.alias + ' ' + Printable(service.id) +
         (service.name.empty() ? "" : " ") + Printable(service.name);
}

}  // namespace

void PrintGuide(std::ostream& out, const Guide& guide) {
  for (const Named& service : NamedServices(guide)) {
    out << "service " << NamesOf(service) << ": " << Describe(*service.service) << '\n';
  }
  constexpr const char* kKinds[] = {"Service", "Schedule", "Content"};
  for (const Kept& kept : guide.Fragments()) {
    out << "fragment " << Printable(kept.file->name) << ": " << kKinds[kept.fragment->body.index()]
        << ' ' << Printable(kept.fragment->id) << " version " << kept.fragment->version << ", "
        << kept.fragment->size << " bytes\n";
  }
  out << guide.Services().size() << " services, " << guide.ProgramCount() << " programmes, "
      << guide.Fragments().size() << " fragments\n";
}

void PrintAliases(std::ostream& out, const Guide& guide) {
  out << "# NUMBER ALIAS ID NAME, written by esg-guide-service --aliases\n";
  for (const Named& service : NamedServices(guide)) {
    // An id that is several words, or that may not be shown as it is, cannot be listed.
    const bool fits =
        service.id.find(' ') == std::string::npos && Printable(service.id) == service.id;
    out << (fits ? "" : "# ") << NamesOf(service) << '\n';
  }
}

}  // namespace esg::guide
