#include "FCESGProgramInfo.h"

#include "RecordMembers.h"

namespace json = esg::json;

FCESGProgramInfo::~FCESGProgramInfo() = default;

void FCESGProgramInfo::SetStartTime(unsigned int startTime) { m_startTime = startTime; }
unsigned int FCESGProgramInfo::GetStartTime() const { return m_startTime; }

void FCESGProgramInfo::SetDuration(unsigned int duration) { m_duration = duration; }
unsigned int FCESGProgramInfo::Duration() const { return m_duration; }

// NOLINTNEXTLINE(performance-unnecessary-value-param): part of the interface
void FCESGProgramInfo::SetEventID(std::string eventId) { m_eventId = eventId; }
const std::string& FCESGProgramInfo::GetEventID() const { return m_eventId; }

void FCESGProgramInfo::SetTitle(const std::string& title) { m_title = title; }
const std::string& FCESGProgramInfo::Title() const { return m_title; }

void FCESGProgramInfo::SetSynopsis(const std::string& synopsis) { m_synopsis = synopsis; }
const std::string& FCESGProgramInfo::Synopsis() const { return m_synopsis; }

void FCESGProgramInfo::SetGenre(const std::string& genre) { m_genre = genre; }
const std::string& FCESGProgramInfo::Genre() const { return m_genre; }

const std::string& FCESGProgramInfo::GlobalServiceID() const { return m_globalServiceId; }

const ATSC3ESGExtension::CESGPrivateExt& FCESGProgramInfo::PrivateExt() const {
  return m_privateExt;
}

bool FCESGProgramInfo::ToJson(const FCESGProgramInfo& program, Json::Value& target) {
  json::Write(program, target);
  return true;
}

bool FCESGProgramInfo::FromJson(Json::Value& source, FCESGProgramInfo& program) {
  json::Read(source, program);
  return true;
}
