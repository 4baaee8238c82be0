// Reads the input as JSON into every record and every result of a query. All readers must agree,
// and records must survive the way to JSON and back.

#include <dbus/dbus.h>

#include <typeinfo>

#include "ATSC3ESGExtension.h"
#include "DirectReader.h"
#include "ESGMarshal.h"
#include "Fuzz.h"
#include "JsonText.h"
#include "RecordMembers.h"

namespace json = esg::json;
namespace direct = esg::direct;

namespace {

using Json::Value;

/// The other results in the form of a record. They have no reader of constant values.
struct Programs : ESGProgramMap {
  static bool ToJson(Programs programs, Value& target) {
    return ESGMarshal::ESGProgramMapToJson(programs, target);
  }
  static bool FromJson(Value& source, Programs& programs) {
    return ESGMarshal::JsonToESGProgramMap(source, programs);
  }
};
struct Xml : std::string {
  static bool ToJson(Xml xml, Value& target) { return ESGMarshal::XmlToJson(xml, target); }
  static bool FromJson(Value& source, Xml& xml) { return ESGMarshal::JsonToXml(source, xml); }
};
template <class Record>
constexpr bool kHasMembers = !std::is_same_v<Record, Programs> && !std::is_same_v<Record, Xml>;

template <class Record>
fuzz::Goal withContent{typeid(Record).name()};
template <class Result>
fuzz::Goal readDirectly{typeid(Result).name()};
fuzz::Goal readInPieces{"a list read in two pieces"};
fuzz::Goal declined{"declined directly, and read by the JSON library"};
fuzz::Goal tooDeep{"more levels than the JSON library accepts"};

/// The text of the exception that is raised; empty for none.
template <class Work>
std::string Raised(Work work) {
  try {
    work();
  } catch (const Json::Exception& exception) {
    return exception.what();
  }
  return {};
}

template <class Record>
Value Written(const Record& record) {
  Value target;
  assert(Record::ToJson(record, target));
  return target;
}

/// Converts to text and back if possible: the JSON library does not preserve invalid UTF-8.
Value Carried(const Value& value) {
  Json::StreamWriterBuilder plain;
  plain["emitUTF8"] = true;
  Value carried = value;
  if (dbus_validate_utf8(Json::writeString(plain, value).c_str(), nullptr) != FALSE) {
    std::string text = json::ToText(value);
    assert(ESGMarshal::ParseToJson(text, carried));
  }
  return carried;
}

template <class Record>
void CheckRecord(const Value& value) {
  Record record;
  Value source = value;
  const std::string raised = Raised([&] { assert(Record::FromJson(source, record)); });
  if constexpr (kHasMembers<Record>) {
    Record other;
    assert(Raised([&] { json::Read(value, other); }) == raised);
    assert(!raised.empty() || Written(other) == Written(record));
  }
  Value nothing;
  Record empty;
  Record::FromJson(nothing, empty);
  if (raised.empty() && Written(record) != Written(empty)) {
    withContent<Record>.reached = true;
    Value carried = Carried(Written(record));
    Record again;
    assert(Record::FromJson(carried, again) && Written(again) == Written(record));
  }
}

template <class... Records>
void CheckRecords(const Value& value) {
  (CheckRecord<Records>(value), ...);
}

/// Reads a reply as a blocking query of C++ does.
template <class Result>
bool ReadAnswer(Value answer, Result& result) {
  bool isRead = false;
  const std::string raised =
      Raised([&] { isRead = answer["ret"].asBool() && Result::FromJson(answer, result); });
  return raised.empty() && isRead;
}

/// The direct reader reads the same, or declines.
template <class Result, class Reader>
void CheckAnswer(const std::string& text, const Value& value, Reader readDirectly,
                 fuzz::Goal& goal) {
  Result result;
  Result expected;
  const bool isRead = readDirectly(text, result);
  const bool isReadable = ReadAnswer(value, expected);
  assert(!isRead || (isReadable && Written(result) == Written(expected)));
  goal.reached |= isRead;
  declined.reached |= isReadable && !isRead;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ATSC3ESGExtension;  // NOLINT(google-build-using-namespace)
  std::string text = fuzz::Input(data, size).Bytes();
  Value value;
  bool isParsed = false;
  tooDeep.reached |= !Raised([&] { isParsed = ESGMarshal::ParseToJson(text, value); }).empty();
  if (isParsed) {
    CheckRecords<CESGIcon, CESGDescription, CESGPreview, CESGPrivateExt, Link, Icon,
                 PreviewDescription, PreviewData, PrivateExt, FCESGProgramInfo, Programs, Xml>(
        value);
  }
  const auto read = [](const std::string& answer, auto& result) {
    return direct::Read(answer, result);
  };
  const auto readPieces = [](const std::string& answer, ESGProgramMap& programs) {
    return direct::ReadInPieces(answer, programs, answer.size() - answer.size() / 4);
  };
  CheckAnswer<FCESGProgramInfo>(text, value, read, readDirectly<FCESGProgramInfo>);
  CheckAnswer<Programs>(text, value, read, readDirectly<Programs>);
  CheckAnswer<Programs>(text, value, readPieces, readInPieces);
  CheckAnswer<Xml>(text, value, read, readDirectly<Xml>);
  return 0;
}
