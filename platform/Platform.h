#ifndef PLATFORM_PLATFORM_H
#define PLATFORM_PLATFORM_H

/* The interface to the platform: its log service and its assertion routine. Any shared object with
   these two functions works. A device has its own; other machines use the stand-ins here. Any
   thread may call them at any time, also from destructors of static objects. They must not throw
   and must not change errno. */

/* The main log buffer, and the priorities in use. */
#define ESG_LOG_BUFFER_MAIN 0
#define ESG_LOG_PRIORITY_INFO 4
#define ESG_LOG_PRIORITY_ERROR 6

/* NOLINTBEGIN(bugprone-reserved-identifier): the platform chose these names. */

#ifdef __cplusplus
extern "C" {
#endif

/* Writes one message, formatted like printf, to the log buffer under the tag. The library ignores
   the result. */
__attribute__((visibility("default"), format(printf, 4, 5))) int __dlog_print(
    int logBuffer, int priority, const char* tag, const char* format, ...);

/* Reports a broken invariant and its place in the source, and returns; the caller continues. */
__attribute__((visibility("default"))) void _FCAssert(const char* expression,
                                                      const char* sourcePath, int line);

#ifdef __cplusplus
}
#endif

/* NOLINTEND(bugprone-reserved-identifier) */

#endif
