#ifndef SRC_JSON_MEMBERS_H
#define SRC_JSON_MEMBERS_H

#include <json/value.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/// Converts the members of a JSON object to fields and back, in the same way for all records.
///
/// A record lists its members in one function, in the order in which they are converted:
///
///     struct Members<CESGIcon> {
///       template <class Converter, class Record>
///       static void Each(Converter& json, Record& icon) { json.Scalar("uri", icon.uri); … }
///     };
///
/// JsonWriter and JsonReader walk that list. The reader has two forms. Over a mutable value,
/// looking up an absent list or nested record adds it as null. Over a constant value, it reads the
/// same fields and raises the same exceptions, but does not change the value and copies nothing.
/// The library uses the second form if nothing can see the value afterwards.
namespace esg::json {

template <class Record>
struct Members;

inline Json::Value ToValue(const std::string& field) { return Json::Value(field); }
inline Json::Value ToValue(std::int32_t field) {
  return Json::Value(static_cast<Json::Int>(field));
}
inline Json::Value ToValue(std::uint8_t field) {
  return Json::Value(static_cast<Json::Int>(field));
}
inline Json::Value ToValue(std::uint32_t field) {
  return Json::Value(static_cast<Json::UInt>(field));
}
inline Json::Value ToValue(bool field) { return Json::Value(field); }

/// Absent members read like null ones: as empty, 0 or false.
inline void FromValue(const Json::Value& value, std::string& field) { field = value.asString(); }
inline void FromValue(const Json::Value& value, std::int32_t& field) { field = value.asInt(); }
inline void FromValue(const Json::Value& value, std::uint32_t& field) { field = value.asUInt(); }
inline void FromValue(const Json::Value& value, bool& field) { field = value.asBool(); }
inline void FromValue(const Json::Value& value, std::uint8_t& field) {
  field = static_cast<std::uint8_t>(value.asInt());  // keeps the low 8 bits
}

/// Looks up a member and does not add an absent one.
inline const Json::Value& Find(const Json::Value& object, const char* key) {
  const Json::Value* found = object.find(key, key + std::strlen(key));
  return found != nullptr ? *found : Json::Value::nullSingleton();
}

/// Looks up a member. Adds an absent one as null if `object` is mutable.
inline Json::Value& Touch(Json::Value& object, const char* key) { return object[key]; }
inline const Json::Value& Touch(const Json::Value& object, const char* key) {
  if (!object.isNull() && !object.isObject()) {
    Json::Value copy(object);
    copy[key];  // raises the exception of a mutable look-up
  }
  return Find(object, key);
}

/// Looks up an element. A value that is not a list raises the exception of a mutable look-up.
inline const Json::Value& Element(const Json::Value& list, Json::ArrayIndex index) {
  if (!list.isArray()) {
    Json::Value copy(list);
    copy[index];
  }
  return list[index];
}

template <class Record>
void Write(const Record& record, Json::Value& target);
template <class Source, class Record>
void Read(Source& source, Record& record);

class JsonWriter {
 public:
  explicit JsonWriter(Json::Value& target) : m_target(target) {}

  template <class Field>
  void Scalar(const char* key, const Field& field) {
    m_target[key] = ToValue(field);
  }
  template <class Field>
  void AddedScalar(const char* key, const Field& field) {
    Scalar(key, field);
  }
  template <class Record>
  void Nested(const char* key, const Record& record) {
    Json::Value value;
    Write(record, value);
    m_target[key] = std::move(value);
  }
  template <class Record>
  void Replaced(const char* key, const Record& record) {
    Nested(key, record);
  }
  template <class Record>
  void List(const char* key, const std::vector<Record>& records) {
    for (const Record& record : records) {
      Json::Value value;
      Write(record, value);
      m_target[key].append(std::move(value));
    }
  }

 private:
  Json::Value& m_target;
};

/// `Source` is Json::Value or const Json::Value.
template <class Source>
class JsonReader {
 public:
  explicit JsonReader(Source& source) : m_source(source) {}

  /// Reads a member and does not add an absent one.
  template <class Field>
  void Scalar(const char* key, Field& field) {
    FromValue(Find(m_source, key), field);
  }
  /// Reads a member and adds an absent one.
  template <class Field>
  void AddedScalar(const char* key, Field& field) {
    FromValue(Touch(m_source, key), field);
  }
  /// Reads a record in place.
  template <class Record>
  void Nested(const char* key, Record& record) {
    Read(Touch(m_source, key), record);
  }
  /// Reads a record completely, then replaces the field.
  template <class Record>
  void Replaced(const char* key, Record& record) {
    Record fresh;
    Read(Touch(m_source, key), fresh);
    record = std::move(fresh);
  }
  /// Appends elements. Never changes the elements of the source.
  template <class Record>
  void List(const char* key, std::vector<Record>& records) {
    const Json::Value& list = Touch(m_source, key);
    const Json::ArrayIndex size = list.size();
    for (Json::ArrayIndex index = 0; index < size; ++index) {
      Record fresh;
      Read(Element(list, index), fresh);
      records.push_back(std::move(fresh));
    }
  }

 private:
  Source& m_source;
};

template <class Record>
void Write(const Record& record, Json::Value& target) {
  JsonWriter writer(target);
  Members<Record>::Each(writer, record);
}

template <class Source, class Record>
void Read(Source& source, Record& record) {
  JsonReader<Source> reader(source);
  Members<Record>::Each(reader, record);
}

}  // namespace esg::json

#endif
