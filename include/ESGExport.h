#ifndef ESG_EXPORT_H
#define ESG_EXPORT_H

/* Marks what the shared library exports; everything else stays hidden. */
#define ESG_API __attribute__((visibility("default")))

#endif
