/*
 * Calls of the C library's that a program can have fail. interposed.cpp defines them in front of the C library,
 * for the program that it is linked into as a source, and asks the program before each.
 */
#ifndef TESTS_SUPPORT_INTERPOSED_H
#define TESTS_SUPPORT_INTERPOSED_H

#include <dlfcn.h>
#include <string_view>

namespace interposed {

/* The program's own: the errno that this call fails with; 0: it is made. */
int cause_of(std::string_view call);

/* The call itself, asking nobody. */
template <typename Result, typename... Arguments>
Result pass_on(const char *call, Arguments... arguments)
{
    return reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, call))(arguments...);
}

} // namespace interposed

#endif
