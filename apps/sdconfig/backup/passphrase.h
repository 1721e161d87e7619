// The passphrase of a backup.
#pragma once

#include <string>

#include "apps/sdconfig/backup/backup_seal.h"

namespace cli {

struct Passphrase {
    SecretText text;
    std::string problem;  // for a person, where there is none; else ""
};

enum class Asking { Once, Twice };

// The first line of standard input; at a terminal it is asked for and not shown.
// Twice: at a terminal alone; a slip in a new passphrase would lock its owner out.
Passphrase readPassphrase(Asking asking);

}  // namespace cli
