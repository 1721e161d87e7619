// What a system call fails with where memory or descriptors run out.
#pragma once

#include <cerrno>

namespace sd {

// Whether another try may do better, once others have ended: what was asked about is neither absent nor broken.
inline bool isShortage(int error) {
    return error == ENOMEM || error == EMFILE || error == ENFILE;
}

}  // namespace sd
