// JSON text to every record, by both readers, and back.

#include <dbus/dbus.h>

#include <type_traits>
#include <typeinfo>

#include "ATSC3ESGExtension.h"
#include "ESGMarshal.h"
#include "Fuzz.h"
#include "JsonText.h"
#include "RecordMembers.h"

namespace json = esg::json;

namespace {

using Json::Value;

/// The map in the manner of a record; it has no reader of constant values.
struct Programs : ESGProgramMap {
  static bool ToJson(Programs programs, Value& target) {
    return ESGMarshal::ESGProgramMapToJson(programs, target);
  }
  static bool FromJson(Value& source, Programs& programs) {
    return ESGMarshal::JsonToESGProgramMap(source, programs);
  }
};

template <class Record>
fuzz::Goal withContent{typeid(Record).name()};
fuzz::Goal tooDeep{"more levels than the JSON library takes"};

/// What is raised; empty when nothing is.
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

/// Through text where it can be: the JSON library does not keep what is not UTF-8.
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
void Run(const Value& value) {
  Record record;
  Value source = value;
  const std::string raised = Raised([&] { assert(Record::FromJson(source, record)); });
  if constexpr (!std::is_same_v<Record, Programs>) {
    Record other;
    assert(Raised([&] { json::Read(value, other); }) == raised);
    assert(!raised.empty() || Written(other) == Written(record));
  }
  static const Value empty = [] {
    Value nothing;
    Record blank;
    Record::FromJson(nothing, blank);
    return Written(blank);
  }();
  if (raised.empty() && Written(record) != empty) {
    withContent<Record>.reached = true;
    Value carried = Carried(Written(record));
    Record again;
    assert(Record::FromJson(carried, again) && Written(again) == Written(record));
  }
}

template <class... Records>
void RunAll(const Value& value) {
  (Run<Records>(value), ...);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ATSC3ESGExtension;  // NOLINT(google-build-using-namespace)
  std::string text = fuzz::Input(data, size).Bytes();
  Value value;
  bool parsed = false;
  tooDeep.reached |= !Raised([&] { parsed = ESGMarshal::ParseToJson(text, value); }).empty();
  if (parsed) {
    RunAll<CESGIcon, CESGDescription, CESGPreview, CESGPrivateExt, Link, Icon, PreviewDescription,
           PreviewData, PrivateExt, FCESGProgramInfo, Programs>(value);
  }
  return 0;
}
