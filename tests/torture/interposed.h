// For libraries to preload, whose functions stand before the C library's own.
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>

#include <cstdarg>

namespace torture {

// The function that stands behind ours.
template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

// What an opening with these flags has behind them.
inline mode_t modeOf(int flags, va_list arguments) {
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t) : 0;
}

}  // namespace torture

// Makes `mode` of what stands behind the flags, the last argument that the function names.
#define TAKE_MODE(mode, flags)                             \
    va_list arguments;                                     \
    va_start(arguments, flags);                            \
    const mode_t mode = torture::modeOf(flags, arguments); \
    va_end(arguments)
