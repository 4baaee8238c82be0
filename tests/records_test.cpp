#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "ATSC3ESGExtension.h"
#include "ESGMarshal.h"
#include "FCESGProgramInfo.h"

namespace {

using namespace ATSC3ESGExtension;

// The library is compared with a second implementation that follows the rules of the protocol by
// the letter: look-ups that add what is absent, copies of lists, one element after the other. It
// keeps a record as the JSON value that the record is written as.

enum Rule { kText, kInt, kByte, kAddedText, kAddedUInt, kNested, kReplaced, kList, kMap };

struct Member {
  const char* key;
  Rule rule;
  const char* record = "";
};

/// The members of each record in the order of conversion.
const std::map<std::string, std::vector<Member>> kRecords = {
    {"CESGIcon",
     {{"uri", kText}, {"mimeType", kText}, {"width", kInt}, {"height", kInt}, {"dataSize", kInt}}},
    {"CESGDescription", {{"text", kText}, {"lang", kText}}},
    {"CESGPreview",
     {{"usage", kText},
      {"icons", kList, "CESGIcon"},
      {"contents", kList, "CESGIcon"},
      {"descriptions", kList, "CESGDescription"}}},
    {"CESGPrivateExt", {{"contentIcons", kList, "CESGIcon"}, {"previews", kList, "CESGPreview"}}},
    {"Link", {{"uri", kText}, {"uriType", kByte}, {"description", kText}}},
    {"Icon", {{"uri", kText}, {"MIMEType", kText}, {"size", kText}, {"link", kNested, "Link"}}},
    {"PreviewDescription", {{"previewDesc", kText}, {"lang", kText}, {"link", kNested, "Link"}}},
    {"PreviewData",
     {{"preview_description", kNested, "PreviewDescription"}, {"icon", kNested, "Icon"}}},
    {"PrivateExt", {{"preview_data", kList, "PreviewData"}, {"content_icon", kList, "Icon"}}},
    {"FCESGProgramInfo",
     {{"Start", kAddedUInt},
      {"eventID", kAddedText},
      {"title", kAddedText},
      {"synopsis", kAddedText},
      {"genre", kAddedText},
      {"duration", kAddedUInt},
      {"privateExt", kReplaced, "CESGPrivateExt"},
      {"globalServiceId", kText}}},
    {"ESGProgramMap", {{"ESGProgramMap", kMap, "FCESGProgramInfo"}}},
};

Json::Value ReadScalar(Rule rule, Json::Value& source, const char* key) {
  switch (rule) {
    case kInt:
      return source.get(key, 0).asInt();
    case kByte:
      return source.get(key, 0).asInt() & 0xFF;
    case kAddedText:
      return source[key].asString();
    case kAddedUInt:
      return source[key].asUInt();
    default:
      return source.get(key, "").asString();
  }
}

/// Adds an element to a map, in the order of the keys, in the place of the one with the same key.
void Insert(const Json::Value& element, Json::Value& list) {
  std::map<Json::UInt, Json::Value> map = {{element["key"].asUInt(), element}};
  for (const Json::Value& old : std::exchange(list, Json::Value(Json::arrayValue))) {
    map.emplace(old["key"].asUInt(), old);
  }
  for (const auto& [key, program] : map) {
    list.append(program);
  }
}

void ReadByTheLetter(const std::string& name, Json::Value& source, Json::Value& record) {
  for (const auto& [key, rule, inner] : kRecords.at(name)) {
    if (rule == kNested) {
      ReadByTheLetter(inner, source[key], record[key]);
    } else if (rule == kReplaced) {
      Json::Value fresh;
      ReadByTheLetter(inner, source[key], fresh);
      record[key] = fresh;
    } else if (rule == kList || rule == kMap) {
      Json::Value list = source[key];
      // By index, which an object refuses. NOLINTNEXTLINE(modernize-loop-convert)
      for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        Json::Value fresh;
        if (rule == kMap) {
          fresh["key"] = list[i]["key"].asUInt();
        }
        ReadByTheLetter(inner, list[i], fresh);
        rule == kMap ? Insert(fresh, record[key]) : void(record[key].append(fresh));
      }
    } else {
      record[key] = ReadScalar(rule, source, key);
    }
  }
}

void WriteByTheLetter(const std::string& name, const Json::Value& record, Json::Value& target) {
  for (const auto& [key, rule, inner] : kRecords.at(name)) {
    if (rule == kNested || rule == kReplaced) {
      Json::Value value;
      WriteByTheLetter(inner, record[key], value);
      target[key] = value;
    } else if (rule == kList || rule == kMap) {
      for (const Json::Value& element : record[key]) {
        Json::Value value;
        WriteByTheLetter(inner, element, value);
        if (rule == kMap) {
          value["key"] = element["key"];
        }
        target[key].append(value);
      }
    } else {
      target[key] = record[key];
    }
  }
}

Json::Value Parse(std::string text) {
  Json::Value value;
  EXPECT_TRUE(ESGMarshal::ParseToJson(text, value)) << text;
  return value;
}

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

