#ifndef ESG_MARSHAL_H
#define ESG_MARSHAL_H

#include <json/forwards.h>

#include <map>
#include <string>

#include "ESGExport.h"
#include "ESGTypes.h"
#include "FCESGProgramInfo.h"

/// Functions that write each argument and result of the protocol to a JSON object and read it back,
/// always under the same member name. A guide service needs them; applications seldom do.
///
/// A writer (…ToJson) sets its member on `target`, keeps the other members and turns a null value
/// into an object. A reader (JsonTo…) of a single value never changes `source`. An absent or null
/// member reads as empty, 0 or false. All functions return true. A member that cannot be converted
/// raises the JSON library's exception and leaves a single value unchanged. A programme, which is
/// replaced field by field, and a map keep what was read before it.
///
/// Any thread may call. Two threads must not use the same value or map at once.
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
/// If a member raises an exception, the fields before it have been replaced.
ESG_API bool JsonToESGProgramInfo(Json::Value& source, FCESGProgramInfo& program);

/// "ESGProgramMap", an array of programmes, each with its key under "key". An empty map writes
/// nothing.
ESG_API bool ESGProgramMapToJson(std::map<unsigned int, FCESGProgramInfo>& programs,
                                 Json::Value& target);
/// Does not clear the map first. Of several elements with one key, the last one wins. Adds an
/// absent "ESGProgramMap" to `source` as null. If an element raises an exception, the elements
/// before it are in the map.
ESG_API bool JsonToESGProgramMap(Json::Value& source,
                                 std::map<unsigned int, FCESGProgramInfo>& programs);

/// Parses the whole of `text`; any JSON value may be the root. Returns false if it is not JSON; do
/// not use `result` then. Nesting beyond 1,000 levels raises Json::RuntimeError, which a service
/// that parses calls must catch.
ESG_API bool ParseToJson(std::string& text, Json::Value& result);

}  // namespace ESGMarshal

#endif
