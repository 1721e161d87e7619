// A life of the real service, for programs that start it some thousand times: in a folder of their own, without a wait
// longer than it takes.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "tests/support/process.h"
#include "tests/support/support.h"

namespace torture {

struct Failed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What a program's main does: its exit code is that of `play`, or 2 where that throws, which is printed.
int perform(const char* program, const std::function<int()>& play);

class ServiceLife {
public:
    // Has what this process and its children call or serve lie in a fresh folder. One a process, before its first call.
    ServiceLife();

    const std::string& place() const { return mFolder.path(); }

    // A folder in it that is this user's alone. Returns its path.
    std::string makeFolder(const std::string& name) const;

    // True when it says "ready"; false where it ended before. Throws Failed where neither comes about.
    bool start(const std::vector<std::string>& command, const test::Environment& variables = {});

    // Its exit code, or 128 and the number of the signal that ended it. signal: 0 where it is to have ended by itself.
    int end(int signal);
    bool endsWithin(int milliseconds) { return mService->wait(milliseconds) != test::Process::kRunning; }

    // All that it said, and the end of that.
    std::string log() const { return mService->err(); }
    std::string said() const;

private:
    const test::TempDir mFolder{"/dev/shm/torture-"};
    sd::UniqueFd mNotify;
    std::optional<test::Process> mService;  // the latest
};

}  // namespace torture
