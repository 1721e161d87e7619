#include "apps/common/command_output.h"

#include <array>
#include <cstdio>
#include <memory>

namespace apps {

std::string outputOf(const std::string& command, std::size_t most) {
    const auto close = [](FILE* pipe) { ::pclose(pipe); };
    const std::unique_ptr<FILE, decltype(close)> pipe(::popen(command.c_str(), "re"), close);
    std::string output;
    std::array<char, 4096> buffer;
    std::size_t count = 0;
    while (pipe && output.size() < most && (count = std::fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0)
        output.append(buffer.data(), count);
    return output;
}

}  // namespace apps
