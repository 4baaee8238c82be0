#include "Services.h"

#include <glib.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <fstream>

#include "Status.h"
#include "Text.h"

namespace esgctl {
namespace {

constexpr char kMachinePath[] = "/etc/esg-client/services";

bool IsUtf8(const std::string& text) {
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE;
}

/// Takes the first field from `rest`.
std::string NextField(std::string_view& rest) {
  rest = Trimmed(rest);
  std::string field(rest.substr(0, rest.find_first_of(" \t")));
  rest.remove_prefix(field.size());
  return field;
}

bool IsNumber(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return std::isdigit(c) != 0 || c == '.' || c == '-';
  });
}

template <typename Matches>
std::vector<Service> Matching(const std::vector<Service>& services, Matches matches) {
  std::vector<Service> found;
  std::copy_if(services.begin(), services.end(), std::back_inserter(found), matches);
  return found;
}

}  // namespace

std::string Service::Tail() const {
  const std::size_t last = id.find_last_of("/:") + 1;
  return last < id.size() ? id.substr(last) : id;
}

std::string Service::Label() const {
  return !name.empty() ? name : !alias.empty() ? alias : Tail();
}

std::string Service::Channel() const { return number.empty() ? Label() : number + ' ' + Label(); }

void Service::Complete(const Facts& facts) {
  if (number.empty()) {
    number = facts.number;
  }
  if (name.empty() && !facts.names.empty()) {
    name = facts.names.front().text;
  }
}

std::string Services::UserPath() {
  return std::string(g_get_user_config_dir()) + "/esg-client/services";
}

Services Services::Load() {
  for (const std::string& path : {UserPath(), std::string(kMachinePath)}) {
    std::ifstream file(path);
    if (!file.is_open() && errno == ENOENT) {
      continue;
    }
    Services services(file);
    services.m_path = path;
    if (!file.eof()) {
      services.m_complaints.emplace_back("the file cannot be read");
    }
    return services;
  }
  return {};
}

Services::Services(std::istream& text) {
  std::string line;
  for (int number = 1; std::getline(text, line); ++number) {
    AddLine(line, number);
  }
}

void Services::AddLine(const std::string& line, int number) {
  std::string_view rest = Trimmed(line);
  if (rest.empty() || rest[0] == '#') {
    return;
  }
  Service service;
  service.number = NextField(rest);
  service.alias = NextField(rest);
  service.id = NextField(rest);
  service.name = Trimmed(rest);
  const auto complain = [&](const char* what) {
    m_complaints.push_back("line " + std::to_string(number) + ": " + what);
  };
  if (!IsNumber(service.number) || service.id.empty()) {
    complain("not of the form \"NUMBER ALIAS ID NAME\"");
    return;
  }
  if (!IsUtf8(line)) {
    complain("not UTF-8");
    return;
  }
  for (std::string* field : {&service.number, &service.alias}) {
    if (*field == "-") {
      field->clear();
    }
  }
  m_services.push_back(std::move(service));
}

Service Services::Resolve(const std::string& text) const {
  if (text.empty() || !IsUtf8(text)) {
    throw Failure(kUsage,
                  "A service is named by its number, its name, an alias or its id, in UTF-8.");
  }
  const std::string id = text[0] == '=' ? text.substr(1) : text;
  std::vector<Service> found =
      Matching(m_services, [&](const Service& service) { return service.id == id; });
  const std::string folded = Folded(text);
  for (const bool whole : {true, false}) {
    if (found.empty() && text[0] != '=') {
      found = Matching(m_services, [&](const Service& service) {
        const auto fits = [&](const std::string& name) {
          return whole ? Folded(name) == folded : Folded(name).find(folded) != std::string::npos;
        };
        return service.number == text || fits(service.alias) || fits(service.name) ||
               fits(service.Tail());
      });
    }
  }
  if (found.empty()) {
    return {{}, {}, id, {}};
  }
  if (std::any_of(found.begin(), found.end(),
                  [&](const Service& service) { return service.id != found.front().id; })) {
    std::string message = "\"" + text + "\" may be any of these services:";
    for (const Service& service : found) {
      message += "\n  " + service.Channel() + "  " + service.id;
    }
    throw Failure(kUsage, message + "\nWrite more of the name, or the number or the id.");
  }
  return found.front();
}

std::string ChannelCell(const Service& service) {
  constexpr int kWidest = 24;
  return Cut(Printable(service.Channel()), kWidest);
}

std::vector<std::string> Ids(const std::vector<Service>& services) {
  std::vector<std::string> ids;
  std::transform(services.begin(), services.end(), std::back_inserter(ids),
                 [](const Service& service) { return service.id; });
  return ids;
}

}  // namespace esgctl
