#include "apps/sdconfig/service/key_calls.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "apps/sdconfig/service/service.h"
#include "platform/sdbus/sdbus.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

using sd::protocol::KeyOutcome;
using Clock = std::chrono::steady_clock;

constexpr int kPause = 5;  // for each step, so many times as long

Problem problemOf(KeyOutcome outcome) {
    switch (outcome) {
        case KeyOutcome::Done:
            return {};
        case KeyOutcome::NoRing:
            return {"there is no key ring yet", "store a secure value or a policy: the first one makes it"};
        case KeyOutcome::RingUnusable:
            return {"the service can't read or change its key ring", ""};
        case KeyOutcome::LayerWithout:
            return {"the service seals with a security layer that can't do this", "use that layer's own means"};
        case KeyOutcome::UnknownKey:
            return {"the key ring has no such key", "see the ids with: " + typed("key list")};
        case KeyOutcome::AmbiguousKey:
            return {"the ids of several keys begin so", "give more digits; see them with: " + typed("key list")};
        case KeyOutcome::KeySeals:
            return {"it is the key that seals", "let another one seal first, with: " + typed("key rotate")};
        case KeyOutcome::NotRead:
            return {"the service can't read a database", "see what is wrong with: " + typed("check")};
        case KeyOutcome::NotSealed:
            return {"the service could not seal a value", ""};
        case KeyOutcome::NotStored:
            return {"the service could not store it, as on a full disk; nothing was lost",
                    "see what is wrong with: " + typed("doctor") + ", and repeat this"};
        case KeyOutcome::RingLocked:
            return {"the key ring is locked", "open it with: " + typed("key unlock") + ", or " + typed("key recover")};
        case KeyOutcome::RingFull:
            return {"the key ring holds " + std::to_string(sd::SDSecurity::kMostKeys) + " keys and takes no more",
                    "remove those that nothing is sealed with: " + typed("key prune")};
    }
    return {"the service answers with something that this version doesn't know", "install both from one package"};
}

// Reads an answer's arguments one after the other.
class Reader {
public:
    explicit Reader(SDBusMessage& message) : mMessage(message) {}

    int number() { return mMessage.getInt(mAt++); }
    std::size_t count() { return static_cast<std::size_t>(std::max(0, mMessage.getInt32(mAt++))); }
    std::size_t keys() { return std::min(count(), sd::SDSecurity::kMostKeys); }
    bool flag() { return mMessage.getBool(mAt++); }
    std::string text() { return mMessage.getString(mAt++); }
    Problem problem() { return problemOf(static_cast<KeyOutcome>(number())); }
    RowNames rows() {
        RowNames rows;
        rows.count = count();
        for (int left = number(); left > 0; --left) {
            const bool isPolicy = flag();
            rows.first.push_back({isPolicy, text()});
        }
        return rows;
    }

private:
    SDBusMessage& mMessage;
    int mAt = 0;
};

// Makes one call after the other until one says that it was the last. method: what is called. saysFirst: whether the
// calls have an argument, true for the first. read: takes what an answer has behind the percentage.
template <class Result, class Read>
Result inSteps(const Service& service, const char* method, bool saysFirst, const Progress& tell, Read read) {
    for (bool isFirst = true;; isFirst = false) {
        Result result;
        const auto began = Clock::now();
        const auto answer = service.ask(
            method,
            [&](SDBusMessage& call) {
                if (saysFirst) call.appendBool(isFirst);
            },
            "yby", result.exitCode);
        if (!answer) return result;
        Reader reader(*answer);
        result.problem = reader.problem();
        const bool isAtEnd = reader.flag();
        tell(reader.number());
        read(reader, result);
        if (result.problem || isAtEnd) return result;
        std::this_thread::sleep_for(kPause * (Clock::now() - began));
    }
}

}  // namespace

std::string textOf(const RowNames& rows) {
    std::string text;
    for (const auto& [isPolicy, key] : rows.first)
        text += (text.empty() ? "" : ", ") + std::string(isPolicy ? "policy " : "secure value ") + quoted(key);
    const std::size_t more = rows.count - rows.first.size();
    return more > 0 ? text + ", and " + std::to_string(more) + " more" : text;
}

Object objectsOf(const RowNames& rows) {
    Object all = Object::array();
    for (const auto& [isPolicy, key] : rows.first) {
        Object one;
        addBytes(one, isPolicy ? "uri" : "key", key);
        all.push_back(std::move(one));
    }
    return all;
}

Rotated rotate(const Service& service, bool reseal) {
    Rotated result;
    const auto answer = service.ask(
        sd::protocol::kKeyRotate, [&](SDBusMessage& call) { call.appendBool(reseal); }, "ysb", result.exitCode);
    if (!answer) return result;
    Reader reader(*answer);
    result.problem = reader.problem();
    result.keyId = reader.text();
    result.goesOn = reader.flag();
    return result;
}

KeyAnswer setEnabled(const Service& service, const std::string& id, bool enabled) {
    KeyAnswer result;
    const auto arguments = [&](SDBusMessage& call) {
        call.appendString(id);
        call.appendBool(enabled);
    };
    const auto answer = service.ask(sd::protocol::kKeyEnable, arguments, "ys", result.exitCode);
    if (!answer) return result;
    Reader reader(*answer);
    result.problem = reader.problem();
    result.keyId = reader.text();
    return result;
}

Resealed resealAll(const Service& service, const Progress& tell) {
    return inSteps<Resealed>(service, sd::protocol::kKeyReseal, false, tell, [](Reader& reader, Resealed& result) {
        result.keyId = reader.text();
        result.sealed = reader.count();
        result.left = reader.rows();
    });
}

Pruned prune(const Service& service, const Progress& tell) {
    return inSteps<Pruned>(service, sd::protocol::kKeyPrune, true, tell, [](Reader& reader, Pruned& result) {
        for (std::size_t left = reader.keys(); left > 0; --left) result.removed.push_back(reader.text());
        for (std::size_t left = reader.keys(); left > 0; --left) {
            std::string id = reader.text();
            result.needed.emplace_back(std::move(id), reader.rows());
        }
    });
}

ProgressLine::ProgressLine(std::string what) : mWhat(std::move(what)), mIsShown(::isatty(STDERR_FILENO) != 0) {}

ProgressLine::~ProgressLine() {
    constexpr char kErase[] = "\r\033[K";
    if (mIsShown && mPercent >= 0) (void)!::write(STDERR_FILENO, kErase, sizeof kErase - 1);
}

void ProgressLine::show(int percent) {
    if (!mIsShown || percent == mPercent) return;
    mPercent = percent;
    const std::string line = "\r" + mWhat + ": " + std::to_string(percent) + " %";
    (void)!::write(STDERR_FILENO, line.data(), line.size());
}

int refused(const Request& request, const KeyAnswer& answer) {
    return answer.exitCode ? answer.exitCode : keyRefused(request, answer.problem);
}

}  // namespace cli
