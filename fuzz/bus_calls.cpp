// Every method of the service with arguments of every kind, over the bus; and what is stored reads back.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <set>

#include "base/text.h"
#include "fuzz/served.h"
#include "platform/sdbus/names.h"
#include "platform/sdbus/utf8.h"
#include "src/sdconfig_helpers.h"
#include "src/sdconfig_impl_property.h"

namespace {

constexpr std::array<const char*, 23> kMethods{"GET_PROPERTY",
                                               "SET_PROPERTY",
                                               "LST_PROPERTY",
                                               "DEL_PROPERTY",
                                               "GET_SECURE",
                                               "SET_SECURE",
                                               "DEL_SECURE",
                                               "GET_CONST",
                                               "SIGN_REQUEST",
                                               "VERIFY_SIGN",
                                               "REG_LISTENER",
                                               "UNREG_LISTENER",
                                               "ISALREADY_LISTHENED",
                                               "SET_POLICYLIST",
                                               "SET_POLICY",
                                               "GET_POLICY",
                                               "DELETE_POLICY",
                                               "ISSTRONG_CONTROL",
                                               "DM_REGISTER_LISTERNER",
                                               "DM_LIST",
                                               "DM_CLEAR_ALL_KEYS",
                                               "DM_GET_POLICIES",
                                               "unknown"};
constexpr std::array<const char*, 6> kKeys{"k",          "K", "ro.sd.uuid", "ro.sd.client.id", "ro.sd.build.version",
                                           "sd.ui.theme"};

constexpr int kCallsMax = 8;
constexpr int kArgumentsMax = 12;
constexpr std::size_t kTextMax = 300;

// Everything that an input mentions, to undo it.
using Mentioned = std::set<std::string>;

std::string pickKey(FuzzedDataProvider& input) {
    const auto which = input.ConsumeIntegral<uint8_t>();
    return which < 192 ? kKeys[which % kKeys.size()] : input.ConsumeRandomLengthString(kTextMax);
}

void appendText(sd_bus_message* call, const std::string& text) {
    if (sdbus::isWireText(text))
        sd_bus_message_append_basic(call, 's', text.c_str());
    else
        sd_bus_message_append_array(call, 'y', text.data(), text.size());
}

// Kinds that the layer does not know, and containers in containers.
void appendOther(sd_bus_message* call, FuzzedDataProvider& input) {
    const auto number = input.ConsumeIntegral<int64_t>();
    const auto byte = static_cast<int>(number & 0x7f);
    switch (input.ConsumeIntegralInRange(0, 3)) {
        case 0:
            sd_bus_message_append(call, "nquxtd", byte, byte, 1U, number, number, static_cast<double>(number));
            break;
        case 1:
            sd_bus_message_append(call, "og(si)a{sv}as", "/a/b", "a{sv}", "struct", byte, 1, "key", "i", byte, 0);
            break;
        case 2:
            sd_bus_message_append(call, "vv", "v", "av", 1, "s", "deep", "s", "in a variant");
            break;
        default:
            sd_bus_message_append(call, "av", 4, "y", byte, "s", "k", "(ii)", 1, 2, "b", 1);
            break;
    }
}

void appendArgument(sd_bus_message* call, FuzzedDataProvider& input, Mentioned& mentioned) {
    switch (input.ConsumeIntegralInRange(0, 7)) {
        case 0:
        case 1:
        case 2:
            appendText(call, *mentioned.insert(pickKey(input)).first);
            break;
        case 3:
            appendText(call, *mentioned.insert(input.ConsumeRandomLengthString(kTextMax)).first);
            break;
        case 4:
            sd_bus_message_append(call, "y", static_cast<int>(input.ConsumeIntegral<uint8_t>()));
            break;
        case 5:
            sd_bus_message_append(call, "i", input.ConsumeIntegral<int32_t>());
            break;
        case 6:
            sd_bus_message_append(call, "b", static_cast<int>(input.ConsumeBool()));
            break;
        default:
            appendOther(call, input);
            break;
    }
}

// What an argument list becomes on its way over the wire and back.
void roundTrip(const sdbus::Arguments& arguments) {
    const auto plan = sdbus::WirePlan::make(arguments);
    if (!plan) return;
    const sdbus::BusMessagePtr message = fuzz::newCall(fuzz::Served::get().client(), "x");
    fuzz::expect(plan->append(message.get(), arguments), "what is planned can be appended");
    fuzz::expect(sd_bus_message_seal(message.get(), 1, 0) >= 0, "what is appended can be sealed");
    const auto again = sdbus::decodeArguments(message.get());
    fuzz::expect(again && again->size() == arguments.size(), "no argument is lost");
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        fuzz::expect((*again)[i].index() == arguments[i].index(), "kinds travel");
        if (const auto* text = std::get_if<std::string>(&arguments[i]))
            fuzz::expect(std::get<std::string>((*again)[i]) == *text, "texts travel");
        if (const auto* number = std::get_if<int32_t>(&arguments[i]))
            fuzz::expect(std::get<int32_t>((*again)[i]) == *number, "numbers travel");
    }
}

