// sdconfig, the command line.
#include <fcntl.h>

#include <exception>

#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/line/command_line.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/acting_user.h"
#include "apps/sdconfig/terminal/messages.h"

namespace {

struct Run {
    const char* command;
    int (*run)(const cli::Request&, cli::Service&);
};

constexpr Run kRuns[] = {
    {"get", cli::getProperty},
    {"set", cli::setProperty},
    {"delete", cli::deleteProperty},
    {"secure get", cli::getSecure},
    {"secure set", cli::setSecure},
    {"secure delete", cli::deleteSecure},
    {"secure exec", cli::executeWithSecrets},
    {"policy set", cli::setPolicy},
    {"policy get", cli::getPolicy},
    {"policy delete", cli::deletePolicy},
    {"policy list", cli::listPolicies},
    {"policy strong", cli::showStrong},
    {"policy clear", cli::clearPolicies},
    {"policy export", cli::exportPolicies},
    {"policy apply", cli::applyPolicies},
    {"explain", cli::explainKey},
    {"watch", cli::watchKeys},
    {"list", cli::listKeys},
    {"upgrade", cli::upgradeDatabase},
    {"doctor", cli::diagnoseService},
    {"check", cli::checkFolder},
    {"backup", cli::backupData},
    {"restore", cli::restoreData},
    {"const", cli::getConst},
    {"sign", cli::signText},
    {"verify", cli::verifyText},
    {"status", cli::showStatus},
};

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
    for (const Run& one : kRuns)
        if (line.request().command == one.command) return one.run(line.request(), service);
    return cli::kUsage;
} catch (const std::exception& error) {
    return cli::fail(cli::kRefused, "running", error.what(), "if it happens again, report it");
}
