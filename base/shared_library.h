// A shared library of the system that is loaded when it is first needed, so that a process which never needs it pays
// neither time nor memory for it. What it offers is one struct, a line a function:
//     struct Zlib {
//         const SharedLibrary library{ZLIB_SONAME};
//         LOADED(library, crc32);
//     };
//     static const Zlib sZlib;  // loaded here; a static whose initialiser throws is tried again
//     sZlib.crc32(...);
#pragma once

#include <dlfcn.h>

#include <stdexcept>

namespace sd {

// Why a library, or a function of it, can't be used; the text names it. Memory or descriptors may have run out.
struct LibraryFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Stays loaded until the process ends, so that its functions serve static destructors, too. Where the program is linked
// to the same library, this is that one. Any thread.
class SharedLibrary {
public:
    // soname: as the linker would write it into a program. Throws LibraryFailure.
    explicit SharedLibrary(const char* soname) : mHandle(::dlopen(soname, RTLD_NOW | RTLD_LOCAL)) {
        if (!mHandle) throw LibraryFailure(::dlerror());
    }

    // Throws LibraryFailure where the library has no function of that name.
    template <class Function>
    Function find(const char* name) const {
        void* const found = ::dlsym(mHandle, name);
        if (!found) throw LibraryFailure(::dlerror());
        return reinterpret_cast<Function>(found);
    }

private:
    void* mHandle;
};

}  // namespace sd

// A pointer to the function that a header of the library declares, under another name or under its own.
// NOLINTNEXTLINE(bugprone-macro-parentheses): the name is declared
#define LOADED_AS(name, library, function) decltype(&::function) name = (library).find<decltype(&::function)>(#function)
#define LOADED(library, function) LOADED_AS(function, library, function)
