#ifndef ESG_EXPORT_H
#define ESG_EXPORT_H

/* ESG_API marks what the shared library exports. ESG_LOCAL hides a member of an exported class.
   Everything else is hidden. */
#define ESG_API __attribute__((visibility("default")))
#define ESG_LOCAL __attribute__((visibility("hidden")))

#endif
