#include "ATSC3ESGExtension.h"

#include "RecordMembers.h"

namespace json = esg::json;

// NOLINTBEGIN(bugprone-macro-parentheses): the argument is a class
// The constructors leave numbers uninitialised.
#define ESG_DEFINE_RECORD(Record)                                  \
  Record::Record() = default;                                      \
  Record::~Record() = default;                                     \
  bool Record::ToJson(const Record& record, Json::Value& target) { \
    json::Write(record, target);                                   \
    return true;                                                   \
  }                                                                \
  bool Record::FromJson(Json::Value& source, Record& record) {     \
    json::Read(source, record);                                    \
    return true;                                                   \
  }
// NOLINTEND(bugprone-macro-parentheses)

namespace ATSC3ESGExtension {

ESG_DEFINE_RECORD(CESGIcon)
ESG_DEFINE_RECORD(CESGDescription)
ESG_DEFINE_RECORD(CESGPreview)
ESG_DEFINE_RECORD(CESGPrivateExt)
ESG_DEFINE_RECORD(Link)
ESG_DEFINE_RECORD(Icon)
ESG_DEFINE_RECORD(PreviewDescription)
ESG_DEFINE_RECORD(PreviewData)
ESG_DEFINE_RECORD(PrivateExt)

}  // namespace ATSC3ESGExtension
