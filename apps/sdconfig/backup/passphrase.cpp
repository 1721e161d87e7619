#include "apps/sdconfig/backup/passphrase.h"

#include <unistd.h>

#include "apps/sdconfig/terminal/secret_input.h"

namespace cli {

namespace {

Passphrase ask(const std::string& prompt) {
    SecretInput input = readSecretLine(prompt);
    return {SecretText(std::move(input.value)), input.problem};
}

}  // namespace

Passphrase readPassphrase(const std::string& what, Asking asking) {
    Passphrase first = ask(what + " (not shown): ");
    if (!first.problem.empty()) return first;
    if (first.text.get().empty()) return {{}, "the passphrase is empty"};
    if (asking == Asking::Once || !::isatty(STDIN_FILENO)) return first;
    const Passphrase second = ask("The same again: ");
    if (!second.problem.empty()) return {{}, second.problem};
    if (second.text.get() != first.text.get()) return {{}, "the two passphrases differ"};
    return first;
}

}  // namespace cli
