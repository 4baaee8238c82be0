#ifndef ESG_MARSHAL_H
#define ESG_MARSHAL_H

#include <json/forwards.h>

#include <map>
#include <string>

#include "ESGExport.h"
#include "ESGTypes.h"
#include "FCESGProgramInfo.h"

/// How each argument and result of the protocol goes into a JSON object and comes out of it, always
/// under the same member name. Applications seldom need these; a guide service does.
///
/// A writer (…ToJson) sets its member on `target`, keeps the other members and turns a null value
/// into an object. A reader (JsonTo…) of a single value never changes `source`; an absent or null
/// member reads as empty, 0 or false. All of them return true; a member that cannot be converted
/// raises the JSON library's exception and leaves a single value as it was. A programme, which is
/// replaced field by field, and a map keep what was read before it.
///
/// Any thread may call; no two threads may use the same value or map at once.
namespace ESGMarshal {

/// "global_service_id", a string.
ESG_API bool global_service_id_ToJson(const std::string& globalServiceId, Json::Value& target);
ESG_API bool JsonTo_global_service_id(Json::Value& source, std::string& globalServiceId);

/// "path", a string.
ESG_API bool PathToJson(const std::string& path, Json::Value& target);
ESG_API bool JsonToPath(Json::Value& source, std::string& path);

/// "start_time", an unsigned integer in the service's clock.
ESG_API bool StartTimeToJson(unsigned int startTime, Json::Value& target);
ESG_API bool JsonToStartTime(Json::Value& source, unsigned int& startTime);

/// "duration", an unsigned integer, seconds.
ESG_API bool DurationToJson(unsigned int duration, Json::Value& target);
ESG_API bool JsonToDuration(Json::Value& source, unsigned int& duration);

/// "eRelative_Position", a signed integer.
ESG_API bool eRelative_PositionToJson(eRelative_Position position, Json::Value& target);
ESG_API bool JsonToeRelative_Position(Json::Value& source, eRelative_Position& position);

/// "ContentId", a string.
ESG_API bool ContentIdToJson(const std::string& contentId, Json::Value& target);
ESG_API bool JsonToContentId(Json::Value& source, std::string& contentId);

/// "xmlFragment", a string.
ESG_API bool XmlToJson(std::string& xmlFragment, Json::Value& target);
ESG_API bool JsonToXml(Json::Value& source, std::string& xmlFragment);

/// "BB", a boolean.
ESG_API bool BBToJson(bool bb, Json::Value& target);
ESG_API bool JsonToBB(Json::Value& source, bool& bb);

/// A programme's members, at the top level of the object: FCESGProgramInfo::ToJson.
ESG_API bool ESGProgramInfoToJson(const FCESGProgramInfo& program, Json::Value& target);
/// FCESGProgramInfo::FromJson: replaces field by field and adds absent members to `source` as null.
/// When a member raises an exception, the fields before it are already replaced.
ESG_API bool JsonToESGProgramInfo(Json::Value& source, FCESGProgramInfo& program);

/// "ESGProgramMap", an array of programmes, each with its key under "key". An empty map writes
/// nothing.
ESG_API bool ESGProgramMapToJson(std::map<unsigned int, FCESGProgramInfo>& programs,
                                 Json::Value& target);
/// The map is not cleared first; of several elements with one key the last wins. An absent
/// "ESGProgramMap" is added to `source` as null. When an element raises an exception, the elements
/// before it are in the map.
ESG_API bool JsonToESGProgramMap(Json::Value& source,
                                 std::map<unsigned int, FCESGProgramInfo>& programs);

/// Parses the whole of `text`; any JSON value may be the root. false when it is no JSON, and
/// `result` is then not to be used. Nesting beyond 1,000 levels raises Json::RuntimeError: a
/// service that parses requests has to catch it.
ESG_API bool ParseToJson(std::string& text, Json::Value& result);

}  // namespace ESGMarshal

#endif
