#ifndef PLATFORM_ASSERTION_H
#define PLATFORM_ASSERTION_H

// A broken invariant ends the process in every build type.
#undef NDEBUG
#include <assert.h>

#include "Log.h"
#include "Platform.h"

/// Unless `condition` holds, ends the process through the standard assertion, with `text` as its
/// expression and `source` as its file name.
#define ESG_ASSERT(condition, text, source) \
  ((condition) ? static_cast<void>(0) : __assert_fail(text, source, __LINE__, __PRETTY_FUNCTION__))

/// Reports a broken invariant to the platform and the log; the caller continues.
#define ESG_REPORT(text, source)              \
  do {                                        \
    _FCAssert(text, source, __LINE__);        \
    ESG_LOGE("ASSERT!, Func:%s\n", __func__); \
  } while (false)

#endif
