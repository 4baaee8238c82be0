#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "ATSC3ESGExtension.h"
#include "ESGMarshal.h"
#include "FCESGProgramInfo.h"

// That records survive the way to JSON and back is what their fuzz target shows.

namespace {

using namespace ATSC3ESGExtension;

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

/// What the exception of a conversion says; empty without one.
std::string FailureOf(const std::function<void()>& conversion) {
  try {
    conversion();
    return {};
  } catch (const Json::Exception& exception) {
    return exception.what();
  }
}

struct Conversion {
  const char* initial;  ///< What the record was read from before.
  const char* source;
  const char* raised;     ///< A part of what the exception says; null: there is none.
  const char* record;     ///< The record afterwards,
  const char* left = "";  ///< and the source, where reading leaves traces in it.
};

template <class Record>
void Check(const std::vector<Conversion>& conversions) {
  for (const Conversion& each : conversions) {
    SCOPED_TRACE(each.source);
    Record record;
    Json::Value initial = Parse(each.initial);
    Json::Value source = Parse(each.source);
    Json::Value target;
    std::string raised;
    if constexpr (std::is_same_v<Record, ESGProgramMap>) {
      ESGMarshal::JsonToESGProgramMap(initial, record);
      raised = FailureOf([&] { ESGMarshal::JsonToESGProgramMap(source, record); });
      for (const auto& [key, program] : record) {
        target[std::to_string(key)] = program.Title();
      }
    } else {
      Record::FromJson(initial, record);
      raised = FailureOf([&] { Record::FromJson(source, record); });
      Record::ToJson(record, target);
    }
    EXPECT_EQ(raised.empty(), each.raised == nullptr) << raised;
    EXPECT_NE(raised.find(each.raised == nullptr ? "" : each.raised), std::string::npos) << raised;
    EXPECT_EQ(Compact(target), Compact(Parse(each.record)));
    const std::string left = each.left;
    EXPECT_EQ(Compact(source), Compact(Parse(left.empty() ? each.source : left)));
  }
}

/// Which members are reset, kept, added to, replaced, and left in the source.
TEST(Records, AreReadAsTheProtocolPrescribes) {
  const char* program = R"({"Start":1,"duration":2,"eventID":"e","title":"t","synopsis":"s",
      "genre":"g","globalServiceId":"i","privateExt":{"contentIcons":[{"uri":"u"}]}})";
  Check<FCESGProgramInfo>({
      {program, R"({"title":"n","Start":640.5,"duration":true})", nullptr,
       R"({"Start":640,"duration":1,"eventID":"","genre":"","globalServiceId":"","privateExt":null,
           "synopsis":"","title":"n"})",
       R"({"Start":640.5,"duration":true,"eventID":null,"genre":null,"privateExt":{"contentIcons":null,"previews":null},
           "synopsis":null,"title":"n"})"},
      {program, R"({"Start":9,"eventID":"n","title":[]})", "not convertible to string",
       R"({"Start":9,"duration":2,"eventID":"n","genre":"g","globalServiceId":"i","privateExt":
           {"contentIcons":[{"dataSize":0,"height":0,"mimeType":"","uri":"u","width":0}]},
           "synopsis":"s","title":"t"})"},
      {"{}", R"({"Start":-1})", "out of UInt range",
       R"({"Start":0,"duration":0,"eventID":"","genre":"","globalServiceId":"","privateExt":null,
           "synopsis":"","title":""})"},
      {"{}", "[]", "requires objectValue",
       R"({"Start":0,"duration":0,"eventID":"","genre":"","globalServiceId":"","privateExt":null,
           "synopsis":"","title":""})"},
  });
  Check<CESGPreview>({
      {R"({"usage":"u","descriptions":[{"text":"1"}]})",
       R"({"descriptions":[{"text":"2"},{"lang":"3"}]})", nullptr,
       R"({"usage":"","descriptions":[{"lang":"","text":"1"},{"lang":"","text":"2"},
           {"lang":"3","text":""}]})",
       R"({"contents":null,"descriptions":[{"text":"2"},{"lang":"3"}],"icons":null})"},
      {"{}", R"({"usage":"u","icons":null,"contents":{"uri":"x"}})", "requires arrayValue",
       R"({"usage":"u"})"},
  });
  Check<Link>({
      {R"({"uri":"u","uriType":7})", R"({"uriType":-1})", nullptr,
       R"({"description":"","uri":"","uriType":255})"},
      {"{}", R"({"uri":"u","uriType":4294967295})", "out of Int range",
       R"({"description":"","uri":"u","uriType":0})"},
  });
  Check<Icon>({{R"({"uri":"u","link":{"uri":"l"}})", R"({"link":{"uri":"m"}})", nullptr,
                R"({"MIMEType":"","link":{"description":"","uri":"m","uriType":0},"size":"",
                    "uri":""})"},
               {"{}", R"({"uri":"u"})", nullptr,
                R"({"MIMEType":"","link":{"description":"","uri":"","uriType":0},"size":"",
                    "uri":"u"})",
                R"({"link":null,"uri":"u"})"}});
  const char* two = R"({"ESGProgramMap":[{"key":1,"title":"a"},{"key":2,"title":"b"}]})";
  Check<ESGProgramMap>({
      {two, R"({"ESGProgramMap":[{"key":4,"title":"c"},{"key":-1},{"key":5}]})",
       "out of UInt range", R"({"1":"a","2":"b","4":"c"})"},
      {two, R"({"ESGProgramMap":{"key":1}})", "requires arrayValue", R"({"1":"a","2":"b"})"},
  });
  Json::Value source = Parse(R"({"ESGProgramMap":[{"key":1,"title":"c"},{"key":1,"title":"d"}]})");
  ESGProgramMap programs;
  programs[1].SetTitle("a");
  programs[2].SetTitle("b");
  ESGMarshal::JsonToESGProgramMap(source, programs);
  EXPECT_EQ(programs[1].Title() + programs[2].Title(), "db") << "the last one of a key stays";
}

