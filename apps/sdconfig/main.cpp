// sdconfig, the command line.
#include <fcntl.h>

#include <exception>

#include "apps/sdconfig/acting_user.h"
#include "apps/sdconfig/command_line.h"
#include "apps/sdconfig/messages.h"
#include "apps/sdconfig/service.h"

namespace {

// A shell can start us with standard descriptors closed; the bus's socket would then get such a number, and a value
// would be printed into it. Read-only, so that printing to a closed standard output still fails and is told.
void occupyStandardDescriptors() {
    int descriptor = 0;
    do descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    while (descriptor >= 0 && descriptor <= 2);
}

}  // namespace

int main(int argc, char** argv) try {
    occupyStandardDescriptors();
    cli::CommandLine line;
    if (const auto exitCode = line.parse(argc, argv)) return *exitCode;
    if (!line.request().user.empty())
        if (const int code = cli::actAs(line.request().user)) return code;
    cli::Service service(line.request());
    return line.run(service);
} catch (const std::exception& error) {
    return cli::fail(cli::kRefused, "running", error.what(), "if it happens again, report it");
}
