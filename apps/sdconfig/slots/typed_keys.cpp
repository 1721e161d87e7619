#include "apps/sdconfig/slots/typed_keys.h"

#include <unistd.h>

#include <utility>

#include "apps/sdconfig/backup/passphrase.h"
#include "apps/sdconfig/service/slot_calls.h"
#include "apps/sdconfig/terminal/secret_input.h"

namespace cli {

namespace {

constexpr int kTries = 3;
constexpr char kPassphrase[] = "Passphrase of the key ring";
constexpr char kCode[] = "Recovery code (not shown): ";

// A code without what may differ in its spelling.
SecretText spelled(const std::string& code) {
    std::string plain;
    plain.reserve(code.size());  // one that grew would leave pieces in memory
    for (char c : code) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        if (c == 'O') c = '0';
        if (c == 'I' || c == 'L') c = '1';
        if (c != '-' && c != ' ') plain += c;
    }
    return SecretText(std::move(plain));
}

void showCode(const std::string& code) {
    const std::string text =
        "The recovery code opens the key ring where nothing else does: after a loss of this machine, its TPM, the\n"
        "keyring or the passphrase. It is shown this once: write it down, and keep it elsewhere.\n\n    " +
        code + "\n\n";
    (void)!::write(STDERR_FILENO, text.data(), text.size());
}

// Whether it comes back as it was shown.
Problem typedAgain(const std::string& code) {
    for (int left = kTries; left > 0; --left) {
        SecretInput input = readSecretLine("Type it again (not shown): ");
        const SecretText typed(std::move(input.value));
        if (!input.problem.empty()) return {input.problem, "nothing was changed; " + input.next};
        if (spelled(typed.get()).get() == spelled(code).get()) return {};
        if (left > 1) note("that is not the code; letter case, blanks and dashes make no difference");
    }
    return {"the code was not typed as it was shown", "nothing was changed; repeat it, for another code"};
}

Problem problemOf(const Passphrase& passphrase) {
    return passphrase.problem.empty() ? Problem{} : Problem{passphrase.problem, "nothing was changed; repeat it"};
}

}  // namespace

Problem TypedKeys::stretch(Kind kind, Use use, const std::string& typed, std::optional<SecretText>& key) {
    noteStretching();
    std::string made;
    const auto result = sd::SDSecurity::GetInstance()->MakeSlotKey(kind, use, typed, made);
    key.emplace(std::move(made));
    return problemOf(result.outcome, result.reason);
}

Problem TypedKeys::makeCode(bool printed) {
    const std::string code = sd::SDSecurity::MakeRecoveryCode();
    if (code.empty()) return problemOf(sd::SDSecurity::SlotOutcome::Failed, "");
    if (printed) {
        mCode = code;
    } else {
        showCode(code);
        if (Problem problem = typedAgain(code)) return problem;
    }
    return stretch(Kind::Recovery, Use::Fresh, code, mRecovery);
}

Problem TypedKeys::makePassphrase() {
    const Passphrase passphrase = readPassphrase("New passphrase of the key ring", Asking::Twice);
    if (Problem problem = problemOf(passphrase)) return problem;
    return stretch(Kind::Passphrase, Use::Fresh, passphrase.text.get(), mPassphrase);
}

Problem TypedKeys::takePassphrase() {
    const Passphrase passphrase = readPassphrase(kPassphrase, Asking::Once);
    if (Problem problem = problemOf(passphrase)) return problem;
    return stretch(Kind::Passphrase, Use::Standing, passphrase.text.get(), mPassphrase);
}

Problem TypedKeys::takeCode() {
    SecretInput input = readSecretLine(kCode);
    const SecretText code(std::move(input.value));
    if (!input.problem.empty()) return {input.problem, input.next};
    return stretch(Kind::Recovery, Use::Standing, code.get(), mRecovery);
}

sd::SDSecurity::SlotKeys TypedKeys::slotKeys() const {
    return {mRecovery ? mRecovery->get() : "", mPassphrase ? mPassphrase->get() : ""};
}

}  // namespace cli
