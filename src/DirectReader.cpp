#include "DirectReader.h"

#ifdef ESG_DIRECT_READER

#include <simdjson.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

#include "RecordMembers.h"

namespace esg::direct {
namespace {

namespace ondemand = simdjson::ondemand;

/// Long text is read in pieces of this size, if possible, so that a piece stays in the processor's
/// cache.
constexpr std::size_t kPieceSize = 64 * 1024;

/// The brackets that are put around a piece of a list.
constexpr std::size_t kBrackets = 2;

constexpr char kSpaces[] = " \t\n\r";

/// One programme of a list.
struct Element {
  FCESGProgramInfo& program;
  unsigned int key = 0;
};

template <class Result>
struct Reply {
  bool isSuccess = false;
  Result& result;
};

template <class Record>
bool ReadObject(ondemand::value& value, Record& record);

/// Clears the uninitialised numbers of a new record.
class Clearer {
 public:
  template <class Field>
  void Scalar(const char* /*name*/, Field& field) {
    if constexpr (std::is_arithmetic_v<Field>) {
      field = 0;
    }
  }
  template <class Record>
  void List(const char* /*name*/, std::vector<Record>& /*records*/) {}
};

template <class Number, class Wide>
bool Narrow(simdjson::simdjson_result<Wide>&& read, Number& field) {
  Wide wide = 0;
  if (std::move(read).get(wide) != simdjson::SUCCESS || wide > std::numeric_limits<Number>::max() ||
      wide < std::numeric_limits<Number>::min()) {
    return false;
  }
  field = static_cast<Number>(wide);
  return true;
}

bool ReadValue(ondemand::value& value, bool& field) {
  return value.get_bool().get(field) == simdjson::SUCCESS;
}
bool ReadValue(ondemand::value& value, std::uint32_t& field) {
  return Narrow(value.get_uint64(), field);
}
bool ReadValue(ondemand::value& value, std::int32_t& field) {
  return Narrow(value.get_int64(), field);
}
bool ReadValue(ondemand::value& value, std::string& field) {
  const std::string_view token = value.raw_json_token();
  if (token.empty() || token.front() != '"') {
    return false;
  }
  const std::string_view text = token.substr(1, token.rfind('"') - 1);
  if (std::memchr(text.data(), '\\', text.size()) == nullptr) {
    field.assign(text);
    ondemand::raw_json_string passed;
    return value.get_raw_json_string().get(passed) == simdjson::SUCCESS;
  }
  std::string_view unescaped;
  if (value.get_string().get(unescaped) != simdjson::SUCCESS) {
    return false;
  }
  field.assign(unescaped);
  return true;
}

/// Sets `isNull` if the value is null, which is how writers write an empty record.
bool ReadNull(ondemand::value& value, bool& isNull) {
  ondemand::json_type type{};
  if (value.type().get(type) != simdjson::SUCCESS) {
    return false;
  }
  isNull = type == ondemand::json_type::null;
  bool isSpelt = false;
  return !isNull || (value.is_null().get(isSpelt) == simdjson::SUCCESS && isSpelt);
}

template <class Record>
bool ReadElements(ondemand::array& array, std::vector<Record>& records) {
  for (auto element : array) {
    ondemand::value each;
    Record& record = records.emplace_back();
    Clearer clearer;
    json::Members<Record>::Each(clearer, record);
    if (element.get(each) != simdjson::SUCCESS || !ReadObject(each, record)) {
      return false;
    }
  }
  return true;
}

bool ReadElements(ondemand::array& array, ESGProgramMap& programs) {
  ESGProgramMap fresh;  // holds a programme until its key is known
  for (auto element : array) {
    ondemand::value each;
    const auto place = fresh.try_emplace(0).first;
    Element read{place->second};
    if (element.get(each) != simdjson::SUCCESS || !ReadObject(each, read)) {
      return false;
    }
    auto node = fresh.extract(place);
    node.key() = read.key;
    const auto found = programs.insert(programs.end(), std::move(node));
    // NOLINTNEXTLINE(bugprone-use-after-move): it keeps what is not inserted
    if (!node.empty()) {
      found->second = std::move(node.mapped());
    }
  }
  return true;
}

template <class Records>
bool ReadList(ondemand::value& value, Records& records) {
  ondemand::array array;
  return value.get_array().get(array) == simdjson::SUCCESS && ReadElements(array, records);
}

/// Finds the member of a record that matches one member of an object, and reads it.
class MemberReader {
 public:
  /// `seen` has one bit for each member of the record.
  MemberReader(ondemand::raw_json_string name, ondemand::value& value, unsigned int& seen)
      : m_name(name.raw()), m_value(value), m_seen(seen) {}

  /// Whether the record has the member, it is not a duplicate, and it could be read.
  bool IsRead() const { return m_isRead; }

