#include "Aliases.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "Status.h"
#include "TextWidth.h"

namespace esgctl {
namespace {

std::string Folded(const std::string& text) {
  char* const folded = g_utf8_casefold(text.c_str(), static_cast<gssize>(text.size()));
  std::string result = folded;
  g_free(folded);
  return result;
}

bool IsUtf8(const std::string& text) {
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE;
}

}  // namespace

std::string Aliases::DefaultPath() {
  return std::string(g_get_user_config_dir()) + "/esg-client/services";
}

Aliases Aliases::Load(const std::string& path) {
  std::ifstream file(path);
  const bool absent = !file.is_open() && errno == ENOENT;
  Aliases aliases(file);
  if (!absent && !file.eof()) {
    aliases.m_complaints.emplace_back("the file cannot be read");
  }
  return aliases;
}

Aliases::Aliases(std::istream& text) {
  std::string line;
  for (int number = 1; std::getline(text, line); ++number) {
    AddLine(std::string(Trimmed(line)), number);
  }
}

void Aliases::AddLine(const std::string& line, int number) {
  if (line.empty() || line[0] == '#') {
    return;
  }
  const auto complain = [&](const char* what) {
    m_complaints.push_back("line " + std::to_string(number) + ": " + what);
  };
  const std::size_t sign = line.find('=');
  const std::string alias(Trimmed(std::string_view(line).substr(0, sign)));
  const std::string id(sign == std::string::npos
                           ? std::string_view()
                           : Trimmed(std::string_view(line).substr(sign + 1)));
  if (alias.empty() || id.empty()) {
    complain("not of the form \"alias = global-service-id\"");
  } else if (!IsUtf8(line)) {
    complain("not UTF-8");
  } else if (!m_ids.emplace(alias, id).second) {
    complain("this alias is already taken");
  }
}

std::string Aliases::Resolve(const std::string& text) const {
  if (text.empty() || !IsUtf8(text)) {
    throw Failure(kUsage, "A service is named by an alias or a global service id in UTF-8.");
  }
  if (text[0] == '=') {
    return text.substr(1);
  }
  const auto exact = m_ids.find(text);
  if (exact != m_ids.end()) {
    return exact->second;
  }
  if (NameOf(text) != text) {
    return text;
  }
  std::vector<std::string> candidates;
  std::string id = text;
  const std::string part = Folded(text);
  for (const auto& entry : m_ids) {
    if (Folded(entry.first).find(part) != std::string::npos) {
      candidates.push_back(entry.first);
      id = entry.second;
    }
  }
  if (candidates.size() > 1) {
    std::string message = "\"" + text + "\" may be any of these services:";
    for (const std::string& candidate : candidates) {
      message += ' ' + candidate;
    }
    throw Failure(kUsage, message + ". Write more of the name.");
  }
  return id;
}

std::string Aliases::NameOf(const std::string& id) const {
  const auto entry = std::find_if(m_ids.begin(), m_ids.end(),
                                  [&id](const auto& candidate) { return candidate.second == id; });
  return entry == m_ids.end() ? id : entry->first;
}

}  // namespace esgctl
