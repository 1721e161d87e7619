#include "apps/sdconfig/passphrase.h"

#include <unistd.h>

#include "apps/sdconfig/secret_input.h"

namespace cli {

namespace {

Passphrase ask(const std::string& prompt) {
    SecretInput input = readSecret(prompt);
    Passphrase result{SecretText(std::move(input.value)), input.problem};
    const std::string& text = result.text.get();
    if (const std::size_t end = text.find('\n'); end != std::string::npos)
        return {SecretText(text.substr(0, end)), input.problem};
    return result;
}

}  // namespace

Passphrase readPassphrase(Asking asking) {
    Passphrase first = ask("Passphrase of the backup (not shown): ");
    if (!first.problem.empty()) return first;
    if (first.text.get().empty()) return {{}, "the passphrase is empty"};
    if (asking == Asking::Once || !::isatty(STDIN_FILENO)) return first;
    const Passphrase second = ask("The same again: ");
    if (!second.problem.empty()) return {{}, second.problem};
    if (second.text.get() != first.text.get()) return {{}, "the two passphrases differ"};
    return first;
}

}  // namespace cli
