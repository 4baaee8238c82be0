#ifndef PLATFORM_PLATFORM_H
#define PLATFORM_PLATFORM_H

/* What the library needs of the platform: its log service and its assertion routine. Any shared
   object with these two functions will do; a device brings its own, other machines use the
   stand-ins here. Any thread may call them at any time, destructors of static objects included;
   they must not throw and must leave errno alone. */

/* The main log buffer, and the priorities in use. */
#define ESG_LOG_BUFFER_MAIN 0
#define ESG_LOG_PRIORITY_INFO 4
#define ESG_LOG_PRIORITY_ERROR 6

/* NOLINTBEGIN(bugprone-reserved-identifier): the platform chose these names. */

#ifdef __cplusplus
extern "C" {
#endif

/* Writes one message, formatted like printf, to the log buffer under the tag. The result is of no
   interest to the library. */
__attribute__((visibility("default"), format(printf, 4, 5))) int __dlog_print(
    int logBuffer, int priority, const char* tag, const char* format, ...);

/* Reports a broken invariant and its place in the source, and returns: the caller goes on. */
__attribute__((visibility("default"))) void _FCAssert(const char* expression,
                                                      const char* sourcePath, int line);

#ifdef __cplusplus
}
#endif

/* NOLINTEND(bugprone-reserved-identifier) */

#endif
