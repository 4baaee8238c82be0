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
 * 1. Records, lists and icons are opaque: never create, copy or change one by other means.
 * 2. The caller owns what a query stores, and a callback owns what it is passed. Release a record
 *    with FCESGProgramDispose, a list with FCESGProgramListDispose and a text with
 *    FCESGTextDispose, each exactly once; never with free(). These functions ignore a null pointer.
 * 3. A record or a list owns what its accessors return. A text, an icon or an element of a list is
 *    valid until its owner is disposed of; never release it.
 * 4. A query that blocks returns 1 on success and 0 on failure. It writes its output in both cases:
 *    after 0 it is a null pointer. The previous value of the output does not matter.
 * 5. After 0, FCESGGuideLastReason, FCESGGuideLastErrorName and FCESGGuideLastErrorText tell why.
 *    They describe the calling thread's last operation; accessors and disposals are not operations.
 * 6. Pointers must not be null unless the description allows it. An operation that gets a null
 *    pointer does nothing and fails with FCESGReasonUnreadable; an accessor returns an empty text,
 *    0 or null. Only FCESGProgramStartTime and FCESGProgramDuration do not check theirs.
 * 7. No C++ exception leaves a function: it becomes FCESGReasonUnreadable. An exception that leaves
 *    a callback ends the process.
 * 8. Texts end with a zero byte and are bytes as the service sends them, normally UTF-8. A text of
 *    the service that contains a zero byte ends there. Arguments are only read during the call.
 * 9. Any thread may call. Several threads may use different records and lists at once, and may read
 *    the same one. Do not dispose of one while another thread reads it.
 * 10. The first operation of a process connects to the bus and waits for it, for about a minute at
 *     most; if there is still no bus, the process ends. FCESGGuideConnect does this ahead of time.
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
  FCESGReasonNone = 0,         /**< the operation succeeded */
  FCESGReasonNotFound = 1,     /**< the service found nothing, or did not save */
  FCESGReasonNoBus = 2,        /**< no connection to the system bus, or the connection was lost */
  FCESGReasonNoService = 3,    /**< no guide service on the bus, and the bus could not start one */
  FCESGReasonNoAnswer = 4,     /**< no reply in time, or waiting for one was impossible */
  FCESGReasonAccessDenied = 5, /**< the bus or the service refused */
  FCESGReasonTooLarge = 6,     /**< the call or its reply is larger than the bus accepts */
  FCESGReasonServiceError = 7, /**< the service replied with an error */
  FCESGReasonUnreadable = 8    /**< the reply does not follow the protocol, or the operation was
                                    impossible in this process; see rules 6 and 7 */
} FCESGReason;

/** Which programme FCESGGuideGetProgram returns, relative to a given one. */
enum FCESGPosition {
  FCESGPositionPrevious = -1, /**< the previous one */
  FCESGPositionCurrent = 0,   /**< the same one, read again */
  FCESGPositionNext = 1       /**< the next one */
};

/** @name Records
 *  See also FCESGProgramStartTime and FCESGProgramDuration. None of them blocks or fails. @{ */

/** The title to show. */
ESG_API const char* FCESGProgramTitle(const FCESGProgramInfo* program);
/** What the programme is about. */
ESG_API const char* FCESGProgramSynopsis(const FCESGProgramInfo* program);
/** The genre, as text. */
ESG_API const char* FCESGProgramGenre(const FCESGProgramInfo* program);
/** The event's id; esg-guide-service puts the content id here. */
ESG_API const char* FCESGProgramEventID(const FCESGProgramInfo* program);
/** The id of the programme's broadcast service. */
ESG_API const char* FCESGProgramServiceID(const FCESGProgramInfo* program);

