// sdconfig-data, the command line's second program, which has what looks into the data folder. The first one starts it.
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/program.h"
#include "apps/sdconfig/terminal/messages.h"

namespace {

int refuse(const cli::Request& request, char** /*argv*/) {
    return cli::fail(cli::kUsage, cli::attempt(request), "this program has no such command",
                     "type it as: " + cli::typed(request.command));
}

}  // namespace

int main(int argc, char** argv) {
    return cli::runProgram(argc, argv,
                           {
                               {"secure delete", cli::deleteSecure},
                               {"policy list", cli::listPolicies},
                               {"policy export", cli::exportPolicies},
                               {"policy apply", cli::applyPolicies},
                               {"explain", cli::explainKey},
                               {"watch", cli::watchPatterns},
                               {"list", cli::listKeys},
                               {"key list", cli::listKeyRing},
                               {"upgrade", cli::upgradeDatabase},
                               {"doctor", cli::diagnoseService},
                               {"check", cli::checkFolder},
                               {"backup", cli::backupData},
                               {"restore", cli::restoreData},
                           },
                           refuse);
}
