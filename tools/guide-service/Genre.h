#ifndef GUIDE_GENRE_H
#define GUIDE_GENRE_H

#include <string>
#include <string_view>

namespace esg::guide {

/// The name of a term of the broadcast's genre scheme, such as "…/genre-cs/:120": the name of the
/// ATSC genre code where the last part is one, else that part itself.
std::string GenreName(std::string_view term);

}  // namespace esg::guide

#endif
