/*
 * This program stands in front of the functions of the C library whose failures the AC library must bear:
 * mmap(), which may fail, and the mutex functions, which may be busy or fail. It also counts what the AC
 * library holds: memory, mappings and locks. Only what the library does on the thread that called watch()
 * is counted or made to fail.
 *
 * Memory is followed in plain builds; in a sanitizer's build the sanitizer does that itself.
 */
#ifndef TESTS_TORTURE_INTERPOSE_H
#define TESTS_TORTURE_INTERPOSE_H

#include "targets.h"

#include <pthread.h>

namespace torture::interpose {

/* From here on this thread's calls are counted, from 1, and fail as planned; a plan for something else is
 * ignored. */
void watch(const std::optional<plan> &what);
void clear_failures();

/* Ends it. */
void unwatch();

/* The number of calls of a target of the C library's since watch(). */
std::uint64_t count(const target &what);

extern const bool follows_memory;

/* What the library holds at the moment. */
std::size_t allocations(); /* when they are followed */
std::size_t mappings();
long locks_held();

/* The library's mutexes, as far as it has used them. */
std::vector<pthread_mutex_t *> mutexes();

} // namespace torture::interpose

#endif
