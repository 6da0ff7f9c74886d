// What the preloaded libraries share: the real function behind an interposed one, and who calls.
#pragma once

#include <dlfcn.h>
#include <sys/auxv.h>

#include <cstdlib>

// The next function of that name in the order of loading: the real one.
template <typename Function>
Function next(Function, const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// True once main has ended. What the program does then is not the daemon's own: gcov writes its counts, for one.
inline bool ended() {
    static bool result = false;
    static const int registered = std::atexit([] { result = true; });
    return registered != 0 || result;
}

// True for an address inside the program itself, as long as that runs.
inline bool in_program(const void* address) {
    static const void* const program = [] {
        Dl_info info{};
        dladdr(reinterpret_cast<const void*>(getauxval(AT_PHDR)), &info);
        return info.dli_fbase;
    }();
    Dl_info info{};
    return !ended() && dladdr(address, &info) != 0 && info.dli_fbase == program;
}