/** How many pictures the programme has. */
ESG_API unsigned int FCESGProgramIconCount(const FCESGProgramInfo* program);
/** The picture at `index`, from 0; null if there is none. */
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
 *  In ascending order of their keys. None of these functions blocks or fails. @{ */

/** How many programmes there are. */
ESG_API unsigned int FCESGProgramListLength(const FCESGProgramList* list);
/** The programme at `index`, from 0, which the list owns; null if there is none. */
ESG_API FCESGProgramInfo* FCESGProgramListElement(const FCESGProgramList* list, unsigned int index);
/** Its key, chosen by the service; esg-guide-service uses the start time. */
ESG_API unsigned int FCESGProgramListKey(const FCESGProgramList* list, unsigned int index);
/** Frees a list and its programmes; a null pointer does nothing. */
ESG_API void FCESGProgramListDispose(FCESGProgramList* list);
/** Frees the text of a fragment; a null pointer does nothing. */
ESG_API void FCESGTextDispose(char* text);
/** @} */

/** @name Queries
 *  Each blocks until the service has replied, like IESGService, and does not wait for queries of
 *  other threads. `bb` is passed on to the service as true unless it is 0. @{ */

/** The programme that is on now on the broadcast service `globalServiceId`. */
ESG_API int FCESGGuideGetPresentProgram(const char* globalServiceId, FCESGProgramInfo** program);
/** The programme before or after `program`, or the same one, on its broadcast service. `position`
 *  is one of FCESGPosition. */
ESG_API int FCESGGuideGetProgram(const FCESGProgramInfo* program, int position,
                                 FCESGProgramInfo** result);
/** The programme that shows the content `contentId` on a broadcast service at `startTime`. */
ESG_API int FCESGGuideGetProgramItem(const char* globalServiceId, const char* contentId,
                                     unsigned int startTime, FCESGProgramInfo** program);
/** The programmes of a broadcast service that overlap the `duration` seconds from `startTime`. */
ESG_API int FCESGGuideGetProgramList(const char* globalServiceId, unsigned int startTime,
                                     unsigned int duration, FCESGProgramList** list);

/** The XML text of the schedule fragment of a broadcast service for a time range. */
ESG_API int FCESGGuideGetScheduleFragment(const char* globalServiceId, unsigned int startTime,
                                          unsigned int duration, int bb, char** xmlFragment);
/** The XML text of the service fragment of a broadcast service. */
ESG_API int FCESGGuideGetServiceFragment(const char* globalServiceId, int bb, char** xmlFragment);
/** The XML text of the content fragment that a broadcast service shows in a time range. */
ESG_API int FCESGGuideGetContentFragment(const char* globalServiceId, unsigned int startTime,
                                         unsigned int duration, int bb, char** xmlFragment);

/** Asks the guide service to save the content fragment of a broadcast service at `path`. The guide
 *  service, not this process, opens the path, and it may refuse. */
ESG_API int FCESGGuideSaveContentFragment(const char* path, const char* globalServiceId, int bb);
/** Asks the guide service to save the schedule fragment of a broadcast service at `path`. */
ESG_API int FCESGGuideSaveScheduleFragment(const char* path, const char* globalServiceId, int bb);
/** Asks the guide service to save the service fragment of a broadcast service at `path`. */
ESG_API int FCESGGuideSaveServiceFragment(const char* path, const char* globalServiceId, int bb);
/** @} */

/** @name Failures
 *  They describe the calling thread's last operation, here or in C++. None of them blocks. @{ */

/** Why the operation failed; FCESGReasonNone after one that succeeded, and before the first. */
ESG_API FCESGReason FCESGGuideLastReason(void);
/** The name of the D-Bus error; empty if there was none. Valid until the thread's next operation or
 *  its end; in a callback, until that returns. */
ESG_API const char* FCESGGuideLastErrorName(void);
/** The text of the D-Bus error, or what went wrong in this process; empty if there is neither.
 *  Valid as long as the name. Very long texts are truncated. */
ESG_API const char* FCESGGuideLastErrorText(void);
/** An English sentence for a reason, without a line end. Valid for ever. */
ESG_API const char* FCESGReasonText(FCESGReason reason);
/** @} */

/** Connects to the bus unless an operation has already done so; see rule 10. */
ESG_API void FCESGGuideConnect(void);

/**
 * @name Queries that do not block
 *
 * Each function returns an identifier for FCESGAsyncCancel. It calls its callback once, on the
 * thread that runs the default GLib main context, in the order in which the replies arrive. On that
 * thread, no callback runs before its function has returned; a function on another thread may
 * return after its callback has run. A query fails at the latest 25 seconds after its call,
 * provided that the main context runs. At most 120 calls are outstanding; the others wait for their
 * turn.
 *
 * The callback gets the reason for the failure, or FCESGReasonNone, and owns the result, which is
 * null after a failure. While it runs, FCESGGuideLastErrorName and FCESGGuideLastErrorText describe
 * its query. It may make queries of all kinds, cancel any, and run a nested main loop. It may be
 * null.
 *
 * `destroy`, which may be null, is called with `userData` exactly once, after the callback or
 * instead of it: on the thread of the main context, or within the call that fails. If the process
 * ends with queries outstanding, neither function is called.
 *
 * A function returns 0 if the query could not be made: a null argument, no memory, or a process
 * that was forked after the first operation (FCESGReasonNoBus). It does not call the callback then.
 * @{
 */

/** Frees what `userData` points to. */
typedef void (*FCESGDestroy)(void* userData);
/** Receives a record. */
typedef void (*FCESGProgramCallback)(FCESGReason reason, FCESGProgramInfo* program, void* userData);
/** Receives a list. */
typedef void (*FCESGProgramListCallback)(FCESGReason reason, FCESGProgramList* list,
                                         void* userData);
/** Receives the text of a fragment. */
typedef void (*FCESGFragmentCallback)(FCESGReason reason, char* xmlFragment, void* userData);
/** Receives the failure of a save; a save has no other result. */
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

/** Makes sure that a callback is not called later. Returns 1 if it had not been called, else 0. If
 *  another thread than that of the main context cancels, the callback may be running then. Does not
 *  block and does not change the last failure. */
ESG_API int FCESGAsyncCancel(uint64_t identifier);
/** @} */

/**
 * @name Events
 *
 * Events arrive while the default GLib main context runs, on the thread that runs it, one at a time
 * in the order of arrival. The subscribers of a number get its events in the order in which they
 * subscribed. If the service restarts, subscriptions stay valid. If the bus is lost, no more events
 * arrive for the life of the process.
 *
 * A process uses these functions or ESGEMSProxy of C++, not both: there is one event proxy, whose
 * callback gets all events. While C++ uses it, FCESGEventsSubscribe fails with
 * FCESGReasonUnreadable. Once C has subscribed, C owns the proxy for the life of the process: a
 * callback from C++ is ignored, and C may lose events if C++ unsubscribes.
 * @{
 */

/** Called with the number and the integers of an event, all -1 if the event carries none. While it
 *  runs, nothing else runs on the main loop, so make no queries that block. It may subscribe, and
 *  unsubscribe itself and others. */
typedef void (*FCESGEventCallback)(int event, int32_t param1, int32_t param2, int32_t param3,
                                   void* userData);

/** Subscribes to the events of one number; a number may have several subscriptions. Returns an
 *  identifier for FCESGEventsUnsubscribe, or 0 on failure. Events may arrive before the function
 *  has returned. Blocks for one round trip to the bus, at most 25 seconds, and while other threads
 *  subscribe or unsubscribe.
 *
 *  `destroy`, which may be null, is called with `userData` exactly once, when the callback will not
 *  be called again: by the thread that unsubscribes or, if the callback is running at that moment,
 *  after it. After a failure it has been called in the same way. */
ESG_API uint64_t FCESGEventsSubscribe(int event, FCESGEventCallback callback, void* userData,
                                      FCESGDestroy destroy);
/** Makes sure that the callback is not called later. Returns 1 if it was subscribed, else 0. If
 *  another thread than that of the main context unsubscribes, the callback may be running at that
 *  moment. Blocks like FCESGEventsSubscribe and does not change the last failure. */
ESG_API int FCESGEventsUnsubscribe(uint64_t identifier);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
