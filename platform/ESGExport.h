#ifndef ESG_EXPORT_H
#define ESG_EXPORT_H

/* Marks what the shared library exports, and what it does not of a class that it exports;
   everything else stays hidden. */
#define ESG_API __attribute__((visibility("default")))
#define ESG_LOCAL __attribute__((visibility("hidden")))

#endif
