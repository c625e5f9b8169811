/*
 * What the platform headers need from the compiler: C linkage for C++, the
 * printf-format attribute, and size assertions that C11 and C++20 both accept.
 */
#ifndef PLATFORM_COMPILER_H
#define PLATFORM_COMPILER_H

/* What stands between the two has C linkage and, in a library built with hidden visibility, is exported:
 * declared in a public header means exported, nothing else is. */
#ifdef __cplusplus
#define PLATFORM_BEGIN_DECLS                                                                                 \
    extern "C" {                                                                                             \
    PLATFORM_VISIBILITY(push(default))
#define PLATFORM_END_DECLS                                                                                   \
    PLATFORM_VISIBILITY(pop)                                                                                 \
    }
#define PLATFORM_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define PLATFORM_BEGIN_DECLS PLATFORM_VISIBILITY(push(default))
#define PLATFORM_END_DECLS PLATFORM_VISIBILITY(pop)
#define PLATFORM_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#if defined(__GNUC__)
#define PLATFORM_PRAGMA(text) _Pragma(#text)
#define PLATFORM_VISIBILITY(what) PLATFORM_PRAGMA(GCC visibility what)
#else
#define PLATFORM_VISIBILITY(what)
#endif

/* Argument `text` is a printf format, its values start at argument `first`. */
#if defined(__GNUC__)
#define PLATFORM_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))
#else
#define PLATFORM_PRINTF(text, first)
#endif

#endif
