// The connection that systemd hands over as standard input, and who made it.
#pragma once

#include <sys/types.h>

#include <string_view>

#include "apps/sdconfig-seal/fixed_text.h"
#include "base/deadline.h"
#include "base/unique_fd.h"
#include "platform/sdsecurity/seal_protocol.h"

namespace seal {

// Who connected, as the kernel tells.
struct Asker {
    uid_t user = 0;
    pid_t process = 0;
};

// False where standard input is no connection.
bool findAsker(Asker& asker);

// Reads the one line of a request, without its line feed. Returns what is wrong with it, or null.
const char* readRequest(FixedText<sd::security::seal::kMaxLine>& line, const sd::Deadline& deadline);

// False where the other side is gone or takes nothing.
bool answer(std::string_view line);

// So that one user can't have all the connections that there may be: some at a time for each. Held while it lives.
// Nothing where this user has those. folder: one that all processes of this program share; null: nothing is counted.
class Turn {
public:
    Turn(const char* folder, uid_t user);
    bool isTaken() const { return mIsTaken; }

private:
    sd::UniqueFd mFile;
    bool mIsTaken = false;
};

}  // namespace seal
