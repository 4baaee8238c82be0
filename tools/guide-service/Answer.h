#ifndef GUIDE_ANSWER_H
#define GUIDE_ANSWER_H

#include <ATSC3ESGExtension.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace esg::guide {

struct Program;

/// What a Content says about its programmes.
struct ContentRecord {
  std::string title;
  std::string synopsis;
  std::string genre;
  ATSC3ESGExtension::CESGPrivateExt extension;
};

/// The same as text: the members of a programme's record that are the same in every answer, ready
/// to be copied.
struct RecordText {
  std::string_view Head() const { return std::string_view(bytes).substr(0, extension); }
  std::string_view Extension() const {
    return std::string_view(bytes).substr(extension, synopsis - extension);
  }
  std::string_view Synopsis() const { return std::string_view(bytes).substr(synopsis); }
  std::string_view Tail() const { return std::string_view(bytes).substr(extension); }

  std::string bytes;
  std::uint32_t extension = 0;  ///< where that member starts
  std::uint32_t synopsis = 0;
};

RecordText WriteRecord(std::string_view contentId, const ContentRecord& record);

/// The bus disconnects a sender of more than 32 MiB in one message, header included.
inline constexpr std::size_t kMaxAnswer = (std::size_t{32} << 20) - (std::size_t{64} << 10);

/// The texts of the answers, byte for byte what JsonCpp writes for them without indentation.
std::string ProgramAnswer(const std::string& service, const Program& program);
/// Raises std::length_error where it would be larger than kMaxAnswer.
std::string ListAnswer(const std::string& service, const std::vector<const Program*>& programs);
std::string FragmentAnswer(std::string_view bytes);

}  // namespace esg::guide

#endif