  template <std::size_t kSize, class Field>
  void Scalar(const char (&name)[kSize], Field& field) {
    if (IsThis(name)) {
      m_isRead = ReadValue(m_value, field);
    }
  }
  template <std::size_t kSize, class Field>
  void AddedScalar(const char (&name)[kSize], Field& field) {
    Scalar(name, field);
  }
  template <std::size_t kSize, class Record>
  void Replaced(const char (&name)[kSize], Record& record) {
    if (IsThis(name)) {
      bool isNull = false;
      m_isRead = ReadNull(m_value, isNull) && (isNull || ReadObject(m_value, record));
    }
  }
  template <std::size_t kSize, class Records>
  void List(const char (&name)[kSize], Records& records) {
    if (IsThis(name)) {
      m_isRead = ReadList(m_value, records);
    }
  }

 private:
  /// A name with escapes does not match.
  template <std::size_t kSize>
  bool IsThis(const char (&name)[kSize]) {
    const unsigned int bit = m_bit;
    m_bit <<= 1U;
    if (m_name[kSize - 1] != '"' || std::memcmp(m_name, name, kSize - 1) != 0 ||
        (m_seen & bit) != 0) {
      return false;
    }
    m_seen |= bit;
    return true;
  }

  const char* m_name;
  ondemand::value& m_value;
  unsigned int& m_seen;
  unsigned int m_bit = 1;
  bool m_isRead = false;
};

}  // namespace
}  // namespace esg::direct

namespace esg::json {

template <>
struct Members<direct::Element> {
  template <class Converter>
  static void Each(Converter& json, direct::Element& element) {
    json.Scalar("key", element.key);
    Members<FCESGProgramInfo>::Each(json, element.program);
  }
};

template <>
struct Members<direct::Reply<FCESGProgramInfo>> {
  template <class Converter>
  static void Each(Converter& json, direct::Reply<FCESGProgramInfo>& reply) {
    json.Scalar("ret", reply.isSuccess);
    Members<FCESGProgramInfo>::Each(json, reply.result);
  }
};

template <>
struct Members<direct::Reply<ESGProgramMap>> {
  template <class Converter>
  static void Each(Converter& json, direct::Reply<ESGProgramMap>& reply) {
    json.Scalar("ret", reply.isSuccess);
    json.List("ESGProgramMap", reply.result);
  }
};

template <>
struct Members<direct::Reply<std::string>> {
  template <class Converter>
  static void Each(Converter& json, direct::Reply<std::string>& reply) {
    json.Scalar("ret", reply.isSuccess);
    json.Scalar("xmlFragment", reply.result);
  }
};

}  // namespace esg::json

namespace esg::direct {
namespace {

template <class Record>
bool ReadMembers(ondemand::object& object, Record& record) {
  unsigned int seen = 0;
  for (auto member : object) {
    ondemand::field field;
    if (std::move(member).get(field) != simdjson::SUCCESS) {
      return false;
    }
    MemberReader reader(field.key(), field.value(), seen);
    json::Members<Record>::Each(reader, record);
    if (!reader.IsRead()) {
      return false;
    }
  }
  return true;
}

template <class Record>
bool ReadObject(ondemand::value& value, Record& record) {
  ondemand::object object;
  return value.get_object().get(object) == simdjson::SUCCESS && ReadMembers(object, record);
}

/// What all replies share, one at a time. Never destroyed, because replies may arrive after
/// simdjson's static objects are destroyed.
struct Workspace {
  std::mutex mutex;
  ondemand::parser parser;
  char text[kPieceSize + simdjson::SIMDJSON_PADDING];
};

Workspace& SharedWorkspace() {
  static auto& workspace = *new Workspace;
  return workspace;
}

/// `read` gets the document and must read all of it. The parser reads beyond the end of the text,
/// but ignores what it finds there.
template <class Reader>
bool ReadText(simdjson::padded_string_view text, Reader read) {
  ondemand::document document;
  return SharedWorkspace().parser.iterate(text).get(document) == simdjson::SUCCESS &&
         read(document) && document.current_location().error() == simdjson::OUT_OF_BOUNDS;
}

/// Parts of a text, together no longer than a piece.
template <class Reader>
bool ReadParts(std::initializer_list<std::string_view> parts, Reader read) {
  char* end = SharedWorkspace().text;
  for (const std::string_view part : parts) {
    end = std::copy(part.begin(), part.end(), end);
  }
  const auto size = static_cast<std::size_t>(end - SharedWorkspace().text);
  return ReadText(
      simdjson::padded_string_view(SharedWorkspace().text, size, sizeof(Workspace::text)), read);
}

template <class Result>
auto ReplyReader(Result& result) {
  return [&result](ondemand::document& document) {
    ondemand::object object;
    Reply<Result> reply{false, result};
    return document.get_object().get(object) == simdjson::SUCCESS && ReadMembers(object, reply) &&
           reply.isSuccess;
  };
}

/// Removes spaces and a token from the start of a text. Returns whether the token was there.
bool SkipToken(std::string_view token, std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(kSpaces), text.size()));
  const bool isThere = text.substr(0, token.size()) == token;
  text.remove_prefix(isThere ? token.size() : 0);
  return isThere;
}

