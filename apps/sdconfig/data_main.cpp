// sdconfig-data, the command line's second program, which has what looks into the data folder. The first one starts it.
#include <cstdlib>
#include <string>

#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/hand_over.h"
#include "apps/sdconfig/program.h"
#include "apps/sdconfig/terminal/messages.h"

namespace {

int refuse(const cli::Request& request, char** /*argv*/) {
    return cli::fail(cli::kUsage, cli::attempt(request), "this program has no such command",
                     "type it as: " + cli::typed(request.command));
}

// The version of the program that started this one; "" for none. Nothing that is started from here finds it.
std::string versionOfFirst() {
    const char* const told = std::getenv(cli::kHandedOverBy);
    std::string version = told ? told : "";
    ::unsetenv(cli::kHandedOverBy);
    return version;
}

}  // namespace

int main(int argc, char** argv) {
    // Comes first: of another version, this program may not know the command.
    if (const std::string first = versionOfFirst(); !first.empty() && first != SDCONFIG_VERSION)
        return cli::fail(cli::kRefused, "starting sdconfig-data",
                         "it is of version " SDCONFIG_VERSION ", and sdconfig, which starts it, of " + first,
                         "install sdconfig again, whole");
    return cli::runProgram(argc, argv,
                           {
                               {"set", cli::setProperty},
                               {"secure set", cli::setSecure},
                               {"policy set", cli::setPolicy},
                               {"describe", cli::describeKeys},
                               {"keys lint", cli::lintKeys},
                               {"secure delete", cli::deleteSecure},
                               {"policy list", cli::listPolicies},
                               {"policy export", cli::exportPolicies},
                               {"policy apply", cli::applyPolicies},
                               {"policy status", cli::showPolicyStatus},
                               {"policy lint", cli::lintPolicies},
                               {"policy install", cli::installPolicies},
                               {"policy remove", cli::removePolicies},
                               {"explain", cli::explainKey},
                               {"log", cli::showLog},
                               {"log verify", cli::verifyLog},
                               {"log head", cli::printLogHead},
                               {"watch", cli::watchKeys},
                               {"list", cli::listKeys},
                               {"key list", cli::listKeyRing},
                               {"key slots", cli::listSlots},
                               {"key protect", cli::protectRing},
                               {"key unprotect", cli::unprotectRing},
                               {"key unlock", cli::unlockRing},
                               {"key recover", cli::recoverRing},
                               {"upgrade", cli::upgradeDatabase},
                               {"doctor", cli::diagnoseService},
                               {"report", cli::writeReport},
                               {"check", cli::checkFolder},
                               {"backup", cli::backupData},
                               {"restore", cli::restoreData},
                           },
                           refuse);
}
