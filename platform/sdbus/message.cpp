// The one class of messages, and its way to and from the wire.
#include "platform/sdbus/message.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/sdbus/handles.h"
#include "platform/sdbus/log.h"
#include "platform/sdbus/utf8.h"
#include "platform/sdbus/wire.h"

namespace sdbus {
namespace {

constexpr char kSource[] = "platform/sdbus/message";
constexpr std::size_t kSignatureMax = 255;

// ---- Decoding ----

template <typename Value>
bool readBasic(sd_bus_message* message, char kind, Value& value) {
    return sd_bus_message_read_basic(message, kind, &value) > 0;
}

bool readBytes(sd_bus_message* message, Argument& argument) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    if (sd_bus_message_read_array(message, 'y', &bytes, &size) < 0) return false;
    argument.emplace<std::string>(static_cast<const char*>(bytes), size);
    return true;
}

bool isOneOf(const char* kinds, const char* contents) {
    return contents && contents[0] != '\0' && contents[1] == '\0' && std::strchr(kinds, contents[0]);
}

// Skips a value of a kind that is not one of ours, if it is made of no more than `left` values. sd-bus' own skip walks
// through 64 MiB of the shortest ones for 2 s, and every other client waits. Arrays of numbers it passes over at once.
bool skipValue(sd_bus_message* message, std::size_t& left) {
    char kind = 0;
    const char* contents = nullptr;
    if (left-- == 0 || sd_bus_message_peek_type(message, &kind, &contents) <= 0) return false;
    if (!contents) return sd_bus_message_skip(message, nullptr) >= 0;
    if (kind == SD_BUS_TYPE_ARRAY && isOneOf("ynqiuxtd", contents)) {
        const void* unused = nullptr;
        std::size_t size = 0;
        return sd_bus_message_read_array(message, contents[0], &unused, &size) >= 0;
    }
    if (sd_bus_message_enter_container(message, kind, contents) < 0) return false;
    int r = 0;
    while ((r = sd_bus_message_peek_type(message, &kind, nullptr)) > 0)
        if (!skipValue(message, left)) return false;
    return r == 0 && sd_bus_message_exit_container(message) >= 0;
}

// Reads the value at the read pointer, or skips it where its kind is not one of ours.
bool readArgument(sd_bus_message* message, char kind, const char* contents, Argument& argument, std::size_t& left) {
    switch (kind) {
        case SD_BUS_TYPE_BYTE: {
            uint8_t value = 0;
            if (!readBasic(message, kind, value)) return false;
            argument = static_cast<int8_t>(value);
            return true;
        }
        case SD_BUS_TYPE_INT32: {
            int32_t value = 0;
            if (!readBasic(message, kind, value)) return false;
            argument = value;
            return true;
        }
        case SD_BUS_TYPE_BOOLEAN: {
            int value = 0;
            if (!readBasic(message, kind, value)) return false;
            argument = value != 0;
            return true;
        }
        case SD_BUS_TYPE_STRING: {
            const char* value = nullptr;
            if (!readBasic(message, kind, value)) return false;
            argument = std::string(value);
            return true;
        }
        case SD_BUS_TYPE_ARRAY:
            if (contents && contents[0] == 'y' && contents[1] == '\0') return readBytes(message, argument);
            break;
        default:
            break;
    }
    argument = OtherKind{};
    return skipValue(message, left);
}

// Reads a variant: the value in it stands in its place.
bool readVariant(sd_bus_message* message, const char* signature, Argument& argument, std::size_t& left) {
    if (sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, signature) <= 0) return false;
    char kind = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(message, &kind, &contents) <= 0) return false;
    return readArgument(message, kind, contents, argument, left) && sd_bus_message_exit_container(message) >= 0;
}

bool readVariants(sd_bus_message* message, Arguments& arguments, std::size_t& left) {
    if (sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "v") < 0) return false;
    for (;;) {
        char kind = 0;
        const char* signature = nullptr;
        const int r = sd_bus_message_peek_type(message, &kind, &signature);
        if (r < 0) return false;
        if (r == 0) return sd_bus_message_exit_container(message) >= 0;
        if (arguments.size() == wire::kArgumentsMax) return false;
        if (!readVariant(message, signature, arguments.emplace_back(), left)) return false;
    }
}

