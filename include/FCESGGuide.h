#ifndef FC_ESG_GUIDE_H
#define FC_ESG_GUIDE_H

#include <stdint.h>

#include "ESGExport.h"
#include "FCESGProgramAPI.h"

/**
 * @file
 * The whole guide, for C: records, queries that block and queries that do not, fragments, events.
 *
 * Rules:
 *
 * 1. Records, lists and icons are opaque: never build, copy or change one by other means.
 * 2. What a query stores or hands to a callback belongs to the caller or the callback. Release a
 *    record with FCESGProgramDispose, a list with FCESGProgramListDispose, a text with
 *    FCESGTextDispose, each exactly once; never with free(). A null pointer does nothing there.
 * 3. What an accessor gives belongs to the record or the list that it was asked of: a text, an icon
 *    or an element of a list is valid until that is disposed of, and is never released itself.
 * 4. A query that blocks returns 1 on success and 0 on failure. Its output is written in both
 *    cases: after 0 it is a null pointer. What it held before is not looked at.
 * 5. After 0, FCESGGuideLastReason, FCESGGuideLastErrorName and FCESGGuideLastErrorText tell why.
 *    They are about the calling thread's last operation; accessors and disposals are none.
 * 6. Pointers must not be null, save where it is said. An operation that gets one all the same does
 *    nothing and fails with FCESGReasonUnreadable; an accessor gives an empty text, 0 or null.
 *    FCESGProgramStartTime and FCESGProgramDuration alone do not check theirs.
 * 7. No C++ exception leaves a function: it becomes FCESGReasonUnreadable. A callback must not
 *    let one out either; that ends the process.
 * 8. Texts end with a zero byte and are bytes as the service sends them, normally UTF-8. A text of
 *    the service that contains a zero byte ends there. Arguments are only read during the call.
 * 9. Any thread may call. Different records and lists may be used from different threads at once,
 *    and one may be read from several; it must not be disposed of meanwhile.
 * 10. The first operation of a process connects to the bus and waits for it, for about a minute at
 *     most; if there is still none, the process ends. FCESGGuideConnect chooses the moment.
 * 11. Times are NTP seconds for a broadcast guide (Unix time plus 2208988800, in 32 bits);
 *     durations are seconds.
 */

