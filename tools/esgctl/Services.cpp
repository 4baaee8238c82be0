#include "Services.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>

#include "Output.h"
#include "Text.h"

namespace esgctl {
namespace {

constexpr char kMachinePath[] = "/etc/esg-client/services";

bool IsUtf8(const std::string& text) {
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE;
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

void Service::Complete(const Json::Value& facts) {
  if (number.empty()) {
    number = facts["number"].asString();
  }
  if (name.empty() && !facts["titles"].empty()) {
    name = facts["titles"][0]["text"].asString();
  }
}

std::string Services::UserPath() {
  return std::string(g_get_user_config_dir()) + "/esg-client/services";
}

Services Services::Load() {
  for (const std::string& path : {UserPath(), std::string(kMachinePath)}) {
    std::ifstream file(path);
    if (!file.is_open() && (errno == ENOENT || errno == ENOTDIR)) {
      continue;
    }
    Services services(file);
    services.path = path;
    if (!file.eof()) {
      services.complaints.emplace_back("the file cannot be read");
    }
    return services;
  }
  return {};
}

Services::Services(std::istream& text) {
  std::string line;
  for (int number = 1; std::getline(text, line); ++number) {
    std::istringstream fields(line);
    Service service;
    fields >> service.number >> service.alias >> service.id;
    std::getline(fields, service.name);
    service.name = Trimmed(service.name);
    if (service.number.empty() || service.number[0] == '#') {
      continue;
    }
    if (service.id.empty() ||
        service.number.find_first_not_of("0123456789.-") != std::string::npos || !IsUtf8(line)) {
      complaints.push_back("line " + std::to_string(number) +
                           ": not of the form \"NUMBER ALIAS ID NAME\", in UTF-8");
      continue;
    }
    for (std::string* field : {&service.number, &service.alias}) {
      if (*field == "-") {
        field->clear();
      }
    }
    all.push_back(std::move(service));
  }
}

Service Services::Resolve(const std::string& text) const {
  if (text.empty() || !IsUtf8(text)) {
    throw Failure(kUsage,
                  "A service is named by its number, its name, an alias or its id, in UTF-8.");
  }
  const std::string id = text[0] == '=' ? text.substr(1) : text;
  const std::string folded = Folded(text);
  enum class By { Id, Name, PartOfName };
  std::vector<Service> found;
  for (const By by : {By::Id, By::Name, By::PartOfName}) {
    const auto fits = [&](const std::string& name) {
      return by == By::Name ? Folded(name) == folded
                            : Folded(name).find(folded) != std::string::npos;
    };
    const auto matches = [&](const Service& service) {
      return by == By::Id ? service.id == id
                          : service.number == text || fits(service.alias) || fits(service.name) ||
                                fits(service.Tail());
    };
    if (found.empty() && (by == By::Id || text[0] != '=')) {
      std::copy_if(all.begin(), all.end(), std::back_inserter(found), matches);
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

}  // namespace esgctl
