#include "common/Xml.h"

#include <glib.h>

#include "common/Text.h"

namespace esg::tools {

std::string_view LocalName(std::string_view name) { return name.substr(name.find(':') + 1); }

std::string CleanText(std::string_view text) {
  text = Trimmed(text);
  const auto size = static_cast<gssize>(text.size());
  if (g_utf8_validate(text.data(), size, nullptr) != FALSE) {
    return std::string(text);
  }
  g_autofree char* valid = g_utf8_make_valid(text.data(), size);
  return valid;
}

std::string Attribute(const pugi::xml_node& node, std::string_view name) {
  for (const pugi::xml_attribute& attribute : node.attributes()) {
    if (LocalName(attribute.name()) == name) {
      return CleanText(attribute.value());
    }
  }
  return {};
}

}  // namespace esg::tools