TEST(Records, OfTheOtherFamilyHaveTheirFieldsWhereTheirMembersSay) {
  Json::Value source = Parse(R"({"content_icon":[{},{}],"preview_data":[{"preview_description":
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

/// An argument is read by a look-up that adds nothing; what cannot be read stays as it was.
template <class Field, class Reader>
void CheckArgument(const char* key, Field value, const char* json, Reader read) {
  Json::Value source = Parse(std::string("{\"") + key + "\":" + json + "}");
  Field field{};
  EXPECT_TRUE(read(source, field));
  EXPECT_EQ(field, value) << key;
  Json::Value empty(Json::objectValue);
  EXPECT_TRUE(read(empty, field));
  EXPECT_EQ(field, Field{}) << key;
  EXPECT_TRUE(empty.empty());
  source[key] = Json::Value(Json::arrayValue);
  field = value;
  EXPECT_NE(FailureOf([&] { read(source, field); }), "");
  EXPECT_EQ(field, value);
}

TEST(Records, ArgumentsAreReadByTheirNames) {
  using namespace ESGMarshal;
  const std::string text("a\0\"b", 4);
  const char* quoted = R"("a\u0000\"b")";
  CheckArgument("global_service_id", text, quoted, JsonTo_global_service_id);
  CheckArgument("path", text, quoted, JsonToPath);
  CheckArgument("ContentId", text, quoted, JsonToContentId);
  CheckArgument("xmlFragment", text, quoted, JsonToXml);
  CheckArgument("start_time", ~0U, "4294967295", JsonToStartTime);
  CheckArgument("duration", 60U, "60", JsonToDuration);
  CheckArgument("eRelative_Position", eRelative_Position_Previous, "-1", JsonToeRelative_Position);
  CheckArgument("BB", true, "true", JsonToBB);
}

}  // namespace