void checkName(const std::string& name) {
    if (const auto member = sdbus::encodeName(name))
        fuzz::expect(sdbus::decodeName(*member) == name, "names travel one to one");
    if (const auto decoded = sdbus::decodeName(name))
        fuzz::expect(sdbus::encodeName(*decoded) == name, "a member stands for one name");
}

void call(FuzzedDataProvider& input, Mentioned& mentioned) {
    auto& served = fuzz::Served::get();
    const sdbus::BusMessagePtr message =
        fuzz::newCall(served.client(), kMethods[input.ConsumeIntegral<uint8_t>() % kMethods.size()]);
    const int count = input.ConsumeIntegralInRange(0, kArgumentsMax);
    for (int i = 0; i < count; ++i) appendArgument(message.get(), input, mentioned);
    uint64_t cookie = 0;
    fuzz::expect(sd_bus_send(served.client(), message.get(), &cookie) >= 0, "a sound call can be sent");
    sd_bus_message_rewind(message.get(), 1);
    auto arguments = sdbus::decodeArguments(message.get());
    if (!arguments) return;
    roundTrip(*arguments);
    // More of them than a signature holds.
    const auto repeated = *arguments;
    for (int i = 0; i < 30; ++i) arguments->insert(arguments->end(), repeated.begin(), repeated.end());
    roundTrip(*arguments);
}

// Answers to what was called, and events.
void takeAnswers() {
    auto& served = fuzz::Served::get();
    std::set<uint64_t> answered;
    for (;;) {
        sd_bus_message* taken = nullptr;
        const int r = sd_bus_process(served.client(), &taken);
        fuzz::expect(r >= 0, "the connection lives");
        const sdbus::BusMessagePtr message(taken);
        if (r == 0) return;
        if (!taken) continue;
        fuzz::expect(sdbus::decodeArguments(taken).has_value(), "what comes can be read");
        if (const char* member = sd_bus_message_get_member(taken)) {
            const std::string event = sdbus::decodeName(member).value_or("");
            fuzz::expect(std::find(fuzz::kEvents.begin(), fuzz::kEvents.end(), event) != fuzz::kEvents.end(),
                         "an event is a known one");
            continue;
        }
        uint64_t cookie = 0;
        fuzz::expect(sd_bus_message_get_reply_cookie(taken, &cookie) >= 0 && answered.insert(cookie).second,
                     "a call is answered once");
    }
}

void secretReadsBack(const std::string& key, const std::string& value) {
    auto& served = fuzz::Served::get();
    const bool stored = std::get<bool>(served.ask("SET_SECURE", {key, value}).at(0));
    fuzz::expect(stored != sd::holdsZeroByte(key), "a value is stored unless its key holds a zero byte");
    if (!stored) return;
    served.ask("DELETE_POLICY", {key});
    fuzz::expect(std::get<std::string>(served.ask("GET_SECURE", {key}).at(0)) == sd::latin1ToUtf8(value),
                 "what was set reads back");
    served.ask("DEL_SECURE", {key});
}

void undo(const Mentioned& mentioned) {
    auto& served = fuzz::Served::get();
    served.forgetRows();
    for (const std::string& key : mentioned) {
        while (served.interface().UnRegisterListener(key, false)) continue;
        sd::SDPropertyInf::GetInstance()->DeleteProperty(key);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    for (const char* event : fuzz::kEvents) fuzz::subscribe(fuzz::Served::get().client(), event);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    Mentioned mentioned;
    for (int i = 0; i < kCallsMax && input.remaining_bytes() > 0; ++i) call(input, mentioned);
    (void)fuzz::Served::get().ask("GET_CONST", {"all before this is handled"});
    takeAnswers();
    const std::string key = pickKey(input);
    mentioned.insert({key, ""});
    fuzz::Served::get().forgetRows();  // a policy that can't be read would leave the key's calls unanswered
    secretReadsBack(key, input.ConsumeRandomLengthString(kTextMax));
    takeAnswers();
    undo(mentioned);
    checkName(fuzz::text(data, size));
    return 0;
}
