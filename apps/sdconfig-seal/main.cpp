// Seals the key of a slot with the machine's own key for the user who asks, and opens it for no other. systemd starts
// it as root, a process for each connection to /run/sdconfig/seal; sdconfig-seal(8) and docs/security.md tell more.
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>

#include "apps/sdconfig-seal/connection.h"
#include "apps/sdconfig-seal/machine_key.h"
#include "platform/sdsecurity/hex.h"

namespace seal {
namespace {

// Who sends nothing holds one of few connections.
constexpr std::chrono::milliseconds kRequestLimit{2000};

// Where a user is of none of the kernel's names here, as one from outside of a container is, it stands for all of
// those.
constexpr uid_t kNobodyKnown = 65534;

using Answer = FixedText<kMaxLine>;

bool beginsWith(std::string_view text, std::string_view begin) {
    return text.substr(0, begin.size()) == begin;
}

bool takeOption(const char* argument, MachineOptions& options) {
    if (beginsWith(argument, "--tpm2-device=")) {
        options.tpmDevice = argument;
        return true;
    }
    if (beginsWith(argument, "--tpm2-pcrs=")) {
        options.tpmRegisters = argument;
        return true;
    }
    // Those that seal with something; systemd-creds knows others.
    for (const std::string_view key : {"--with-key=auto", "--with-key=host", "--with-key=tpm2", "--with-key=host+tpm2"})
        if (argument == key) {
            options.withKey = argument;
            return true;
        }
    return false;
}

// As in sdconfigd: a limit of one byte stops the program that takes dumps, too. systemd-creds inherits it.
bool stopDumps() {
    const rlimit limit{1, 1};
    return ::setrlimit(RLIMIT_CORE, &limit) == 0;
}

Outcome seal(std::string_view digits, const Asker& asker, const MachineOptions& options, const sd::Deadline& deadline,
             Answer& result) {
    SlotKey key;
    if (!sd::security::readHex(digits, key.bytes)) return {kRefused, "it is no slot's key"};
    FixedText<kMaxText> sealed;
    const Outcome outcome = sealFor(asker.user, key, options, deadline, sealed);
    if (outcome.isDone()) result.add(sealed.view());
    return outcome;
}

Outcome open(std::string_view text, const Asker& asker, const MachineOptions& options, const sd::Deadline& deadline,
             Answer& result) {
    if (!isText(text)) return {kRefused, "it is nothing that was sealed"};
    SlotKey key;
    const Outcome outcome = openFor(asker.user, text, options, deadline, key);
    if (outcome.isDone()) sd::security::appendHex(key.bytes, result);
    return outcome;
}

struct Served {
    const char* what = "asked";  // what was asked for, for the log
    Outcome outcome;
};

Served serve(const Asker& asker, const MachineOptions& options, const sd::Deadline& deadline, Answer& result) {
    if (asker.user == kNobodyKnown) return {"asked", {kRefused, "nothing is sealed for a user who is not known here"}};
    const Turn turn(std::getenv("RUNTIME_DIRECTORY"), asker.user);
    if (!turn.isTaken()) return {"asked", {kLater, "this user asks for too much at a time"}};
    FixedText<kMaxLine> request;
    if (const char* const wrong = readRequest(request, sd::Deadline(kRequestLimit)))
        return {"asked", {kRefused, wrong}};
    const std::string_view line = request.view();
    if (beginsWith(line, kSeal)) return {"seal", seal(line.substr(kSeal.size()), asker, options, deadline, result)};
    if (beginsWith(line, kOpen)) return {"open", open(line.substr(kOpen.size()), asker, options, deadline, result)};
    return {"asked", {kRefused, "it is no request"}};
}

// Who asked for what and what came of it. The number at the begin is the journal's level.
void tell(const Asker& asker, const Served& served) {
    const char* const level = served.outcome.isDone() ? "6" : served.outcome.isFault ? "3" : "4";
    std::fprintf(stderr, "<%s>%s: user %u, process %d: %s%s\n", level, served.what, asker.user, asker.process,
                 served.outcome.isDone() ? "done" : "not done: ", served.outcome.reason);
}

int run(int argc, char** argv) {
    const sd::Deadline deadline(kAnsweringLimit);
    MachineOptions options;
    for (int i = 1; i < argc; ++i) {
        if (takeOption(argv[i], options)) continue;
        std::fprintf(stderr, "<3>%s is no option; sdconfig-seal(8) has those there are\n", argv[i]);
        return 2;
    }
    Asker asker;
    if (!findAsker(asker)) {
        std::fputs("<3>systemd starts this program, with a connection; see sdconfig-seal(8)\n", stderr);
        return 2;
    }
    if (!stopDumps()) std::fputs("<4>can't stop core dumps\n", stderr);
    Answer result;
    const Served served = serve(asker, options, deadline, result);
    Answer line;
    line.add(served.outcome.word).add(served.outcome.isDone() ? result.view() : served.outcome.reason).add("\n");
    if (!answer(line.view())) std::fputs("<4>the answer was not taken\n", stderr);
    tell(asker, served);
    return 0;  // a unit that failed would be one more thing to look after
}

}  // namespace
}  // namespace seal

int main(int argc, char** argv) {
    return seal::run(argc, argv);
}