/// Returns the first programmes of a list, without the comma after them, and removes both from the
/// list. Every programme must start with `mark`. Returns an empty text if there is no such piece.
std::string_view ExtractPiece(std::string_view mark, std::size_t size, std::string_view& list) {
  std::string_view piece = list.substr(0, size);
  std::size_t next = piece.size();
  if (next < list.size()) {
    next = piece.rfind(mark);
    next = next == std::string_view::npos ? 0 : next;
    piece = piece.substr(0, next);
    piece = piece.substr(0, piece.find_last_not_of(kSpaces) + 1);
    if (piece.empty() || piece.back() != ',') {
      return {};
    }
    piece.remove_suffix(1);
  }
  list.remove_prefix(next);
  return piece;
}

/// Reads a long reply without a copy of it: first the text around the list, as if the list were
/// empty, then pieces of the list as separate lists. A cut in the wrong place makes a piece
/// unreadable.
bool ReadListInPieces(std::string_view text, std::size_t size, ESGProgramMap& programs) {
  std::string_view list = text;
  const bool isList = SkipToken("{", list) && SkipToken("\"ESGProgramMap\"", list) &&
                      SkipToken(":", list) && SkipToken("[", list);
  const std::string_view head = text.substr(0, text.size() - list.size());
  list = list.substr(0, list.rfind(']'));
  const std::string_view tail = text.substr(head.size() + list.size());
  if (!isList || head.size() + tail.size() > size ||
      !ReadParts({head, tail}, ReplyReader(programs))) {
    return false;
  }
  std::string_view mark = list.substr(std::min(list.find('{'), list.size()));
  mark = mark.substr(0, mark.find('"', mark.find('"') + 1) + 1);  // up to its first member's name
  while (!list.empty()) {
    const std::string_view piece = ExtractPiece(mark, size - kBrackets, list);
    const bool isRead = piece.find_first_not_of(kSpaces) != std::string_view::npos &&
                        ReadParts({"[", piece, "]"}, [&programs](ondemand::document& document) {
                          ondemand::array array;
                          return document.get_array().get(array) == simdjson::SUCCESS &&
                                 ReadElements(array, programs);
                        });
    if (!isRead) {
      return false;
    }
  }
  return true;
}

template <class Result>
bool ReadReply(std::string_view text, Result& result) {
  if (text.empty() || text.front() != '{') {  // no leading spaces or byte order mark
    return false;
  }
  const std::lock_guard<std::mutex> lock(SharedWorkspace().mutex);
  if (text.size() <= kPieceSize) {
    return ReadParts({text}, ReplyReader(result));
  }
  if constexpr (std::is_same_v<Result, ESGProgramMap>) {
    if (ReadListInPieces(text, kPieceSize, result)) {
      return true;
    }
    result.clear();
  }
  std::string padded;
  padded.reserve(text.size() + simdjson::SIMDJSON_PADDING);
  padded.assign(text);
  const bool isRead = ReadText(simdjson::padded_string_view(padded), ReplyReader(result));
  [[maybe_unused]] const simdjson::error_code shrunk =
      SharedWorkspace().parser.allocate(kPieceSize);
  return isRead;
}

}  // namespace

bool Read(std::string_view text, FCESGProgramInfo& result) { return ReadReply(text, result); }
bool Read(std::string_view text, ESGProgramMap& result) { return ReadReply(text, result); }
bool Read(std::string_view text, std::string& xmlFragment) { return ReadReply(text, xmlFragment); }

bool ReadInPieces(std::string_view text, ESGProgramMap& result, std::size_t piece) {
  const std::lock_guard<std::mutex> lock(SharedWorkspace().mutex);
  return ReadListInPieces(text, std::clamp(piece, kBrackets, kPieceSize), result);
}

}  // namespace esg::direct

#else

bool esg::direct::Read(std::string_view /*text*/, FCESGProgramInfo& /*result*/) { return false; }
bool esg::direct::Read(std::string_view /*text*/, ESGProgramMap& /*result*/) { return false; }
bool esg::direct::Read(std::string_view /*text*/, std::string& /*xmlFragment*/) { return false; }
bool esg::direct::ReadInPieces(std::string_view /*text*/, ESGProgramMap& /*result*/,
                               std::size_t /*piece*/) {
  return false;
}

#endif
