#ifndef ESGCTL_SERVICES_H
#define ESGCTL_SERVICES_H

#include <FCESGProgramInfo.h>
#include <json/value.h>

#include <istream>
#include <string>
#include <vector>

#include "Time.h"

namespace esgctl {

/// One service of the guide; what is not known is empty.
struct Service {
  std::string number;  ///< the channel's, such as 33.1
  std::string alias;
  std::string id;  ///< the global service id
  std::string name;

  /// The last part of the id.
  std::string Tail() const;
  /// What a person would call it, in a few letters.
  std::string Label() const;
  /// A name for the command line: the alias if there is one.
  std::string ShortName() const { return alias.empty() ? Label() : alias; }
  /// The label, with the number in front.
  std::string Channel() const;
  bool IsComplete() const { return !number.empty() && !name.empty(); }
  /// Fills in what is not known yet from the facts of the Service fragment.
  void Complete(const Json::Value& facts);
};

/// The services that the user can name, from a file of lines `NUMBER ALIAS ID NAME`: fields
/// separated by blanks, `-` for an unknown number or alias; `#` starts a comment line.
struct Services {
  /// The user's file; it need not exist.
  static std::string UserPath();
  /// The user's file, or else the machine's.
  static Services Load();

  explicit Services(std::istream& text);
  Services() = default;

  /// The service that the user means: by number, alias, id or name, by an unambiguous part of an
  /// alias or a name, or else the text itself as an id; case and accents are ignored. A text after
  /// `=` is always an id. What several services go by is a usage failure that names them.
  Service Resolve(const std::string& text) const;

  std::string path;
  std::vector<Service> all;
  std::vector<std::string> complaints;  ///< faults of the file and of its lines
};

/// A programme on a service, in Unix time.
struct Showing {
  const Service* service;
  FCESGProgramInfo program;
  Seconds start = 0;
  Seconds end = 0;

  bool IsOn(Seconds now) const { return start <= now && now < end; }
};

/// What the guide has of one service, by start.
struct Listing {
  const Service* service;
  std::vector<Showing> showings;
};
using Listings = std::vector<Listing>;

}  // namespace esgctl

#endif
