#include "apps/sdconfig/program.h"

#include <fcntl.h>

#include <algorithm>
#include <exception>

#include "apps/sdconfig/command_line/command_line.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/acting_user.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

// A shell can start us with standard descriptors closed; the bus's socket would then get such a number, and a value
// would be printed into it. Read-only, so that printing to a closed standard output still fails and is told.
void occupyStandardDescriptors() {
    int descriptor = 0;
    do descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    while (descriptor >= 0 && descriptor <= 2);
}

}  // namespace

int runProgram(int argc, char** argv, const std::vector<Run>& runs, int (*elsewhere)(const Request&, char** argv)) try {
    occupyStandardDescriptors();
    CommandLine line;
    if (const auto exitCode = line.parse(argc, argv)) return *exitCode;
    const Request& request = line.request();
    const auto run = std::find_if(runs.begin(), runs.end(), [&](const Run& one) {
        return request.command == one.command && (!one.takes || one.takes(request));
    });
    if (run == runs.end()) return elsewhere(request, argv);
    if (!request.user.empty())
        if (const int code = actAs(request.user)) return code;
    Service service(request);
    const int code = run->run(request, service);
    return code == kElsewhere ? elsewhere(request, argv) : code;
} catch (const std::exception& error) {
    return fail(kRefused, "running", error.what(), "if it happens again, report it");
}

}  // namespace cli
