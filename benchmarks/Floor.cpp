#include "Floor.h"

#include <memory>

#include "Bare.h"
#include "Guide.h"

namespace hand {
namespace {

template <class Record>
std::vector<Record> ReadAll(const Json::Value& list, Record (*read)(const Json::Value&)) {
  std::vector<Record> records;
  records.reserve(list.size());
  for (const Json::Value& element : list) {
    records.push_back(read(element));
  }
  return records;
}

Icon ReadIcon(const Json::Value& object) {
  return {object["uri"].asString(), object["mimeType"].asString(), object["width"].asInt(),
          object["height"].asInt(), object["dataSize"].asInt()};
}

Description ReadDescription(const Json::Value& object) {
  return {object["text"].asString(), object["lang"].asString()};
}

Preview ReadPreview(const Json::Value& object) {
  return {object["usage"].asString(), ReadAll(object["icons"], &ReadIcon),
          ReadAll(object["contents"], &ReadIcon),
          ReadAll(object["descriptions"], &ReadDescription)};
}

std::string Write(const Json::Value& value) {
  return Json::writeString(Json::StreamWriterBuilder(), value);
}

/// The reply in a message, after the two parses.
Json::Value ReadReply(esg::internal::MessagePtr message) {
  Json::Value reply = Parse(bare::Payload(message.get()));
  message.reset();
  bare::Require(Parse(Write(reply))["ret"].asBool(), "not found");
  return reply;
}

Json::Value Ask(DBusConnection* connection, const char* method, const std::string& request) {
  return ReadReply(bare::Call(connection, method, request));
}

}  // namespace

std::string ListRequest(unsigned int programmes) {
  Json::Value arguments;
  arguments["start_time"] = 0U;
  arguments["duration"] = programmes;
  arguments["global_service_id"] = guide::kServiceId;
  return Write(arguments);
}

std::string PresentRequest() {
  Json::Value arguments;
  arguments["global_service_id"] = guide::kServiceId;
  return Write(arguments);
}

Json::Value Parse(std::string_view text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  std::string errors;
  bare::Require(reader->parse(text.data(), text.data() + text.size(), &value, &errors), "no JSON");
  return value;
}

Programme ReadProgramme(const Json::Value& object) {
  const Json::Value& extension = object["privateExt"];
  return {object["Start"].asUInt(),
          object["duration"].asUInt(),
          object["eventID"].asString(),
          object["title"].asString(),
          object["synopsis"].asString(),
          object["genre"].asString(),
          object["globalServiceId"].asString(),
          ReadAll(extension["contentIcons"], &ReadIcon),
          ReadAll(extension["previews"], &ReadPreview)};
}

Programmes ReadList(const Json::Value& reply) {
  Programmes programmes;
  for (const Json::Value& element : reply["ESGProgramMap"]) {
    programmes.insert_or_assign(programmes.end(), element["key"].asUInt(), ReadProgramme(element));
  }
  return programmes;
}

Programmes GetProgramList(DBusConnection* connection, unsigned int programmes) {
  return ReadList(Ask(connection, "GetProgramList", ListRequest(programmes)));
}

Programme GetPresentProgram(DBusConnection* connection) {
  return ReadProgramme(Ask(connection, "GetPresentProgram", PresentRequest()));
}

std::vector<Programme> GetPresentPrograms(DBusConnection* connection, int count) {
  for (int i = 0; i < count; ++i) {
    dbus_connection_send(
        connection, bare::NewCall(kESGServiceName, "GetPresentProgram", PresentRequest()).get(),
        nullptr);
  }
  std::vector<Programme> programmes;
  while (programmes.size() < static_cast<std::size_t>(count)) {
    dbus_connection_read_write(connection, -1);
    while (esg::internal::MessagePtr reply{dbus_connection_pop_message(connection)}) {
      if (dbus_message_has_signature(reply.get(), "iiay") != FALSE) {
        programmes.push_back(ReadProgramme(ReadReply(std::move(reply))));
      }
    }
  }
  return programmes;
}

}  // namespace hand
