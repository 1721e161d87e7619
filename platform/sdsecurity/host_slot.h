// The slot whose key the machine seals: with its own key, and its TPM where there is one. Only root may have that done,
// so a service of root does it for each user (sdconfig-seal); systemd does it itself from version 256 on.
#pragma once

#include <string>
#include <utility>

#include "platform/sdsecurity/slot_answer.h"

namespace sd::security {

// Where those who seal are found; the defaults are the machine's.
struct HostSealers {
    HostSealers() = default;
    // By sdconfig-seal at this socket alone.
    HostSealers(std::string socketOfService) : socket(std::move(socketOfService)), systemSocket() {}

    std::string socket = "/run/sdconfig/seal";
    // Where systemd seals for users itself, there is this socket, and the program knows "--user".
    std::string systemSocket = "/run/systemd/io.systemd.Credentials";
    std::string systemdCreds = "/usr/bin/systemd-creds";
};

// Any thread. Each takes at most 5 s for every one of the two that it asks; a TPM needs up to one of them. Neither
// throws but for memory.

// Seals a slot's key of kKeySize bytes for the user that this process runs as. What it gives begins with who sealed it,
// "user:" (systemd for users) or "seal:" (sdconfig-seal).
SlotAnswer sealByHost(const SecretBytes& key, const HostSealers& sealers = {});

// Opens what sealByHost gave. Any bytes are safe.
// NotNow: nobody is there to open it, or it took too long. Refused: it was sealed for another user, by another machine
// or another state of its TPM, or it was changed; or somebody else than root answers.
SlotAnswer openByHost(const std::string& sealed, const HostSealers& sealers = {});

}  // namespace sd::security