/// The exception that a conversion raises; empty without one.
std::string FailureOf(const std::function<void()>& conversion) {
  try {
    conversion();
    return {};
  } catch (const Json::Exception& exception) {
    return std::string(typeid(exception).name()) + ": " + exception.what();
  }
}

/// Reads the record from `json`, or writes it there.
template <class Record>
bool Apply(bool reads, Json::Value& json, Record& record) {
  if constexpr (std::is_same_v<Record, ESGProgramMap>) {
    return reads ? ESGMarshal::JsonToESGProgramMap(json, record)
                 : ESGMarshal::ESGProgramMapToJson(record, json);
  } else {
    return reads ? Record::FromJson(json, record) : Record::ToJson(record, json);
  }
}

struct Outcome {
  std::string failure;
  Json::Value json;    ///< What was read, with the traces of reading, or written to.
  Json::Value record;  ///< The record afterwards.
};

/// Reads `json` into a record that was first read from `initial`, or writes that record into
/// `json`.
template <class Record, class Conversion>
Outcome Convert(const Conversion& apply, bool reads, Json::Value initial, Json::Value json) {
  Record record;
  apply(true, initial, record);
  std::string failure = FailureOf([&] { EXPECT_TRUE(apply(reads, json, record)); });
  Json::Value written;
  apply(false, written, record);
  return {std::move(failure), std::move(json), std::move(written)};
}

const Json::Value& Garbage() {
  static const Json::Value& garbage = *new Json::Value(Parse(R"([
    null, true, false, 0, 1, -1, 255, 256, 300, 640.9, -0.5, 1e300, 2147483647, 2147483648,
    4294967295, 4294967296, -2147483648, -2147483649, 18446744073709551615, "", "100", "true",
    "caf\u00e9 \ud83d\udcfa \"\\\/\n\u0001\u0000.", [], [null], [1], [{}], {}, {"0":1}, {"uri":"x"},
    {"link":null}, [[[[[[[[[{"a":[]}]]]]]]]]]])"));
  return garbage;
}

class Generator {
 public:
  unsigned int Below(std::size_t limit) { return static_cast<unsigned int>(m_random() % limit); }

  Json::Value RecordOf(const std::string& name) {
    Json::Value record;
    for (const auto& [key, rule, inner] : kRecords.at(name)) {
      if (rule == kNested || rule == kReplaced) {
        record[key] = RecordOf(inner);
      } else if (rule == kList || rule == kMap) {
        for (unsigned int count = Below(4); count > 0; --count) {
          Json::Value element = RecordOf(inner);
          if (rule == kMap) {
            element["key"] = Below(4);
          }
          record[key].append(element);
        }
      } else {
        record[key] = ScalarOf(rule);
      }
    }
    return record;
  }

  /// Spoils one place: takes a member out, or puts something else there.
  void Damage(Json::Value& json) {
    if (json.empty() || (!json.isArray() && !json.isObject()) || Below(5) == 0) {
      json = Garbage()[Below(Garbage().size())];
      return;
    }
    const auto place = std::next(json.begin(), static_cast<int>(Below(json.size())));
    if (json.isObject() && Below(5) == 0) {
      json.removeMember(place.name());
    } else {
      Damage(*place);
    }
  }

 private:
  /// A value that the member can hold, mostly one that it is not written as.
  Json::Value ScalarOf(Rule rule) {
    const Json::ValueType type = rule == kText || rule == kAddedText ? Json::stringValue
                                 : rule == kAddedUInt                ? Json::uintValue
                                                                     : Json::intValue;
    Json::Value value;
    do {
      value = Garbage()[Below(Garbage().size())];
    } while (!value.isConvertibleTo(type));
    return value;
  }

  std::mt19937 m_random{20261122};
};

template <class Record>
void Compare(const std::string& name, bool reads) {
  SCOPED_TRACE(name);
  const auto byTheLetter = [&](bool reading, Json::Value& json, Json::Value& record) {
    reading ? ReadByTheLetter(name, json, record) : WriteByTheLetter(name, record, json);
    return true;
  };
  constexpr int kRounds = 500;
  Generator generator;
  int failures = 0;
  for (int round = 0; round < kRounds; ++round) {
    const Json::Value initial = generator.RecordOf(name);
    Json::Value json = generator.RecordOf(name);
    for (unsigned int damages = generator.Below(6); damages > 0; --damages) {
      generator.Damage(json);
    }
    const Outcome outcome = Convert<Record>(Apply<Record>, reads, initial, json);
    const Outcome expected = Convert<Json::Value>(byTheLetter, reads, initial, json);
    ASSERT_EQ(outcome.failure, expected.failure) << Compact(json);
    ASSERT_EQ(outcome.json, expected.json) << Compact(json);
    ASSERT_EQ(outcome.record, expected.record) << Compact(json) << " into " << Compact(initial);
    failures += outcome.failure.empty() ? 0 : 1;
  }
  EXPECT_GT(failures, kRounds / 50);
  EXPECT_LT(failures, kRounds * 9 / 10);
}

