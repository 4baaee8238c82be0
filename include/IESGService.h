#ifndef I_ESG_SERVICE_H
#define I_ESG_SERVICE_H

#include <map>
#include <string>

#include "ESGExport.h"
#include "ESGTypes.h"
#include "FCESGProgramInfo.h"

/// The bus name of the guide service: what queries call, and what a service starts with.
inline constexpr char kESGServiceName[] = "com.velmora.ESGCallListener";

/// Queries of the broadcast guide. Get the one instance from ESGAPI::GetESGServiceAPI().
///
/// **Blocking.** Every operation is one call on the system bus and blocks the calling thread until
/// the service has answered: well under a millisecond for a small answer on an idle device, and up
/// to 25 seconds (the bus library's default time limit) if the service does not respond. A service
/// that is not running is reported at once. The very first operation of a process also connects to
/// the bus and waits for it, at most about a minute, in attempts one second apart; if there is
/// still no bus, the process ends. Do not call from the thread that draws the user interface;
/// ESGAsync has the same operations without blocking.
///
/// **Threads.** Any thread may call, several at the same time; they do not wait for each other.
///
/// **Results.** true on success, and only then are the output arguments written. false means that
/// the bus or the service failed, or that the service found nothing; ESGLastFailure(), called on
/// the same thread, says which.
///
/// **Exceptions.** An answer whose members have the wrong type raises the exception of the JSON
/// library (Json::LogicError or Json::RuntimeError, both std::exception), and an output may then be
/// partly filled. So does one that is nested too deep. ESGLastFailure() then gives Unreadable. The
/// next call is not affected.
///
/// **Units.** Times are what the service sends. The broadcast carries NTP seconds (Unix time plus
/// 2208988800, in 32 bits); durations are seconds.
///
/// The order of the operations is part of the binary interface.
class ESG_API IESGService {
 public:
  virtual ~IESGService();

  /// The programme on air now on the service `globalServiceId`.
  virtual bool GetPresentProgram(const std::string& globalServiceId, FCESGProgramInfo& program) = 0;

  /// The programmes of a service that touch the time range of `duration` seconds from `startTime`.
  /// They are added to `programs`, which is not cleared first; an entry with the same key is
  /// replaced.
  virtual bool GetProgramList(const std::string& globalServiceId, unsigned int startTime,
                              unsigned int duration,
                              std::map<unsigned int, FCESGProgramInfo>& programs) = 0;

  /// The neighbour of `program` on its service (see eRelative_Position). `program` and `result` may
  /// be the same object.
  virtual bool GetProgram(const FCESGProgramInfo& program, eRelative_Position position,
                          FCESGProgramInfo& result) = 0;

  /// The programme that shows the content `contentId` on a service at `startTime`.
  virtual bool GetProgramItem(const std::string& globalServiceId, const std::string& contentId,
                              unsigned int startTime, FCESGProgramInfo& program) = 0;

  /// The XML text of the schedule fragment of a service for a time range, exactly as the service
  /// sends it. `globalServiceId` is only read; `bb` is passed through to the service.
  virtual bool GetScheduleFragment(std::string& xmlFragment, std::string& globalServiceId,
                                   unsigned int startTime, unsigned int duration, bool bb) = 0;

  /// The XML text of the service fragment of a service.
  virtual bool GetServiceFragment(std::string& xmlFragment, std::string& globalServiceId,
                                  bool bb) = 0;

  /// The XML text of the content fragment that a service shows in a time range.
  virtual bool GetContentFragment(std::string& xmlFragment, std::string& globalServiceId,
                                  unsigned int startTime, unsigned int duration, bool bb) = 0;

  /// Asks the service to save the content fragment of a service at `path`. The service, not this
  /// process, opens the path, and it may refuse.
  virtual bool SaveContentFragment(const std::string& path, const std::string& globalServiceId,
                                   bool bb) = 0;

  /// Asks the service to save the schedule fragment of a service at `path`.
  virtual bool SaveScheduleFragment(const std::string& path, const std::string& globalServiceId,
                                    bool bb) = 0;

  /// Asks the service to save the service fragment of a service at `path`.
  virtual bool SaveServiceFragment(const std::string& path, const std::string& globalServiceId,
                                   bool bb) = 0;
};

#endif
