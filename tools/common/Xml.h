#ifndef ESG_TOOLS_XML_H
#define ESG_TOOLS_XML_H

#include <cstring>
#include <pugixml.hpp>
#include <string>
#include <string_view>

/// What both tools read of the guide's fragments, whose namespace prefixes differ.
namespace esg::tools {

/// A name without its prefix.
inline std::string_view LocalName(std::string_view name) { return name.substr(name.find(':') + 1); }

/// Whether `full` is `name`, with or without a prefix.
inline bool IsNamed(const char* full, std::string_view name) {
  const std::size_t size = std::strlen(full);
  return size >= name.size() &&
         std::memcmp(full + size - name.size(), name.data(), name.size()) == 0 &&
         (size == name.size() || full[size - name.size() - 1] == ':');
}

/// Visits the child elements of a name.
template <typename Visit>
void ForEach(const pugi::xml_node& parent, std::string_view name, Visit visit) {
  for (pugi::xml_node child = parent.first_child(); child; child = child.next_sibling()) {
    if (child.type() == pugi::node_element && IsNamed(child.name(), name)) {
      visit(child);
    }
  }
}

/// A text without the blanks around it, as valid UTF-8.
std::string CleanText(std::string_view text);

/// An attribute by its local name, clean; empty if there is none.
std::string Attribute(const pugi::xml_node& node, std::string_view name);

/// The text of an element: <Name text="Title"/> or <Name>Title</Name>.
std::string Text(const pugi::xml_node& node);

/// Texts come in several languages, the broadcaster's own first: the first child of a name that has
/// a text.
std::string FirstText(const pugi::xml_node& parent, std::string_view name);

}  // namespace esg::tools

#endif
