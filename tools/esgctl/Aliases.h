#ifndef ESGCTL_ALIASES_H
#define ESGCTL_ALIASES_H

#include <istream>
#include <map>
#include <string>
#include <vector>

namespace esgctl {

/// Short names for global service ids, from a file of lines `alias = global-service-id`; `#` begins
/// a comment line.
class Aliases {
 public:
  /// The user's file; it need not exist.
  static std::string DefaultPath();
  /// No aliases where there is no such file, and a complaint where it cannot be read.
  static Aliases Load(const std::string& path);

  explicit Aliases(std::istream& text);
  Aliases() = default;

  const std::map<std::string, std::string>& All() const { return m_ids; }
  /// What is wrong with the file, or with single lines of it.
  const std::vector<std::string>& Complaints() const { return m_complaints; }

  /// The global service id that the user means: by alias, by known id, by a part of one alias alone
  /// (upper and lower case alike), or else the text itself as an id. A text behind `=` is always an
  /// id. A part of several aliases is a usage failure that names them.
  std::string Resolve(const std::string& text) const;
  /// The alias of an id, or the id itself.
  std::string NameOf(const std::string& id) const;

 private:
  void AddLine(const std::string& line, int number);

  std::map<std::string, std::string> m_ids;
  std::vector<std::string> m_complaints;
};

}  // namespace esgctl

#endif