/// The same results, exceptions, partial results and traces in the JSON value.
TEST(RecordNoBus, ConvertsAnyJsonByTheLetter) {
  for (const bool reads : {true, false}) {
    Compare<CESGIcon>("CESGIcon", reads);
    Compare<CESGDescription>("CESGDescription", reads);
    Compare<CESGPreview>("CESGPreview", reads);
    Compare<CESGPrivateExt>("CESGPrivateExt", reads);
    Compare<Link>("Link", reads);
    Compare<Icon>("Icon", reads);
    Compare<PreviewDescription>("PreviewDescription", reads);
    Compare<PreviewData>("PreviewData", reads);
    Compare<PrivateExt>("PrivateExt", reads);
    Compare<FCESGProgramInfo>("FCESGProgramInfo", reads);
    Compare<ESGProgramMap>("ESGProgramMap", reads);
  }
}

TEST(MarshalNoBus, EachFieldIsWhereItsMemberSays) {
  const std::string icon = R"({"uri":"a","mimeType":"b","width":1,"height":2,"dataSize":3})";
  Json::Value source = Parse(
      R"({"Start":4,"duration":5,"eventID":"c","title":"d","synopsis":"e","genre":"f",
      "globalServiceId":"g","privateExt":{"contentIcons":[{},{}],"previews":[{"usage":"h","icons":[)" +
      icon + R"(],"contents":[{},{},{}],"descriptions":[{"text":"i","lang":"j"}]}]}})");
  FCESGProgramInfo program;
  ESGMarshal::JsonToESGProgramInfo(source, program);
  const CESGPreview& preview = program.PrivateExt().previews.at(0);
  const CESGIcon& first = preview.icons.at(0);
  EXPECT_EQ(first.uri + first.mimeType + program.GetEventID() + program.Title() +
                program.Synopsis() + program.Genre() + program.GlobalServiceID() + preview.usage +
                preview.descriptions.at(0).text + preview.descriptions.at(0).lang,
            "abcdefghij");
  EXPECT_EQ(std::tuple(first.width, first.height, first.dataSize), std::tuple(1, 2, 3));
  EXPECT_EQ(std::tuple(program.GetStartTime(), program.Duration()), std::tuple(4U, 5U));
  EXPECT_EQ(std::tuple(program.PrivateExt().contentIcons.size(), preview.contents.size()),
            std::tuple(2U, 3U));

  source = Parse(R"({"content_icon":[{},{}],"preview_data":[{"preview_description":
      {"previewDesc":"a","lang":"b"},"icon":{"uri":"c","MIMEType":"d","size":"e",
      "link":{"uri":"f","uriType":513,"description":"g"}}}]})");
  PrivateExt extension;
  PrivateExt::FromJson(source, extension);
  const PreviewData& data = extension.preview_data.at(0);
  EXPECT_EQ(data.preview_description.previewDesc + data.preview_description.lang + data.icon.uri +
                data.icon.MIMEType + data.icon.size + data.icon.link.uri +
                data.icon.link.description,
            "abcdefg");
  EXPECT_EQ(data.icon.link.uriType, 1);  // the low 8 bits
  EXPECT_EQ(extension.content_icon.size(), 2U);
}

/// One member: written under its name and nothing else touched; read by a look-up that adds
/// nothing.
template <class Field, class Writer, class Reader>
void CheckPair(const std::string& key, Field value, const std::string& json, Writer write,
               Reader read) {
  SCOPED_TRACE(key);
  Json::Value target = Parse(R"({"A":1,")" + key + R"(":[]})");
  const Json::Value spoilt = target;
  Field field{};
  EXPECT_NE(FailureOf([&] { read(target, field = value); }), "");
  EXPECT_EQ(field, value);
  EXPECT_EQ(target, spoilt);
  EXPECT_TRUE(write(value, target));
  EXPECT_EQ(Compact(target), R"({"A":1,")" + key + R"(":)" + json + "}");

  EXPECT_TRUE(read(target, field = {}));
  EXPECT_EQ(field, value);
  for (const char* absent : {"null", "{}"}) {
    Json::Value source = Parse(absent);
    EXPECT_TRUE(read(source, field = value));
    EXPECT_EQ(field, Field{});
    EXPECT_EQ(Compact(source), absent);
  }
}

TEST(MarshalNoBus, EachMemberHasItsNameAndType) {
  using namespace ESGMarshal;
  const std::string text("a\0\"b", 4);
  const char* quoted = R"("a\u0000\"b")";
  CheckPair("global_service_id", text, quoted, global_service_id_ToJson, JsonTo_global_service_id);
  CheckPair("path", text, quoted, PathToJson, JsonToPath);
  CheckPair("ContentId", text, quoted, ContentIdToJson, JsonToContentId);
  CheckPair("xmlFragment", text, quoted, XmlToJson, JsonToXml);
  CheckPair("start_time", ~0U, "4294967295", StartTimeToJson, JsonToStartTime);
  CheckPair("duration", 60U, "60", DurationToJson, JsonToDuration);
  CheckPair("eRelative_Position", eRelative_Position_Previous, "-1", eRelative_PositionToJson,
            JsonToeRelative_Position);
  CheckPair("BB", true, "true", BBToJson, JsonToBB);
}

}  // namespace
