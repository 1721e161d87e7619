// sdconfig, the command line: the first program, which has what a shell calls often.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/hand_over.h"
#include "apps/sdconfig/program.h"
#include "apps/sdconfig/request/request.h"

namespace {

// For another user a command that may be handed over is the second's, which could not become that user once more.
bool actsForItself(const cli::Request& request) {
    return request.user.empty();
}

}  // namespace

int main(int argc, char** argv) {
    return cli::runProgram(argc, argv,
                           {
                               {"get", cli::getProperty},
                               {"set", cli::setProperty, actsForItself},
                               {"delete", cli::deleteProperty},
                               {"secure get", cli::getSecure},
                               {"secure set", cli::setSecure, actsForItself},
                               {"secure delete", cli::deleteShownSecure, actsForItself},
                               {"secure exec", cli::executeWithSecrets},
                               {"policy set", cli::setPolicy, actsForItself},
                               {"policy get", cli::getPolicy},
                               {"policy delete", cli::deletePolicy},
                               {"policy strong", cli::showStrong},
                               {"policy clear", cli::clearPolicies},
                               {"key rotate", cli::rotateKey},
                               {"key disable", cli::disableKey},
                               {"key enable", cli::enableKey},
                               {"key prune", cli::pruneKeys},
                               {"const", cli::getConst},
                               {"sign", cli::signText},
                               {"verify", cli::verifyText},
                               {"status", cli::showStatus},
                           },
                           cli::handOver);
}
