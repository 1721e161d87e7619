// The one class of messages, and its way to and from the wire.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/sdbus/sdbus.h"

namespace sdbus {

class PendingCall;

struct OtherKind {};  // an argument of a kind that this layer does not know: it has its position and no value
using Argument = std::variant<OtherKind, int8_t, int32_t, bool, std::string>;
using Arguments = std::vector<Argument>;

// Reads all arguments of a sealed message; the content of each top-level "av" stands in place of it. Nullopt when the
// message is malformed or has more arguments than wire::kArgumentsMax.
std::optional<Arguments> decodeArguments(sd_bus_message* message);

// The kinds of arguments, a letter each, as SDBusMessage::signature() has them.
std::string kindsOf(const Arguments& arguments);

// How arguments travel: worked out once, used for each peer that gets them.
class WirePlan {
public:
    // Nullopt when there are too many arguments, or too many bytes of them.
    static std::optional<WirePlan> make(const Arguments& arguments);

    // Appends the arguments that the plan was made for. False when sd-bus refuses.
    bool append(sd_bus_message* message, const Arguments& arguments) const;

    std::size_t bytes() const { return mBytes; }  // of the body, exactly

private:
    WirePlan() = default;

    std::string mKinds;     // a letter an argument; 'a' for "ay"
    bool mWrapped = false;  // all in one "av", because the signature would be too long otherwise
    std::size_t mBytes = 0;
};

class Message final : public SDBusMessage {
public:
    enum Type : int { kCall = 1, kReply = 2, kError = 3, kEvent = 4 };

    Message(Type messageType, std::string name, Arguments arguments = {}, SDBusErrorType error = SDBusNoError);
    static std::shared_ptr<Message> failure(SDBusErrorType error, Arguments arguments = {});

    void appendInt8(int8_t value) override;
    void appendInt32(int32_t value) override;
    void appendBool(bool value) override;
    void appendString(std::string value) override;
    void appendCString(const char* value) override;
    int getInt(int index) override;
    int32_t getInt32(int index) override;
    bool getBool(int index) override;
    std::string getString(int index) override;

    const Arguments& arguments() const { return mArguments; }

    // Of a call that came in: what its reply goes to. A reply made for it shares it.
    const std::shared_ptr<PendingCall>& pendingCall() const { return mPendingCall; }
    void setPendingCall(std::shared_ptr<PendingCall> call) { mPendingCall = std::move(call); }

private:
    template <typename Kind>
    const Kind* find(int index, const char* wanted) const;

    Arguments mArguments;
    std::shared_ptr<PendingCall> mPendingCall;
};

}  // namespace sdbus
