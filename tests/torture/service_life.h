// A life of the real service, for programs that start it some thousand times: in a folder of their own, without a wait
// longer than it takes.
#pragma once

#include <sys/types.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace torture {

struct Failed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Runs a program with more variables than this process has. What it says goes to the file, or what it prints to
// another. Throws Failed.
pid_t spawn(const std::vector<std::string>& command, const std::vector<std::string>& variables, const std::string& log,
            const std::string& input = "/dev/null", const std::string& output = "");

std::string textOf(const std::string& path);

class ServiceLife {
public:
    // Makes the folder, has what this process and its children call or serve lie in it, and removes it in the end. One
    // a process, before its first call.
    explicit ServiceLife(std::string place);
    ~ServiceLife();
    ServiceLife(const ServiceLife&) = delete;
    ServiceLife& operator=(const ServiceLife&) = delete;

    const std::string& place() const { return mPlace; }

    // True when it says "ready"; false where it ended before. Throws Failed where neither comes about.
    bool start(const std::vector<std::string>& command, const std::vector<std::string>& variables = {});

    // The status of waitpid. signal: 0 where it is to have ended by itself.
    int end(int signal);
    bool endsWithin(int milliseconds) const;

    // The file with all that it said, and the end of that.
    std::string log() const { return mPlace + "/log"; }
    std::string said() const;

private:
    const std::string mPlace;
    sd::UniqueFd mNotify;
    sd::UniqueFd mEnded;
    pid_t mService = 0;
};

}  // namespace torture
