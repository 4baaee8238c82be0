#ifndef PLATFORM_LOG_H
#define PLATFORM_LOG_H

#include "Platform.h"

namespace esg {

constexpr const char* BaseName(const char* path) {
  const char* name = path;
  for (; *path != '\0'; ++path) {
    if (*path == '/') {
      name = path + 1;
    }
  }
  return name;
}

/// Never defined: makes the compiler check the format of every line against its arguments.
int CheckLogFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

template <typename... Arguments>
void LogLine(int priority, const char* file, const char* function, int line, const char* format,
             Arguments... arguments) {
  __dlog_print(ESG_LOG_BUFFER_MAIN, priority, "esg", format, file, function, line, arguments...);
}

}  // namespace esg

#define ESG_LOG(priority, ...)                                                                   \
  (static_cast<void>(sizeof(esg::CheckLogFormat(__VA_ARGS__))),                                  \
   esg::LogLine(priority, esg::BaseName(__FILE__), static_cast<const char*>(__func__), __LINE__, \
                "%s: %s(%d) > " __VA_ARGS__))

/// Writes one line to the log, for example ESG_LOGE("Naming Error (%s)\n", text).
#define ESG_LOGI(...) ESG_LOG(ESG_LOG_PRIORITY_INFO, __VA_ARGS__)
#define ESG_LOGE(...) ESG_LOG(ESG_LOG_PRIORITY_ERROR, __VA_ARGS__)

#endif
