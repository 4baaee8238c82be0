#include "common/Xml.h"

#include <glib.h>

#include "common/Text.h"

namespace esg::tools {

std::string CleanText(std::string_view text) {
  text = Trimmed(text);
  // Most texts are ASCII, for which this is several times as fast as the validation.
  unsigned char bits = 0;
  for (const char c : text) {
    bits |= static_cast<unsigned char>(c);
  }
  const auto size = static_cast<gssize>(text.size());
  if (bits < 0x80 || g_utf8_validate(text.data(), size, nullptr) != FALSE) {
    return std::string(text);
  }
  g_autofree char* valid = g_utf8_make_valid(text.data(), size);
  return valid;
}

std::string Attribute(const pugi::xml_node& node, std::string_view name) {
  pugi::xml_attribute attribute = node.first_attribute();
  while (!attribute.empty() && !IsNamed(attribute.name(), name)) {
    attribute = attribute.next_attribute();
  }
  return CleanText(attribute.value());
}

std::string Text(const pugi::xml_node& node) {
  std::string text = Attribute(node, "text");
  if (!text.empty()) {
    return text;
  }
  for (pugi::xml_node child = node.first_child(); !child.empty(); child = child.next_sibling()) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
      text += child.value();
    }
  }
  return CleanText(text);
}

std::string FirstText(const pugi::xml_node& parent, std::string_view name) {
  std::string text;
  ForEach(parent, name, [&](const pugi::xml_node& node) {
    if (text.empty()) {
      text = Text(node);
    }
  });
  return text;
}

}  // namespace esg::tools
