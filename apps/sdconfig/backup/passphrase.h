// Passphrases of backups and key rings.
#pragma once

#include <string>

#include "apps/sdconfig/backup/backup_seal.h"

namespace cli {

struct Passphrase {
    SecretText text;
    std::string problem;  // for a person, where there is none; else ""
};

inline constexpr char kPassphraseOfBackup[] = "Passphrase of the backup";

enum class Asking { Once, Twice };

// The first line of standard input; at a terminal it is asked for, by what it is, and not shown.
// Twice: at a terminal alone; a slip in a new passphrase would lock its owner out.
Passphrase readPassphrase(const std::string& what, Asking asking);

}  // namespace cli
