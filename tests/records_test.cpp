#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

#include "ATSC3ESGExtension.h"
#include "ESGMarshal.h"
#include "FCESGProgramInfo.h"

// The fuzz target of records shows that they survive the way to JSON and back. Here are the names
// of their members, and what the protocol says about members that are absent or cannot be read.

namespace {

using namespace ATSC3ESGExtension;

Json::Value Parse(std::string text) {
  Json::Value value;
  EXPECT_TRUE(ESGMarshal::ParseToJson(text, value)) << text;
  return value;
}

/// Reads a record twice, from `first` and then from `second`. Expects the second reading to raise
/// an exception with that text, the record to become `record`, and `second` to become `left`. Null
/// is no exception, and no change.
template <class Record>
void Check(const char* first, const char* second, const char* raised, const char* record,
           const char* left = nullptr) {
  SCOPED_TRACE(second);
  Record read;
  Json::Value source = Parse(first);
  Record::FromJson(source, read);
  source = Parse(second);
  try {
    Record::FromJson(source, read);
    EXPECT_EQ(raised, nullptr);
  } catch (const Json::Exception& exception) {
    EXPECT_NE(std::string(exception.what()).find(raised != nullptr ? raised : "no exception"),
              std::string::npos)
        << exception.what();
  }
  Json::Value written;
  Record::ToJson(read, written);
  EXPECT_EQ(written.toStyledString(), Parse(record).toStyledString());
  EXPECT_EQ(source.toStyledString(), Parse(left != nullptr ? left : second).toStyledString());
}

constexpr char kNothing[] = R"({"Start":0,"duration":0,"eventID":"","genre":"","globalServiceId":"",
    "privateExt":null,"synopsis":"","title":""})";

TEST(Records, AreReadAsTheProtocolPrescribes) {
  const char* full = R"({"Start":1,"duration":2,"eventID":"e","title":"t","synopsis":"s",
      "genre":"g","globalServiceId":"i","privateExt":{"contentIcons":[{"uri":"u"}]}})";
  // What is absent is reset, and some of it is added to the source.
  Check<FCESGProgramInfo>(full, R"({"title":"n","Start":640.5,"duration":true})", nullptr,
                          R"({"Start":640,"duration":1,"eventID":"","genre":"",
                              "globalServiceId":"","privateExt":null,"synopsis":"","title":"n"})",
                          R"({"Start":640.5,"duration":true,"eventID":null,"genre":null,
                              "privateExt":{"contentIcons":null,"previews":null},
                              "synopsis":null,"title":"n"})");
  // An exception keeps what was read before it, and the rest as it was.
  Check<FCESGProgramInfo>(full, R"({"Start":9,"eventID":"n","title":[]})", "convertible to string",
                          R"({"Start":9,"duration":2,"eventID":"n","genre":"g",
                              "globalServiceId":"i","privateExt":{"contentIcons":[{"dataSize":0,
                              "height":0,"mimeType":"","uri":"u","width":0}]},"synopsis":"s",
                              "title":"t"})");
  Check<FCESGProgramInfo>("{}", R"({"Start":-1})", "out of UInt range", kNothing);
  Check<FCESGProgramInfo>("{}", "[]", "requires objectValue", kNothing);
  // Lists are added to.
  Check<CESGPreview>(R"({"usage":"u","descriptions":[{"text":"1"}]})",
                     R"({"descriptions":[{"text":"2"},{"lang":"3"}]})", nullptr,
                     R"({"usage":"","descriptions":[{"lang":"","text":"1"},
                         {"lang":"","text":"2"},{"lang":"3","text":""}]})",
                     R"({"contents":null,"descriptions":[{"text":"2"},{"lang":"3"}],
                         "icons":null})");
  Check<CESGPreview>("{}", R"({"usage":"u","icons":null,"contents":{"uri":"x"}})",
                     "requires arrayValue", R"({"usage":"u"})");
  // A type of 8 bits keeps the low ones. A nested record is read in place.
  Check<PrivateExt>("{}", R"({"content_icon":[{}],"preview_data":[{"preview_description":
      {"previewDesc":"a","lang":"b","link":{"uri":"h"}},"icon":{"uri":"c","MIMEType":"d","size":"e",
      "link":{"uri":"f","uriType":513,"description":"g"}}}]})",
                    nullptr, R"({"content_icon":[{"MIMEType":"","link":{"description":"","uri":"",
      "uriType":0},"size":"","uri":""}],"preview_data":[{"preview_description":{"previewDesc":"a",
      "lang":"b","link":{"description":"","uri":"h","uriType":0}},"icon":{"uri":"c","MIMEType":"d",
      "size":"e","link":{"uri":"f","uriType":1,"description":"g"}}}]})");
  Check<Icon>(R"({"uri":"u","link":{"uri":"l","uriType":7}})", R"({"uri":"v"})", nullptr,
              R"({"MIMEType":"","link":{"description":"","uri":"","uriType":0},"size":"",
                  "uri":"v"})",
              R"({"link":null,"uri":"v"})");
}

}  // namespace
