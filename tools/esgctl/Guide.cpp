#include "Guide.h"

#include <ESGAPI.h>
#include <ESGFailure.h>
#include <IESGService.h>
#include <json/value.h>

#include <algorithm>

namespace esgctl {
namespace {

/// What a failed question was, given that bus and service are there.
Failure Diagnosis(const ESGFailure& failure) {
  const std::string detail =
      failure.errorName.empty() ? ""
                                : "\nThe bus says: " + failure.errorName + ": " + failure.errorText;
  switch (failure.reason) {
    case ESGFailureReason::NoBus:
    case ESGFailureReason::NoService:
    case ESGFailureReason::NoAnswer:
      return {kAway, "The guide service does not respond. Is it stuck?" + detail};
    case ESGFailureReason::AccessDenied:
      return {kOther, "The system bus does not let this user ask the guide service." + detail};
    case ESGFailureReason::Unreadable:
      return {kUnreadable,
              "The answer of the guide service cannot be read. Is it the right service?" + detail};
    default:
      return {kOther, ESGFailureText(failure.reason) + detail};
  }
}

/// A programme of this service as a reference to send back. Services may leave their own id out of
/// an answer, and the record's is settable by its JSON form only.
FCESGProgramInfo Reference(const FCESGProgramInfo& program, const std::string& service) {
  Json::Value value;
  FCESGProgramInfo::ToJson(program, value);
  value["globalServiceId"] = service;
  FCESGProgramInfo reference;
  FCESGProgramInfo::FromJson(value, reference);
  return reference;
}

}  // namespace

Guide::Guide(const Clock& clock, Progress& progress) : m_clock(clock), m_progress(progress) {
  m_bus.RequireService();
}

bool Guide::Ask(const std::function<bool(IESGService&)>& question) {
  if (question(*ESGAPI::GetESGServiceAPI())) {
    return true;
  }
  const ESGFailure failure = ESGLastFailure();
  if (failure.reason == ESGFailureReason::NotFound) {
    return false;
  }
  if (const auto away = m_bus.WhatIsAway()) {
    throw Failure(*away);
  }
  throw Diagnosis(failure);
}

std::optional<FCESGProgramInfo> Guide::Present(const std::string& service) {
  FCESGProgramInfo program;
  const bool found = Ask([&](IESGService& api) { return api.GetPresentProgram(service, program); });
  return found ? std::make_optional(program) : std::nullopt;
}

std::optional<FCESGProgramInfo> Guide::Item(const std::string& service,
                                            const std::string& contentId, Seconds start) {
  FCESGProgramInfo program;
  const unsigned int time = m_clock.ToRecord(start);
  const bool found =
      Ask([&](IESGService& api) { return api.GetProgramItem(service, contentId, time, program); });
  return found ? std::make_optional(program) : std::nullopt;
}

std::optional<FCESGProgramInfo> Guide::Neighbour(const std::string& service,
                                                 std::optional<Seconds> time,
                                                 eRelative_Position position) {
  std::optional<FCESGProgramInfo> there;
  if (time) {
    const std::vector<FCESGProgramInfo> programs = List(service, {*time, *time + 1});
    there = programs.empty() ? std::nullopt : std::make_optional(programs.back());
  } else {
    there = Present(service);
  }
  if (!there) {
    there.emplace().SetStartTime(m_clock.ToRecord(time.value_or(m_clock.Now())));
  }
  const FCESGProgramInfo reference = Reference(*there, service);
  FCESGProgramInfo program;
  const bool found =
      Ask([&](IESGService& api) { return api.GetProgram(reference, position, program); });
  return found ? std::make_optional(program) : std::nullopt;
}

std::vector<FCESGProgramInfo> Guide::List(const std::string& service, const TimeRange& range) {
  // A programme that touches two pieces comes twice, under one key.
  ESGProgramMap byKey;
  const std::vector<Piece> pieces = Pieces(m_clock, range);
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    m_progress.Report("Reading the guide of " + service, i, pieces.size());
    Ask([&](IESGService& api) {
      return api.GetProgramList(service, pieces[i].start, pieces[i].duration, byKey);
    });
  }
  std::vector<FCESGProgramInfo> programs;
  for (auto& entry : byKey) {
    programs.push_back(std::move(entry.second));
  }
  std::stable_sort(programs.begin(), programs.end(), [this](const auto& a, const auto& b) {
    return m_clock.FromRecord(a.GetStartTime()) < m_clock.FromRecord(b.GetStartTime());
  });
  return programs;
}

}  // namespace esgctl
