#include "apps/sdconfigd/constants_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <new>
#include <system_error>

#include "base/shortage.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace {

std::string trimmed(const std::string& text) {
    const char* const blanks = " \t\r";
    const size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

// Returns a line for a person, and leaves `constants` alone; or "".
std::string readConstantsFile(const std::string& path, std::map<std::string, std::string>& constants) try {
    std::ifstream file(path);
    if (!file && sd::isShortage(errno)) throw std::system_error(errno, std::generic_category(), path);
    if (!file) return path + ": " + std::strerror(errno);
    file.exceptions(std::ios::badbit);  // so that no file ends where memory does

    std::map<std::string, std::string> read;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::string content = trimmed(line);
        if (content.empty() || content.front() == '#') continue;
        const size_t equals = line.find('=');
        const std::string name = trimmed(line.substr(0, equals));
        if (equals == std::string::npos || name.empty())
            return path + ":" + std::to_string(number) + ": expected a line of the form name=value";
        if (line.back() == '\r') line.pop_back();
        read[name] = line.substr(equals + 1);
    }
    constants.swap(read);
    return "";
} catch (const std::ios_base::failure&) {
    return path + ": can't be read to its end";
}

}  // namespace

std::string useConstants(const std::string& path) {
    std::map<std::string, std::string> constants;
    if (std::string problem = readConstantsFile(path, constants); !problem.empty()) return problem;
    sd::SDSecurity& layer = *sd::SDSecurity::GetInstance();
    for (const auto& [name, value] : constants) {
        layer.RegisterString(name, value);
        if (layer.GetString(name) != value) throw std::bad_alloc();  // it has logged that
    }
    return "";
}
