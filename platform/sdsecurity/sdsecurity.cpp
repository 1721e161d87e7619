#include "platform/sdsecurity/sdsecurity.h"

#include <exception>
#include <map>
#include <mutex>
#include <optional>

#include "platform/sdsecurity/crypto.h"
#include "platform/sdsecurity/envelope.h"
#include "platform/sdsecurity/key_store.h"
#include "platform/sdsecurity/log.h"

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

}  // namespace

struct SDSecurity::State {
    security::KeyStore keys;
    std::mutex stringsMutex;
    std::map<std::string, std::string> strings;  // guarded by stringsMutex
};

SDSecurity::SDSecurity() : mState(std::make_unique<State>()) {
    guarded(__func__, false, [] { return security::demandCrypto(), true; });
}
SDSecurity::~SDSecurity() = default;

SDSecurity* SDSecurity::GetInstance() {
    static SDSecurity* const sInstance = new SDSecurity;
    return sInstance;
}

std::string SDSecurity::FastEncrypt(const std::string& plain) {
    return guarded(__func__, std::string(), [&]() -> std::string {
        const auto ring = mState->keys.ringToSeal();
        if (!ring) return "";
        std::optional<std::string> text = security::sealEnvelope(ring->current(), plain);
        if (!text)
            LOG(7, AT "a value of %zu bytes is too long to be sealed", kSource, "FastEncrypt", __LINE__, plain.size());
        return text ? std::move(*text) : "";
    });
}

std::string SDSecurity::FastDecrypt(const std::string& cipher) {
    return guarded(__func__, std::string(), [&]() -> std::string {
        const std::optional<security::Envelope> envelope = security::parseEnvelope(cipher);
        if (!envelope) {
            LOG(7, AT "a text of %zu bytes is no envelope", kSource, "FastDecrypt", __LINE__, cipher.size());
            return "";
        }
        const auto ring = mState->keys.ringToOpen(envelope->keyId);
        if (!ring) return "";
        std::optional<std::string> plain = security::openEnvelope(*ring->find(envelope->keyId), *envelope);
        if (!plain)
            LOG(7, AT "an envelope of %zu bytes was changed after it was sealed", kSource, "FastDecrypt", __LINE__,
                cipher.size());
        return plain ? std::move(*plain) : "";
    });
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

SDSecurity::KeyRingStatus SDSecurity::CheckKeyRing() {
    try {
        return mState->keys.check();
    } catch (const std::exception& error) {
        return {KeyRingState::Broken, error.what()};
    }
}

SDSecurity::KeyUse SDSecurity::CheckKeyUse() {
    return guarded(__func__, KeyUse::Fine, [&] { return mState->keys.use(); });
}

std::string SDSecurity::SelfTest() {
    try {
        const security::Key key = mState->keys.keyToTry();
        const auto envelope = security::parseEnvelope(security::sealEnvelope(key, __func__).value());
        const bool same = envelope && security::openEnvelope(key, *envelope) == __func__;
        return same ? "" : "what was sealed does not open again";
    } catch (const std::exception& error) {
        return error.what();
    }
}

bool SDSecurity::RotateKey() {
    return guarded(__func__, false, [&] { return mState->keys.rotate(); });
}

}  // namespace sd
