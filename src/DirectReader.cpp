#include "DirectReader.h"

#ifdef ESG_DIRECT_READER

#include <simdjson.h>

#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

#include "RecordMembers.h"

namespace direct {
namespace {

namespace ondemand = simdjson::ondemand;

static_assert(kPadding >= simdjson::SIMDJSON_PADDING);

/// What the parser keeps room for.
constexpr std::size_t kKept = 64 * 1024;

/// A programme of a list.
struct Element {
  unsigned int key = 0;
  FCESGProgramInfo program;
};

template <class Result>
struct Answer {
  bool isSuccess = false;
  Result& result;
};

template <class Record>
bool ReadObject(ondemand::value& value, Record& record);

/// The numbers of a fresh record that have no value yet.
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

/// What writers leave of a record with nothing in it. `isNull` when it is that.
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
bool ReadList(ondemand::value& value, std::vector<Record>& records) {
  ondemand::array array;
  if (value.get_array().get(array) != simdjson::SUCCESS) {
    return false;
  }
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

bool ReadList(ondemand::value& value, ESGProgramMap& programs) {
  ondemand::array array;
  if (value.get_array().get(array) != simdjson::SUCCESS) {
    return false;
  }
  for (auto element : array) {
    ondemand::value each;
    Element read;
    if (element.get(each) != simdjson::SUCCESS || !ReadObject(each, read)) {
      return false;
    }
    programs.insert_or_assign(programs.end(), read.key, std::move(read.program));
  }
  return true;
}

/// Walks the members of a record for one member of an object, and reads it where they meet.
class MemberReader {
 public:
  /// `seen` has a bit for each member of the record.
  MemberReader(ondemand::raw_json_string name, ondemand::value& value, unsigned int& seen)
      : m_name(name.raw()), m_value(value), m_seen(seen) {}

  /// Whether the record has the member, for the first time, and could read it.
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
  /// A name that is spelt with escapes is not known.
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
}  // namespace direct

namespace json {

template <>
struct Members<direct::Element> {
  template <class Converter>
  static void Each(Converter& json, direct::Element& element) {
    json.Scalar("key", element.key);
    Members<FCESGProgramInfo>::Each(json, element.program);
  }
};

template <>
struct Members<direct::Answer<FCESGProgramInfo>> {
  template <class Converter>
  static void Each(Converter& json, direct::Answer<FCESGProgramInfo>& answer) {
    json.Scalar("ret", answer.isSuccess);
    Members<FCESGProgramInfo>::Each(json, answer.result);
  }
};

template <>
struct Members<direct::Answer<ESGProgramMap>> {
  template <class Converter>
  static void Each(Converter& json, direct::Answer<ESGProgramMap>& answer) {
    json.Scalar("ret", answer.isSuccess);
    json.List("ESGProgramMap", answer.result);
  }
};

template <>
struct Members<direct::Answer<std::string>> {
  template <class Converter>
  static void Each(Converter& json, direct::Answer<std::string>& answer) {
    json.Scalar("ret", answer.isSuccess);
    json.Scalar("xmlFragment", answer.result);
  }
};

}  // namespace json

namespace direct {
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

template <class Result>
bool ReadAnswer(const char* text, std::size_t size, Result& result) {
  if (size == 0 || *text != '{') {  // neither spaces nor a byte order mark first
    return false;
  }
  // Never destroyed, and made once: simdjson's own static objects go before the last answers do.
  static auto& mutex = *new std::mutex;
  static auto& parser = *new ondemand::parser;
  const std::lock_guard<std::mutex> lock(mutex);
  ondemand::document document;
  ondemand::object object;
  Answer<Result> answer{false, result};
  const bool isRead =
      parser.iterate(simdjson::padded_string_view(text, size, size + kPadding)).get(document) ==
          simdjson::SUCCESS &&
      document.get_object().get(object) == simdjson::SUCCESS && ReadMembers(object, answer) &&
      document.current_location().error() == simdjson::OUT_OF_BOUNDS && answer.isSuccess;
  if (size > kKept) {
    [[maybe_unused]] const simdjson::error_code shrunk = parser.allocate(kKept);
  }
  return isRead;
}

}  // namespace

bool Read(const char* text, std::size_t size, FCESGProgramInfo& result) {
  return ReadAnswer(text, size, result);
}
bool Read(const char* text, std::size_t size, ESGProgramMap& result) {
  return ReadAnswer(text, size, result);
}
bool Read(const char* text, std::size_t size, std::string& xmlFragment) {
  return ReadAnswer(text, size, xmlFragment);
}

}  // namespace direct

#else

bool direct::Read(const char* /*text*/, std::size_t /*size*/, FCESGProgramInfo& /*result*/) {
  return false;
}
bool direct::Read(const char* /*text*/, std::size_t /*size*/, ESGProgramMap& /*result*/) {
  return false;
}
bool direct::Read(const char* /*text*/, std::size_t /*size*/, std::string& /*xmlFragment*/) {
  return false;
}

#endif
