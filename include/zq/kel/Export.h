#ifndef ZQ_KEL_EXPORT_H
#define ZQ_KEL_EXPORT_H

// The library is built with hidden visibility; only what carries this mark is
// part of the binary interface that clients link against.
#if defined(__GNUC__)
#define ZQ_EXPORT __attribute__((visibility("default")))
#else
#define ZQ_EXPORT
#endif

#endif  // ZQ_KEL_EXPORT_H
