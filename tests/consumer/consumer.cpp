#include <ESGAPI.h>
#include <IESGService.h>
#include <IPCS/ECNativeConnection.h>
#include <json/json.h>

int main() {
  FCESGProgramInfo program;
  const bool found = ESGAPI::GetESGServiceAPI()->GetPresentProgram("urn:example:one", program);
  Json::Value json;
  FCESGProgramInfo::ToJson(program, json);
  return found && json["title"] == "News" ? 0 : 1;
}
