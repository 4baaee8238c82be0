#ifndef ESG_ASYNC_H
#define ESG_ASYNC_H

#include <cstdint>
#include <functional>
#include <string>

#include "ESGExport.h"
#include "ESGFailure.h"
#include "ESGTypes.h"
#include "FCESGProgramInfo.h"

/// The operations of IESGService without blocking: same names, same arguments less the outputs.
///
/// **Callbacks.** Each operation calls its callback once, on the thread that runs the default GLib
/// main context, never before the operation has returned, in the order in which the answers arrive.
/// The result is empty when there is a failure. The callback is copied, and the copy is destroyed
/// on that thread as well. It may make queries, cancel any, and run a nested main loop, in which
/// the callbacks of other queries run. It must not throw: an exception ends the process. An answer
/// that cannot be converted is the reason Unreadable, never an exception. A callback may be empty.
///
/// **Blocking.** No operation waits for the service. The first one of a process connects to the
/// bus, exactly as the first query of IESGService does; call Connect() ahead of time to choose the
/// moment. Queries that block work beside these, in any thread, in callbacks as well.
///
/// **Limits.** 120 requests of a process are with the service at once; the others wait here for
/// their turn, in order. One without an answer ends with NoAnswer 25 seconds after its call,
/// provided that the main context runs. When the bus is lost, all end with NoBus. When the process
/// ends, callbacks that were not called yet are neither called nor destroyed.
///
/// **Threads.** Any thread may call. In a process that was forked after the first use, every
/// operation returns 0, and its callback is destroyed without being called.
class ESG_API ESGAsync {
 public:
  /// Names a query that was made, for Cancel(); never 0.
  using Identifier = std::uint64_t;

  /// What a query gives; empty results when there is a failure.
  using ProgramCallback = std::function<void(const ESGFailure& failure, FCESGProgramInfo program)>;
  /// Programmes by the key that the service gives them.
  using ProgramListCallback =
      std::function<void(const ESGFailure& failure, ESGProgramMap programs)>;
  /// The XML text of a fragment.
  using FragmentCallback = std::function<void(const ESGFailure& failure, std::string xmlFragment)>;
  /// A save has no result but its failure.
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

  /// Makes sure that a callback is not called any more. Called from another thread than the main
  /// context's, it may be running just then. A request that waits for its turn is not sent; one
  /// that was sent keeps its place until the service answers it.
  ///
  /// true when the callback was still to come. It is destroyed at once when the calling thread runs
  /// the default main context, else by the thread that does, at the context's next turn.
  static bool Cancel(Identifier identifier);

  /// Connects to the bus, if no query has yet. Waits for the bus as the first query does: about a
  /// minute at most, after which the process ends.
  static void Connect();

  ESGAsync() = delete;
};

#endif