#ifdef __cplusplus
namespace ATSC3ESGExtension {
class CESGIcon;
}
/** One picture of a programme. */
typedef ATSC3ESGExtension::CESGIcon FCESGIcon;
extern "C" {
#else
typedef struct FCESGIcon FCESGIcon;
#endif

/** Programmes with their keys. */
typedef struct FCESGProgramList FCESGProgramList;

/** Why an operation failed. The values are those of ESGFailureReason. */
typedef enum FCESGReason {
  FCESGReasonNone = 0,         /**< it succeeded */
  FCESGReasonNotFound = 1,     /**< the service said that it found nothing, or did not save */
  FCESGReasonNoBus = 2,        /**< no connection to the system bus, or no longer */
  FCESGReasonNoService = 3,    /**< no guide service on the bus, and none that it could start */
  FCESGReasonNoAnswer = 4,     /**< no answer in time, or none that could be waited for */
  FCESGReasonAccessDenied = 5, /**< the bus or the service does not allow it */
  FCESGReasonTooLarge = 6,     /**< the request or the answer is larger than the bus takes */
  FCESGReasonServiceError = 7, /**< the service answered with an error */
  FCESGReasonUnreadable = 8    /**< the answer is not what the protocol prescribes, or the operation
                                    could not be done in this process; see rules 6 and 7 */
} FCESGReason;

/** Which programme FCESGGuideGetProgram wants, relative to a given one. */
enum FCESGPosition {
  FCESGPositionPrevious = -1, /**< the one before */
  FCESGPositionCurrent = 0,   /**< the same one, read again */
  FCESGPositionNext = 1       /**< the one after */
};

/** @name Records
 *  Besides FCESGProgramStartTime and FCESGProgramDuration. None blocks or fails. @{ */

/** The title, as it is shown. */
ESG_API const char* FCESGProgramTitle(const FCESGProgramInfo* program);
/** What the programme is about. */
ESG_API const char* FCESGProgramSynopsis(const FCESGProgramInfo* program);
/** The genre, as text. */
ESG_API const char* FCESGProgramGenre(const FCESGProgramInfo* program);
/** The event's id; the guide service puts the content id here. */
ESG_API const char* FCESGProgramEventID(const FCESGProgramInfo* program);
/** The id of the programme's service. */
ESG_API const char* FCESGProgramServiceID(const FCESGProgramInfo* program);

/** How many pictures the programme has. */
ESG_API unsigned int FCESGProgramIconCount(const FCESGProgramInfo* program);
/** One of them, from 0 on; null where there is none. */
ESG_API const FCESGIcon* FCESGProgramIcon(const FCESGProgramInfo* program, unsigned int index);
/** Where it is. */
ESG_API const char* FCESGIconUri(const FCESGIcon* icon);
/** Its media type. */
ESG_API const char* FCESGIconMimeType(const FCESGIcon* icon);
/** Its width in pixels. */
ESG_API int32_t FCESGIconWidth(const FCESGIcon* icon);
/** Its height in pixels. */
ESG_API int32_t FCESGIconHeight(const FCESGIcon* icon);
/** Its size in bytes. */
ESG_API int32_t FCESGIconDataSize(const FCESGIcon* icon);
/** @} */

/** @name Lists
 *  In ascending order of their keys. None blocks or fails. @{ */

/** How many programmes there are. */
ESG_API unsigned int FCESGProgramListLength(const FCESGProgramList* list);
/** One of them, from 0 on, which stays the list's; null where there is none. */
ESG_API FCESGProgramInfo* FCESGProgramListElement(const FCESGProgramList* list, unsigned int index);
/** The key that the service gives it; the guide service uses the start time. */
ESG_API unsigned int FCESGProgramListKey(const FCESGProgramList* list, unsigned int index);
/** Frees a list and its programmes; a null pointer does nothing. */
ESG_API void FCESGProgramListDispose(FCESGProgramList* list);
/** Frees the text of a fragment; a null pointer does nothing. */
ESG_API void FCESGTextDispose(char* text);
/** @} */

/** @name Queries
 *  Each blocks until the service has answered, at most 25 seconds, and does not wait for those of
 *  other threads. `bb` is passed on to the service as true unless it is 0. @{ */

/** The programme on air now on the service `globalServiceId`. */
ESG_API int FCESGGuideGetPresentProgram(const char* globalServiceId, FCESGProgramInfo** program);
/** The neighbour of `program` on its service; `position` is one of FCESGPosition. */
ESG_API int FCESGGuideGetProgram(const FCESGProgramInfo* program, int position,
                                 FCESGProgramInfo** result);
/** The programme that shows the content `contentId` on a service at `startTime`. */
ESG_API int FCESGGuideGetProgramItem(const char* globalServiceId, const char* contentId,
                                     unsigned int startTime, FCESGProgramInfo** program);
/** The programmes of a service that touch the time range of `duration` seconds from `startTime`. */
ESG_API int FCESGGuideGetProgramList(const char* globalServiceId, unsigned int startTime,
                                     unsigned int duration, FCESGProgramList** list);

/** The XML text of the schedule fragment of a service for a time range. */
ESG_API int FCESGGuideGetScheduleFragment(const char* globalServiceId, unsigned int startTime,
                                          unsigned int duration, int bb, char** xmlFragment);
/** The XML text of the service fragment of a service. */
ESG_API int FCESGGuideGetServiceFragment(const char* globalServiceId, int bb, char** xmlFragment);
/** The XML text of the content fragment that a service shows in a time range. */
ESG_API int FCESGGuideGetContentFragment(const char* globalServiceId, unsigned int startTime,
                                         unsigned int duration, int bb, char** xmlFragment);

/** Asks the service to save the content fragment of a service at `path`. The service, not this
 *  process, opens the path, and it may refuse. */
ESG_API int FCESGGuideSaveContentFragment(const char* path, const char* globalServiceId, int bb);
/** Asks the service to save the schedule fragment of a service at `path`. */
ESG_API int FCESGGuideSaveScheduleFragment(const char* path, const char* globalServiceId, int bb);
/** Asks the service to save the service fragment of a service at `path`. */
ESG_API int FCESGGuideSaveServiceFragment(const char* path, const char* globalServiceId, int bb);
/** @} */

/** @name Failures
 *  Of the calling thread's last operation, here or in C++. None blocks. @{ */

/** Why it failed; FCESGReasonNone after one that succeeded, and before the first. */
ESG_API FCESGReason FCESGGuideLastReason(void);
/** The name of the D-Bus error; empty where there was none. Valid until the thread's next operation
 *  or its end; in a callback, until that returns. */
ESG_API const char* FCESGGuideLastErrorName(void);
/** The text of the D-Bus error, or what went wrong in this process; empty where there is neither.
 *  Valid as long. Very long texts are cut. */
ESG_API const char* FCESGGuideLastErrorText(void);
/** A sentence in English, without a line end, for a reason. Valid for ever. */
ESG_API const char* FCESGReasonText(FCESGReason reason);
/** @} */

/** Connects to the bus, if no operation has yet; see rule 10. */
ESG_API void FCESGGuideConnect(void);

/**
 * @name Queries that do not block
 *
 * Each returns an identifier for FCESGAsyncCancel and calls its callback once, on the thread that
 * runs the default GLib main context, never before it has returned, in the order in which the
 * answers arrive. It fails at the latest 25 seconds after the call, provided that the main context
 * runs. No more than 120 are with the service at once; the others wait for their turn.
 *
 * The callback gets the reason of the failure, or FCESGReasonNone, and the result, which belongs to
 * it: null after a failure. While it runs, FCESGGuideLastErrorName and FCESGGuideLastErrorText are
 * about its query. It may make queries of all kinds, cancel any, and run a nested main loop. It may
 * be null.
 *
 * `destroy`, which may be null, is called with `userData` exactly once, when that is not needed any
 * more: after the callback, or instead of it. That is on the thread of the main context, or within
 * the call that fails. When the process ends with queries under way, neither is called.
 *
 * 0 when the query could not be made: a null argument, no memory, or a process that was forked
 * after the first operation (FCESGReasonNoBus). The callback is not called then.
 * @{
 */

/** Frees what `userData` points to. */
typedef void (*FCESGDestroy)(void* userData);
/** Takes a record. */
typedef void (*FCESGProgramCallback)(FCESGReason reason, FCESGProgramInfo* program, void* userData);
/** Takes a list. */
typedef void (*FCESGProgramListCallback)(FCESGReason reason, FCESGProgramList* list,
                                         void* userData);
/** Takes the text of a fragment. */
typedef void (*FCESGFragmentCallback)(FCESGReason reason, char* xmlFragment, void* userData);
/** A save has no result but its failure. */
typedef void (*FCESGSaveCallback)(FCESGReason reason, void* userData);

/** FCESGGuideGetPresentProgram. */
ESG_API uint64_t FCESGAsyncGetPresentProgram(const char* globalServiceId,
                                             FCESGProgramCallback callback, void* userData,
                                             FCESGDestroy destroy);
/** FCESGGuideGetProgram. */
ESG_API uint64_t FCESGAsyncGetProgram(const FCESGProgramInfo* program, int position,
                                      FCESGProgramCallback callback, void* userData,
                                      FCESGDestroy destroy);
/** FCESGGuideGetProgramItem. */
ESG_API uint64_t FCESGAsyncGetProgramItem(const char* globalServiceId, const char* contentId,
                                          unsigned int startTime, FCESGProgramCallback callback,
                                          void* userData, FCESGDestroy destroy);
/** FCESGGuideGetProgramList. */
ESG_API uint64_t FCESGAsyncGetProgramList(const char* globalServiceId, unsigned int startTime,
                                          unsigned int duration, FCESGProgramListCallback callback,
                                          void* userData, FCESGDestroy destroy);
/** FCESGGuideGetScheduleFragment. */
ESG_API uint64_t FCESGAsyncGetScheduleFragment(const char* globalServiceId, unsigned int startTime,
                                               unsigned int duration, int bb,
                                               FCESGFragmentCallback callback, void* userData,
                                               FCESGDestroy destroy);
/** FCESGGuideGetServiceFragment. */
ESG_API uint64_t FCESGAsyncGetServiceFragment(const char* globalServiceId, int bb,
                                              FCESGFragmentCallback callback, void* userData,
                                              FCESGDestroy destroy);
/** FCESGGuideGetContentFragment. */
ESG_API uint64_t FCESGAsyncGetContentFragment(const char* globalServiceId, unsigned int startTime,
                                              unsigned int duration, int bb,
                                              FCESGFragmentCallback callback, void* userData,
                                              FCESGDestroy destroy);
/** FCESGGuideSaveContentFragment. */
ESG_API uint64_t FCESGAsyncSaveContentFragment(const char* path, const char* globalServiceId,
                                               int bb, FCESGSaveCallback callback, void* userData,
                                               FCESGDestroy destroy);
/** FCESGGuideSaveScheduleFragment. */
ESG_API uint64_t FCESGAsyncSaveScheduleFragment(const char* path, const char* globalServiceId,
                                                int bb, FCESGSaveCallback callback, void* userData,
                                                FCESGDestroy destroy);
/** FCESGGuideSaveServiceFragment. */
ESG_API uint64_t FCESGAsyncSaveServiceFragment(const char* path, const char* globalServiceId,
                                               int bb, FCESGSaveCallback callback, void* userData,
                                               FCESGDestroy destroy);

/** Makes sure that a callback is not called any more; 1 when it was still to come, else 0. Called
 *  from another thread than the main context's, it may be running just then. Does not block, and
 *  leaves the last failure as it is. */
ESG_API int FCESGAsyncCancel(uint64_t identifier);
/** @} */

/**
 * @name Events
 *
 * Events arrive while the default GLib main context runs, on the thread that runs it, one at a time
 * in the order of arrival; those who subscribed to a number get its events in the order in which
 * they subscribed. A service that restarts needs no new subscription; a bus that goes away ends the
 * flow of events for the life of the process.
 *
 * A process uses these functions or ESGEMSProxy of C++, not both: there is one event proxy, whose
 * callback gets all events. While C++ has one, FCESGEventsSubscribe fails with
 * FCESGReasonUnreadable. Once C has subscribed, the proxy is C's for the life of the process: a
 * callback that C++ gives is ignored, and C may lose events when C++ unsubscribes.
 * @{
 */

/** Called with the event's number and integers, all -1 where the event carries nothing. While it
 *  runs, nothing else of the main loop does, so make no queries that block. It may subscribe, and
 *  unsubscribe itself and others. */
typedef void (*FCESGEventCallback)(int event, int32_t param1, int32_t param2, int32_t param3,
                                   void* userData);

/** Subscribes to the events of one number; the same number may be subscribed to again. Returns an
 *  identifier for FCESGEventsUnsubscribe, or 0. Events may arrive before it has returned. Blocks
 *  for one round trip to the bus, at most 25 seconds, and for other threads that subscribe or
 *  unsubscribe.
 *
 *  `destroy`, which may be null, is called with `userData` exactly once, when the callback will not
 *  be called any more: by the thread that unsubscribes or, where the callback runs just then, after
 *  it. After 0 it has been called in the same way. */
ESG_API uint64_t FCESGEventsSubscribe(int event, FCESGEventCallback callback, void* userData,
                                      FCESGDestroy destroy);
/** Makes sure that the callback is not called any more; 1 when it was subscribed, else 0. Called
 *  from another thread than the main context's, it may be running just then. Blocks like
 *  FCESGEventsSubscribe, and leaves the last failure as it is. */
ESG_API int FCESGEventsUnsubscribe(uint64_t identifier);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
