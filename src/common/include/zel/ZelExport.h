// ZelExport.h - symbol visibility of libzel_common.
//
// The library is built with hidden visibility; only what is marked ZEL_API
// (the public classes, free functions and exported data) is visible to the
// programs that link it.
#ifndef ZEL_EXPORT_H
#define ZEL_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define ZEL_API __attribute__((visibility("default")))
#else
#define ZEL_API
#endif

#endif  // ZEL_EXPORT_H