bool isVariants(char kind, const char* contents) {
    return kind == SD_BUS_TYPE_ARRAY && contents && contents[0] == 'v' && contents[1] == '\0';
}

// ---- Encoding ----

std::size_t aligned(std::size_t offset, std::size_t to) {
    return (offset + to - 1) / to * to;
}

char wireKind(const Argument& argument) {
    constexpr std::array<char, 4> kKinds{'\0', SD_BUS_TYPE_BYTE, SD_BUS_TYPE_INT32, SD_BUS_TYPE_BOOLEAN};
    const auto* text = std::get_if<std::string>(&argument);
    if (!text) return kKinds[argument.index()];
    return isWireText(*text) ? SD_BUS_TYPE_STRING : SD_BUS_TYPE_ARRAY;
}

std::size_t signatureLength(char kind) {
    return kind == SD_BUS_TYPE_ARRAY ? 2 : 1;
}

const char* signatureOf(char kind) {
    switch (kind) {
        case SD_BUS_TYPE_BYTE:
            return "y";
        case SD_BUS_TYPE_INT32:
            return "i";
        case SD_BUS_TYPE_BOOLEAN:
            return "b";
        case SD_BUS_TYPE_STRING:
            return "s";
        default:
            return "ay";
    }
}

// Where the value ends that begins at `offset`, alignment included.
std::size_t endOf(std::size_t offset, char kind, const Argument& argument) {
    if (kind == SD_BUS_TYPE_BYTE) return offset + 1;
    offset = aligned(offset, 4) + 4;
    if (kind == SD_BUS_TYPE_STRING) return offset + std::get<std::string>(argument).size() + 1;
    if (kind == SD_BUS_TYPE_ARRAY) return offset + std::get<std::string>(argument).size();
    return offset;
}

// A variant begins with its signature: a length, the letters, a zero.
std::size_t endOfVariant(std::size_t offset, char kind, const Argument& argument) {
    return endOf(offset + 1 + signatureLength(kind) + 1, kind, argument);
}

bool appendArgument(sd_bus_message* message, char kind, const Argument& argument) {
    if (const auto* text = std::get_if<std::string>(&argument)) {
        if (kind == SD_BUS_TYPE_STRING) return sd_bus_message_append_basic(message, kind, text->c_str()) >= 0;
        return sd_bus_message_append_array(message, 'y', text->data(), text->size()) >= 0;
    }
    if (const auto* flag = std::get_if<bool>(&argument)) {
        const int value = *flag;
        return sd_bus_message_append_basic(message, kind, &value) >= 0;
    }
    if (const auto* number = std::get_if<int32_t>(&argument))
        return sd_bus_message_append_basic(message, kind, number) >= 0;
    const auto byte = static_cast<uint8_t>(std::get<int8_t>(argument));
    return sd_bus_message_append_basic(message, kind, &byte) >= 0;
}

bool appendVariant(sd_bus_message* message, char kind, const Argument& argument) {
    return sd_bus_message_open_container(message, SD_BUS_TYPE_VARIANT, signatureOf(kind)) >= 0 &&
           appendArgument(message, kind, argument) && sd_bus_message_close_container(message) >= 0;
}

bool isOverlong(char kind, const Argument& argument) {
    return kind == SD_BUS_TYPE_ARRAY && std::get<std::string>(argument).size() > wire::kArrayBytesMax;
}

const char* kindName(const Argument& argument) {
    constexpr std::array<const char*, 5> kNames{"another kind", "int8", "int32", "bool", "string"};
    return kNames[argument.index()];
}

}  // namespace

