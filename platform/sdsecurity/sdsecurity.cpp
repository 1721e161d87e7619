#define SDSECURITY_OPTIONAL  // nothing is to be lacking here
#include "platform/sdsecurity/sdsecurity.h"

#include <exception>
#include <map>
#include <mutex>
#include <optional>

#include "platform/sdsecurity/crypto.h"
#include "platform/sdsecurity/envelope.h"
#include "platform/sdsecurity/key_store.h"
#include "platform/sdsecurity/log.h"
#include "platform/sdsecurity/recovery_code.h"

namespace sd {
namespace {

using security::kTag;
constexpr char kSource[] = "platform/sdsecurity/sdsecurity";

// Runs an operation that promises not to throw; memory may run out in any.
template <class Result, class Operation>
Result guarded(const char* name, Result failed, Operation operation) {
    try {
        return operation();
    } catch (const std::exception& error) {
        LOG(7, AT "%s", kSource, name, __LINE__, error.what());
        return failed;
    }
}

template <class Operation>
SDSecurity::SlotResult slotResult(Operation operation) {
    try {
        return operation();
    } catch (const std::exception& error) {
        return {SDSecurity::SlotOutcome::Failed, error.what()};
    }
}

// What became of a text that KeyStore had a key for; without one its line has told.
const char* textOf(SDSecurity::OpenResult why, bool forRow) {
    switch (why) {
        case SDSecurity::OpenResult::NoEnvelope:
            return "is no envelope";
        case SDSecurity::OpenResult::OtherRow:
            return forRow ? "belongs to another row" : "belongs to a row, and opens for that one alone";
        case SDSecurity::OpenResult::UnboundForm:
            return "is bound to no row, which its key ring no longer allows";
        default:
            return "was changed after it was sealed";
    }
}

// As the lines begin that are about a row.
std::string nameOf(const SDSecurityRow* row) {
    if (!row) return "";
    return std::string(row->database) + ", " + std::string(row->table) + ", " + std::string(row->key) + ": ";
}

}  // namespace

struct SDSecurity::State {
    // Both log a line where they fail. row: null for none.
    std::string seal(const char* caller, const SDSecurityRow* row, const std::string& plain);
    OpenResult open(const char* caller, const SDSecurityRow* row, const std::string& cipher, std::string& plain);

    KeyRingStatus check(security::Wait wait);

