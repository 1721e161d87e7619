// Paths, from the root and without turns.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

namespace sd {

// As std::filesystem::absolute(path).lexically_normal() has it, which may crash where memory runs out; this raises
// std::bad_alloc. Raises std::system_error where the current folder is gone.
inline std::string wholePath(const std::string& path) {
    std::string from = path;
    if (path.empty() || path.front() != '/') {
        char folder[PATH_MAX];
        if (!::getcwd(folder, sizeof folder)) throw std::system_error(errno, std::generic_category(), "getcwd");
        from = std::string(folder) + '/' + path;
    }
    std::string whole = "/";
    std::string_view left = from, part;
    while (!left.empty()) {
        part = left.substr(0, left.find('/'));
        left.remove_prefix(std::min(part.size() + 1, left.size()));
        if (part.empty() || part == ".") continue;
        if (part != "..")
            (whole += part) += '/';
        else if (whole.size() > 1)
            whole.erase(whole.rfind('/', whole.size() - 2) + 1);
    }
    const bool isFolder = from.back() == '/' || part == "." || part == "..";
    if (!isFolder && whole.size() > 1) whole.pop_back();
    return whole;
}

}  // namespace sd