std::optional<Arguments> decodeArguments(sd_bus_message* message) {
    Arguments arguments;
    std::size_t left = wire::kArgumentsMax;  // values of other kinds, at any depth
    for (;;) {
        char kind = 0;
        const char* contents = nullptr;
        const int r = sd_bus_message_peek_type(message, &kind, &contents);
        if (r < 0) return std::nullopt;
        if (r == 0) return arguments;
        if (arguments.size() == wire::kArgumentsMax) return std::nullopt;
        const bool read = isVariants(kind, contents)
                              ? readVariants(message, arguments, left)
                              : readArgument(message, kind, contents, arguments.emplace_back(), left);
        if (!read) return std::nullopt;
    }
}

std::string kindsOf(const Arguments& arguments) {
    static constexpr char kLetters[] = "?yibs";  // in the order of the variant's kinds
    static_assert(std::variant_size_v<Argument> == sizeof kLetters - 1);
    std::string kinds;
    for (const Argument& argument : arguments) kinds += kLetters[argument.index()];
    return kinds;
}

std::optional<WirePlan> WirePlan::make(const Arguments& arguments) {
    if (arguments.size() > wire::kArgumentsMax) return std::nullopt;
    WirePlan plan;
    plan.mKinds.reserve(arguments.size());
    std::size_t signature = 0;
    for (const Argument& argument : arguments) {
        const char kind = wireKind(argument);
        if (kind == '\0' || isOverlong(kind, argument)) return std::nullopt;
        plan.mKinds.push_back(kind);
        signature += signatureLength(kind);
    }
    plan.mWrapped = signature > kSignatureMax;
    if (plan.mWrapped) plan.mBytes = 4;  // the array's length
    for (std::size_t i = 0; i < arguments.size(); ++i)
        plan.mBytes = plan.mWrapped ? endOfVariant(plan.mBytes, plan.mKinds[i], arguments[i])
                                    : endOf(plan.mBytes, plan.mKinds[i], arguments[i]);
    if (plan.mBytes > (plan.mWrapped ? wire::kArrayBytesMax : wire::kMessageBytesMax)) return std::nullopt;
    return plan;
}

bool WirePlan::append(sd_bus_message* message, const Arguments& arguments) const {
    if (mWrapped && sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "v") < 0) return false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const bool appended = mWrapped ? appendVariant(message, mKinds[i], arguments[i])
                                       : appendArgument(message, mKinds[i], arguments[i]);
        if (!appended) return false;
    }
    return !mWrapped || sd_bus_message_close_container(message) >= 0;
}

Message::Message(Type messageType, std::string name, Arguments arguments, SDBusErrorType error)
    : SDBusMessage(messageType, std::move(name), error), mArguments(std::move(arguments)) {}

std::shared_ptr<Message> Message::failure(SDBusErrorType error, Arguments arguments) {
    return std::make_shared<Message>(kError, "", std::move(arguments), error);
}

void Message::appendInt8(int8_t value) {
    mArguments.emplace_back(value);
}
void Message::appendInt32(int32_t value) {
    mArguments.emplace_back(value);
}
void Message::appendBool(bool value) {
    mArguments.emplace_back(value);
}
void Message::appendString(std::string value) {
    mArguments.emplace_back(std::move(value));
}
void Message::appendCString(const char* value) {
    mArguments.emplace_back(std::string(value ? value : ""));
}

template <typename Kind>
const Kind* Message::find(int index, const char* wanted) const {
    if (index < 0 || static_cast<std::size_t>(index) >= mArguments.size()) return nullptr;
    const Argument& argument = mArguments[static_cast<std::size_t>(index)];
    const Kind* found = std::get_if<Kind>(&argument);
    // The command line looks for this line, as a sign of a service of another version.
    if (!found) LOG(6, AT "argument %d is %s, not %s", HERE, index, kindName(argument), wanted);
    return found;
}

int Message::getInt(int index) {
    const auto* found = find<int8_t>(index, "int8");
    return found ? *found : 0;
}

int32_t Message::getInt32(int index) {
    const auto* found = find<int32_t>(index, "int32");
    return found ? *found : 0;
}

bool Message::getBool(int index) {
    const auto* found = find<bool>(index, "bool");
    return found && *found;
}

std::string Message::getString(int index) {
    const auto* found = find<std::string>(index, "string");
    return found ? *found : std::string();
}

}  // namespace sdbus