    security::KeyStore keys;
    std::mutex stringsMutex;
    std::map<std::string, std::string> strings;  // guarded by stringsMutex
};

std::string SDSecurity::State::seal(const char* caller, const SDSecurityRow* row, const std::string& plain) {
    const auto ring = keys.ringToSeal();
    if (!ring) return "";
    std::optional<std::string> text = security::sealEnvelope(ring->current(), plain, row);
    if (!text)
        LOG(7, AT "%sa value of %zu bytes is too long to be sealed", kSource, caller, __LINE__, nameOf(row).c_str(),
            plain.size());
    return text ? std::move(*text) : "";
}

SDSecurity::OpenResult SDSecurity::State::open(const char* caller, const SDSecurityRow* row, const std::string& cipher,
                                               std::string& plain) {
    const auto fail = [&](OpenResult why) {
        LOG(7, AT "%s%s of %zu bytes %s", kSource, caller, __LINE__, nameOf(row).c_str(),
            why == OpenResult::NoEnvelope ? "a text" : "an envelope", cipher.size(), textOf(why, row != nullptr));
        return why;
    };
    const std::optional<security::Envelope> envelope = security::parseEnvelope(cipher);
    if (!envelope) return fail(OpenResult::NoEnvelope);
    OpenResult why = OpenResult::Failed;
    const auto ring = keys.ringToOpen(envelope->keyId, why);
    if (!ring) return why;
    if (row && !envelope->isBound && ring->requiresBoundForm) return fail(OpenResult::UnboundForm);
    why = security::openEnvelope(*ring->find(envelope->keyId), *envelope, row, plain);
    return why == OpenResult::Done ? why : fail(why);
}

SDSecurity::KeyRingStatus SDSecurity::State::check(security::Wait wait) {
    try {
        return keys.check(wait);
    } catch (const std::exception& error) {
        return {KeyRingState::Broken, error.what()};
    }
}

SDSecurity::SDSecurity() : mState(std::make_unique<State>()) {
    guarded(__func__, false, [] { return security::demandCrypto(), true; });
}
SDSecurity::~SDSecurity() = default;

SDSecurity* SDSecurity::GetInstance() {
    static SDSecurity* const sInstance = new SDSecurity;
    return sInstance;
}

std::string SDSecurity::FastEncrypt(const std::string& plain) {
    return guarded(__func__, std::string(), [&] { return mState->seal("FastEncrypt", nullptr, plain); });
}

std::string SDSecurity::FastDecrypt(const std::string& cipher) {
    std::string plain;
    guarded(__func__, OpenResult::Failed, [&] { return mState->open("FastDecrypt", nullptr, cipher, plain); });
    return plain;
}

std::string SDSecurity::EncryptForRow(const SDSecurityRow& row, const std::string& plain) {
    State& state = *GetInstance()->mState;
    return guarded(__func__, std::string(), [&] { return state.seal("EncryptForRow", &row, plain); });
}

std::string SDSecurity::DecryptForRow(const SDSecurityRow& row, const std::string& cipher, OpenResult* why) {
    State& state = *GetInstance()->mState;
    std::string plain;
    const OpenResult opened =
        guarded(__func__, OpenResult::Failed, [&] { return state.open("DecryptForRow", &row, cipher, plain); });
    if (why) *why = opened;
    return plain;
}

std::string SDSecurity::GetString(const std::string& name) {
    return guarded(__func__, std::string(), [&]() -> std::string {
        const std::lock_guard lock(mState->stringsMutex);
        const auto found = mState->strings.find(name);
        return found == mState->strings.end() ? "" : found->second;
    });
}

void SDSecurity::RegisterString(const std::string& name, const std::string& value) {
    guarded(__func__, false, [&] {
        const std::lock_guard lock(mState->stringsMutex);
        mState->strings[name] = value;
        return true;
    });
}

void SDSecurity::SetKeyRingFolder(const std::string& folder) {
    guarded(__func__, false, [&] {
        mState->keys.useFolder(folder);
        return true;
    });
}

bool SDSecurity::SetKeyRingDescriptor(int descriptor) {
    return guarded(__func__, false, [&] { return mState->keys.useDescriptor(descriptor); });
}

void SDSecurity::SetSealSocket(const std::string& path) {
    guarded(__func__, false, [&] { return mState->keys.setSealSocket(path), true; });
}

void SDSecurity::SetKeyringProgram(const std::string& path) {
    guarded(__func__, false, [&] { return mState->keys.setKeyringProgram(path), true; });
}

SDSecurity::KeyRingStatus SDSecurity::CheckKeyRing() {
    return mState->check(security::Wait::Yes);
}

SDSecurity::KeyRingStatus SDSecurity::OpenKeyRingAhead() {
    guarded(__func__, false, [&] { return mState->keys.watchKeyring(), true; });
    return mState->check(security::Wait::No);
}

SDSecurity::KeyUse SDSecurity::CheckKeyUse() {
    return guarded(__func__, KeyUse::Fine, [&] { return mState->keys.use(); });
}

std::string SDSecurity::SelfTest() {
    try {
        const SDSecurityRow row{"database", "table", "key"};
        const security::Key key = mState->keys.keyToTry();
        const auto envelope = security::parseEnvelope(security::sealEnvelope(key, __func__, &row).value());
        std::string plain;
        const bool opened = envelope && security::openEnvelope(key, *envelope, &row, plain) == OpenResult::Done;
        return opened && plain == __func__ ? "" : "what was sealed does not open again";
    } catch (const std::exception& error) {
        return error.what();
    }
}

bool SDSecurity::RotateKey() {
    return guarded(__func__, false, [&] { return mState->keys.rotate(); });
}

std::vector<SDSecurity::KeyInfo> SDSecurity::Keys() {
    return guarded(__func__, std::vector<KeyInfo>(), [&] { return mState->keys.keys(); });
}

bool SDSecurity::SetKeyState(const std::string& id, KeyState state) {
    return guarded(__func__, false, [&] { return mState->keys.setState(id, state); });
}

bool SDSecurity::RemoveKey(const std::string& id) {
    return guarded(__func__, false, [&] { return mState->keys.removeKey(id); });
}

bool SDSecurity::RequireBoundForm() {
    return guarded(__func__, false, [&] { return mState->keys.requireBoundForm(); });
}

bool SDSecurity::RequiresBoundForm() {
    return guarded(__func__, false, [&] { return mState->keys.requiresBoundForm(); });
}

std::string SDSecurity::DigestUnderKey(const std::string& id, const std::vector<std::string_view>& texts) {
    return guarded(__func__, std::string(), [&]() -> std::string {
        const std::optional<security::KeyId> key = security::keyIdOf(id);
        OpenResult why{};
        const auto ring = key ? GetInstance()->mState->keys.ringToOpen(*key, why) : nullptr;
        return ring ? security::digestUnder(*ring->find(*key), texts) : "";
    });
}

std::optional<SDSecurity::Seal> SDSecurity::SealOf(const std::string& cipher) {
    return guarded(__func__, std::optional<Seal>(), [&]() -> std::optional<Seal> {
        const std::optional<security::Envelope> envelope = security::parseEnvelope(cipher);
        if (!envelope) return std::nullopt;
        return Seal{security::toHex(envelope->keyId), envelope->isBound};
    });
}

std::vector<SDSecurity::SlotInfo> SDSecurity::Slots() {
    return guarded(__func__, std::vector<SlotInfo>(), [&] { return mState->keys.slots(); });
}

std::vector<SDSecurity::SlotInfo> SDSecurity::KnownSlots() {
    return guarded(__func__, std::vector<SlotInfo>(), [&] { return mState->keys.knownSlots(); });
}

std::string SDSecurity::MakeRecoveryCode() {
    return guarded(__func__, std::string(), []() -> std::string {
        const security::SecretBytes code = security::makeRecoveryCode();
        return {code.begin(), code.end()};
    });
}

SDSecurity::SlotResult SDSecurity::MakeSlotKey(SlotKind kind, SlotUse use, const std::string& typed, std::string& key) {
    return slotResult([&] { return mState->keys.makeSlotKey(kind, use, typed, key); });
}

SDSecurity::SlotResult SDSecurity::Protect(SlotKind kind, const SlotKeys& keys) {
    return slotResult([&] { return mState->keys.protect(kind, keys); });
}

SDSecurity::SlotResult SDSecurity::Unprotect(SlotKind kind, const SlotKeys& keys) {
    return slotResult([&] { return mState->keys.unprotect(kind, keys); });
}

SDSecurity::SlotResult SDSecurity::UnprotectAll() {
    return slotResult([&] { return mState->keys.unprotectAll(); });
}

SDSecurity::SlotResult SDSecurity::Unlock(const std::string& key) {
    return slotResult([&] { return mState->keys.unlock(key); });
}

SDSecurity::SlotResult SDSecurity::Recover(const std::string& key) {
    return slotResult([&] { return mState->keys.recover(key); });
}

}  // namespace sd
