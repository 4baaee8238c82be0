#include "Guide.h"

#include <json/json.h>

namespace {

Json::Value Icon(unsigned int i) {
  Json::Value icon;
  icon["uri"] = "http://broadcast.example/icons/" + std::to_string(i) + ".png";
  icon["mimeType"] = "image/png";
  icon["width"] = 320;
  icon["height"] = 180;
  icon["dataSize"] = 24576;
  return icon;
}

std::string Text(unsigned int i) {
  std::string text = "Number " + std::to_string(i) + ": ";
  while (text.size() < 200) {
    text += "a story of the sea, the wind and an old ship; ";
  }
  text.resize(200);
  return text;
}

Json::Value Programme(unsigned int i) {
  Json::Value programme;
  programme["Start"] = 3900000000U + i * 30;
  programme["eventID"] = "bbbb.example/content/" + std::to_string(i);
  programme["title"] = "The long voyage, part " + std::to_string(i);
  programme["synopsis"] = Text(i);
  programme["genre"] = "Drama";
  programme["duration"] = 1800;
  programme["globalServiceId"] = guide::kServiceId;
  programme["privateExt"]["contentIcons"].append(Icon(i));
  Json::Value& preview = programme["privateExt"]["previews"].append(Json::Value());
  preview["usage"] = "preview";
  preview["contents"].append(Icon(i + 1));
  Json::Value& description = preview["descriptions"].append(Json::Value());
  description["text"] = Text(i + 1);
  description["lang"] = "en";
  return programme;
}

std::string Answer(Json::Value reply) {
  reply["ret"] = true;
  return Json::writeString(Json::StreamWriterBuilder(), reply);
}

}  // namespace

namespace guide {

std::string List(unsigned int programmes) {
  Json::Value reply;
  for (unsigned int i = 0; i < programmes; ++i) {
    Json::Value programme = Programme(i);
    programme["key"] = programme["Start"];
    reply["ESGProgramMap"].append(std::move(programme));
  }
  return Answer(std::move(reply));
}

std::string Present() { return Answer(Programme(0)); }

}  // namespace guide
