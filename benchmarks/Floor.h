#ifndef BENCHMARKS_FLOOR_H
#define BENCHMARKS_FLOOR_H

#include <dbus/dbus.h>
#include <json/json.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

/// The smallest program that follows the protocol, directly on libdbus and JsonCpp.
namespace hand {

struct Icon {
  std::string uri;
  std::string mimeType;
  int width;
  int height;
  int dataSize;
};

struct Description {
  std::string text;
  std::string lang;
};

struct Preview {
  std::string usage;
  std::vector<Icon> icons;
  std::vector<Icon> contents;
  std::vector<Description> descriptions;
};

struct Programme {
  unsigned int start;
  unsigned int duration;
  std::string eventId;
  std::string title;
  std::string synopsis;
  std::string genre;
  std::string globalServiceId;
  std::vector<Icon> contentIcons;
  std::vector<Preview> previews;
};

using Programmes = std::map<unsigned int, Programme>;

std::string ListRequest(unsigned int programmes);
std::string PresentRequest();

Json::Value Parse(std::string_view text);
Programme ReadProgramme(const Json::Value& object);
Programmes ReadList(const Json::Value& reply);

Programmes GetProgramList(DBusConnection* connection, unsigned int programmes);
Programme GetPresentProgram(DBusConnection* connection);
/// Sends that many calls at once, and receives their replies.
std::vector<Programme> GetPresentPrograms(DBusConnection* connection, int count);

}  // namespace hand

#endif
