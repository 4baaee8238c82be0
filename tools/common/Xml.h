#ifndef ESG_TOOLS_XML_H
#define ESG_TOOLS_XML_H

#include <pugixml.hpp>
#include <string>
#include <string_view>

/// What both tools read of the guide's fragments, whose namespace prefixes differ.
namespace esg::tools {

/// A name without its prefix.
std::string_view LocalName(std::string_view name);

/// A text without the blanks around it, as valid UTF-8.
std::string CleanText(std::string_view text);

/// An attribute by its local name, clean; empty if there is none.
std::string Attribute(const pugi::xml_node& node, std::string_view name);

}  // namespace esg::tools

#endif
