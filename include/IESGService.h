#ifndef I_ESG_SERVICE_H
#define I_ESG_SERVICE_H

#include <map>
#include <string>

#include "ESGExport.h"
#include "ESGTypes.h"
#include "FCESGProgramInfo.h"

/// The bus name of the guide service: queries call it, and a service passes it to
/// ECNativeConnection::Start().
inline constexpr char kESGServiceName[] = "com.velmora.ESGCallListener";

/// Queries of the broadcast guide. Get the one instance from ESGAPI::GetESGServiceAPI().
///
/// **Blocking.** Every operation is one call on the system bus and blocks the calling thread until
/// the service replies: well under a millisecond for a small reply on an idle device, and up to 25
/// seconds (libdbus's default timeout) if the service does not respond. If the service is not
/// running, the call fails at once. The first operation of a process also connects to the bus. It
/// waits for the bus for about a minute at most, in attempts one second apart; if there is still no
/// bus, the process ends. Do not call from the user-interface thread: ESGAsync has the same
/// operations without blocking.
///
/// **Threads.** Any number of threads may call at the same time; they do not wait for each other.
///
/// **Results.** An operation returns true on success, and only then writes its outputs. false means
/// that the bus or the service failed, or that the service found nothing; ESGLastFailure(), called
/// on the same thread, tells which.
///
/// **Exceptions.** A reply with a member of the wrong type, or one that is nested too deeply,
/// raises the exception of the JSON library (Json::LogicError or Json::RuntimeError, both
/// std::exception). An output may then be partly filled, and ESGLastFailure() gives Unreadable. The
/// next call is not affected.
///
/// **Units.** Times are as the service sends them. The broadcast carries NTP seconds (Unix time
/// plus 2208988800, in 32 bits). Durations are in seconds.
///
/// The order of the operations is part of the binary interface.
class ESG_API IESGService {
 public:
  virtual ~IESGService();

  /// The programme that is on now on the broadcast service `globalServiceId`.
  virtual bool GetPresentProgram(const std::string& globalServiceId, FCESGProgramInfo& program) = 0;

  /// The programmes of a broadcast service that overlap the `duration` seconds from `startTime`.
  /// Adds them to `programs`, which is not cleared first; an entry with the same key is replaced.
  virtual bool GetProgramList(const std::string& globalServiceId, unsigned int startTime,
                              unsigned int duration,
                              std::map<unsigned int, FCESGProgramInfo>& programs) = 0;

  /// The programme before or after `program`, or the same one, on its broadcast service (see
  /// eRelative_Position). `program` and `result` may be the same object.
  virtual bool GetProgram(const FCESGProgramInfo& program, eRelative_Position position,
                          FCESGProgramInfo& result) = 0;

  /// The programme that shows the content `contentId` on a broadcast service at `startTime`.
  virtual bool GetProgramItem(const std::string& globalServiceId, const std::string& contentId,
                              unsigned int startTime, FCESGProgramInfo& program) = 0;

  /// The XML text of the schedule fragment of a broadcast service for a time range, exactly as the
  /// guide service sends it. `globalServiceId` is only read; `bb` is passed on to the guide
  /// service.
  virtual bool GetScheduleFragment(std::string& xmlFragment, std::string& globalServiceId,
                                   unsigned int startTime, unsigned int duration, bool bb) = 0;

  /// The XML text of the service fragment of a broadcast service.
  virtual bool GetServiceFragment(std::string& xmlFragment, std::string& globalServiceId,
                                  bool bb) = 0;

  /// The XML text of the content fragment that a broadcast service shows in a time range.
  virtual bool GetContentFragment(std::string& xmlFragment, std::string& globalServiceId,
                                  unsigned int startTime, unsigned int duration, bool bb) = 0;

  /// Asks the guide service to save the content fragment of a broadcast service at `path`. The
  /// guide service, not this process, opens the path, and it may refuse.
  virtual bool SaveContentFragment(const std::string& path, const std::string& globalServiceId,
                                   bool bb) = 0;

  /// Asks the guide service to save the schedule fragment of a broadcast service at `path`.
  virtual bool SaveScheduleFragment(const std::string& path, const std::string& globalServiceId,
                                    bool bb) = 0;

  /// Asks the guide service to save the service fragment of a broadcast service at `path`.
  virtual bool SaveServiceFragment(const std::string& path, const std::string& globalServiceId,
                                   bool bb) = 0;
};

#endif
