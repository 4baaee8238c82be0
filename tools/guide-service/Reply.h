#ifndef GUIDE_REPLY_H
#define GUIDE_REPLY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace esg::guide {

struct Program;

/// The bus disconnects a sender of more than 32 MiB in one message, header included.
inline constexpr std::size_t kMaxReply = (std::size_t{32} << 20) - (std::size_t{64} << 10);

/// Appends `name` as it stands and then the value, byte for byte what JsonCpp writes for it with
/// "emitUTF8".
void Put(std::string& out, std::string_view name, std::int64_t number);
void Put(std::string& out, std::string_view name, std::string_view text);

/// The texts of the replies, byte for byte what JsonCpp writes for them without indentation.
std::string ProgramReply(const std::string& service, const Program& program);
/// Raises std::length_error if the reply would be larger than kMaxReply.
std::string ListReply(const std::string& service, const std::vector<const Program*>& programs);
std::string FragmentReply(std::string_view bytes);

}  // namespace esg::guide

#endif
