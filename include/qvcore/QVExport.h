#pragma once

// Symbols are hidden by default; QV_EXPORT marks the public surface of the
// shared library. The static library needs no marking.
#if defined(QVCORE_STATIC)
#define QV_EXPORT
#elif defined(QVCORE_BUILDING)
#define QV_EXPORT __attribute__((visibility("default")))
#else
#define QV_EXPORT __attribute__((visibility("default")))
#endif
