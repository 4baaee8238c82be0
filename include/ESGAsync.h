#ifndef ESG_ASYNC_H
#define ESG_ASYNC_H

#include <cstdint>
#include <functional>
#include <string>

#include "ESGExport.h"
#include "ESGFailure.h"
#include "ESGTypes.h"
#include "FCESGProgramInfo.h"

/// The operations of IESGService without blocking: same names, same arguments except the outputs.
///
/// **Callbacks.** Each operation calls its callback once, on the thread that runs the default GLib
/// main context, in the order in which the replies arrive. On that thread, no callback runs before
/// its operation has returned; an operation on another thread may return after its callback has
/// run. After a failure the result is empty. The callback is copied, and the copy is destroyed on
/// that thread as well. It may make queries, cancel queries, and run a nested main loop, in which
/// the callbacks of other queries run. It must not throw: an exception ends the process. A reply
/// that cannot be converted gives the reason Unreadable, never an exception. A callback may be
/// empty.
///
/// **Blocking.** No operation waits for the service. The first operation of a process connects to
/// the bus, exactly like the first query of IESGService. Call Connect() ahead of time to choose the
/// moment. Blocking queries may be used at the same time, on any thread and in callbacks.
///
/// **Limits.** At most 120 calls of a process are outstanding; other requests wait for their turn,
/// in order. A query without a reply ends with NoAnswer 25 seconds after its call, provided that
/// the main context runs. When the bus is lost, all end with NoBus. When the process ends,
/// callbacks that were not called yet are neither called nor destroyed.
///
/// **Threads.** Any thread may call. In a process that was forked after the first use, every
/// operation returns 0, and its callback is destroyed without being called.
class ESG_API ESGAsync {
 public:
  /// Identifies a query for Cancel(); never 0.
  using Identifier = std::uint64_t;

  /// Receives the result of a query, which is empty after a failure.
  using ProgramCallback = std::function<void(const ESGFailure& failure, FCESGProgramInfo program)>;
  /// Receives programmes by the key that the service gives them.
  using ProgramListCallback =
      std::function<void(const ESGFailure& failure, ESGProgramMap programs)>;
  /// Receives the XML text of a fragment.
  using FragmentCallback = std::function<void(const ESGFailure& failure, std::string xmlFragment)>;
  /// Receives the failure of a save; a save has no other result.
  using SaveCallback = std::function<void(const ESGFailure& failure)>;

  /// IESGService::GetPresentProgram.
  static Identifier GetPresentProgram(const std::string& globalServiceId, ProgramCallback callback);
  /// IESGService::GetProgramList.
  static Identifier GetProgramList(const std::string& globalServiceId, unsigned int startTime,
                                   unsigned int duration, ProgramListCallback callback);
  /// IESGService::GetProgram; `program` is only read during the call.
  static Identifier GetProgram(const FCESGProgramInfo& program, eRelative_Position position,
                               ProgramCallback callback);
  /// IESGService::GetProgramItem.
  static Identifier GetProgramItem(const std::string& globalServiceId, const std::string& contentId,
                                   unsigned int startTime, ProgramCallback callback);
  /// IESGService::GetScheduleFragment.
  static Identifier GetScheduleFragment(const std::string& globalServiceId, unsigned int startTime,
                                        unsigned int duration, bool bb, FragmentCallback callback);
  /// IESGService::GetServiceFragment.
  static Identifier GetServiceFragment(const std::string& globalServiceId, bool bb,
                                       FragmentCallback callback);
  /// IESGService::GetContentFragment.
  static Identifier GetContentFragment(const std::string& globalServiceId, unsigned int startTime,
                                       unsigned int duration, bool bb, FragmentCallback callback);
  /// IESGService::SaveContentFragment.
  static Identifier SaveContentFragment(const std::string& path, const std::string& globalServiceId,
                                        bool bb, SaveCallback callback);
  /// IESGService::SaveScheduleFragment.
  static Identifier SaveScheduleFragment(const std::string& path,
                                         const std::string& globalServiceId, bool bb,
                                         SaveCallback callback);
  /// IESGService::SaveServiceFragment.
  static Identifier SaveServiceFragment(const std::string& path, const std::string& globalServiceId,
                                        bool bb, SaveCallback callback);

  /// Makes sure that a callback is not called later. If another thread than that of the main
  /// context cancels, the callback may be running at that moment. A request that waits for its turn
  /// is not sent. One that was sent keeps its place until the service replies.
  ///
  /// Returns true if the callback had not been called. The callback is destroyed at once if the
  /// calling thread runs the default main context. Otherwise the thread that runs it destroys the
  /// callback in the next iteration.
  static bool Cancel(Identifier identifier);

  /// Connects to the bus unless a query has already done so. Waits for the bus like the first query
  /// (see IESGService) and ends the process if there is none.
  static void Connect();

  ESGAsync() = delete;
};

#endif
