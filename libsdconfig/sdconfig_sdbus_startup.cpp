// What every process does when it first connects: a look at the product, and two tasks on the secure store, which may
// run any number of times. What need not wait for an answer goes along with what is before it; requests reach the
// service in the order of the tasks as long as no power setting but the first has to be written.
#include <algorithm>
#include <iterator>
#include <utility>

#include "libsdconfig/lockscreen_entries.h"
#include "libsdconfig/sdconfig_client.h"
#include "platform/velmarlog/log_line.h"
#include "platform/velmarlog/log_secret.h"
#include "src/sdconfig_protocol.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "sdconfig_sdbus";

constexpr char kVersionKey[] = "ro.sd.build.version";
constexpr char kModeKey[] = "ro.sd.product.mode";
constexpr char kLockscreenKey[] = "sd.device.lockscreen.data";

struct PowerDefault {
    const char* key;
    const char* value;
    const char* name;
};
constexpr PowerDefault kPowerDefaults[] = {
    {"config.device.batteryBrightness", "50", "batteryBrightness"},
    {"config.device.chargeBrightness", "80", "chargeBrightness"},
    {"config.device.chargeDimDisplayTime", "15", "chargeDimDisplayTime"},
    {"config.device.batteryDimDisplayTime", "5", "batteryDimDisplayTime"},
    {"config.device.chargeLidCloseAction", "1", "chargeLidCloseAction"},
    {"config.device.batteryLidCloseAction", "1", "batteryLidCloseAction"},
};

bool isNumber(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// What stands between the first opening and the last closing brace; to the end, where none closes.
std::string bodyOf(const std::string& text) {
    const size_t open = text.find('{');
    if (open == std::string::npos) return "";
    const size_t close = text.rfind('}');
    if (close == std::string::npos || close < open) return text.substr(open + 1);
    return text.substr(open + 1, close - open - 1);
}

}  // namespace

std::vector<std::pair<std::string, std::string>> lockscreenEntries(const std::string& text) {
    enum class State { SeekName, InName, SeekColon, SeekObject, InObject };
    State state = State::SeekName;
    std::string name;
    std::string object;
    std::vector<std::pair<std::string, std::string>> entries;
    for (const char c : bodyOf(text)) {
        switch (state) {
            case State::SeekName:
                if (c == '"') state = State::InName;
                break;
            case State::InName:
                if (c == '"')
                    state = State::SeekColon;
                else
                    name += c;
                break;
            case State::SeekColon:
                if (c == ':') state = State::SeekObject;
                break;
            case State::SeekObject:
                if (c != '{') break;
                object = c;
                state = State::InObject;
                break;
            case State::InObject:
                object += c;
                if (c != '}') break;
                entries.emplace_back(std::move(name), std::move(object));
                name.clear();
                object.clear();
                state = State::SeekName;
                break;
        }
    }
    return entries;
}

// begun: since when the service has said nothing. False when it stops answering: then each task is done up to there.
bool SDConfigClient::startUp(Clock::time_point begun) {
    mHeardOf = begun;
    mAnswers = true;
    mAhead.clear();
    printProductInfo();  // every time: while it goes unanswered, no task gives up a key
    if (mAnswers && !std::exchange(mMigrated, true)) dataMigrate(kOldLockscreenKey);
    wpowerConfigInit();
    mStarted = mAnswers;
    if (!mStarted) LOG(6, AT "service %s does not answer: the start-up goes on with a later call", HERE, sServiceName);
    return mStarted;
}

void SDConfigClient::printProductInfo() {
    std::vector<Request> next{{protocol::kGetProperty, {kVersionKey}}, {protocol::kGetProperty, {kModeKey}}};
    if (!mMigrated) next.push_back({protocol::kGetSecure, {kOldLockscreenKey}});
    askAhead(next);
    const std::string version = GetProperty(kVersionKey);
    if (!version.empty()) LOG(5, AT "ProductInfo build.version: %s", HERE_AT(1032), version.c_str());
    if (!mAnswers) return;
    const std::string mode = GetProperty(kModeKey);
    if (!mode.empty()) LOG(5, AT "ProductInfo product.mode: %s", HERE_AT(1037), mode.c_str());
}

// Nothing, with a line, where the value can't be read: it may be there all the same, and is nothing to write over.
std::optional<std::string> SDConfigClient::readAtStartUp(const std::string& key, const char* task) {
    std::string value;
    const SDConfig::Reading reading = ReadSecure(key, value);
    if (reading == SDConfig::Reading::Value || reading == SDConfig::Reading::Unset) return value;
    LOG(6, AT "%s can't be read and is left alone", HERE_AS(task), key.c_str());
    return std::nullopt;
}

void SDConfigClient::dataMigrate(const std::string& key) {
    if (key != kOldLockscreenKey) return;
    const auto text = readAtStartUp(kOldLockscreenKey, __func__);
    LOG(5, AT "jsonString is %s", HERE, text ? SECRET(*text) : "");
    if (!text) return;

    const auto entries = lockscreenEntries(*text);
    int i = 0;
    for (const auto& [name, object] : entries)
        LOG(5, AT "i = %d, first element is %s, secend element is %s", HERE, i++, name.c_str(), SECRET(object));
    if (entries.size() == 1) {
        const std::string& object = entries.front().second;
        SetSecure(kLockscreenKey, object);
        LOG(5, AT "firstElement->second is %s", HERE, SECRET(object));
    }
    if (!mAnswers) return;
    askAhead({{protocol::kDeleteSecure, {kOldLockscreenKey}}, {protocol::kGetSecure, {kPowerDefaults[0].key}}});
    DeleteSecure(kOldLockscreenKey);
}

// One by one while they have to be written, as in a new installation; where one is there, so are the others.
void SDConfigClient::wpowerConfigInit() {
    while (mAnswers && mPowerChecked < std::size(kPowerDefaults)) {
        const PowerDefault& power = kPowerDefaults[mPowerChecked++];
        const auto value = readAtStartUp(power.key, __func__);
        if (value && !isNumber(*value)) {
            LOG(6, AT "%s is nullptr", HERE, power.name);
            SetSecure(power.key, power.value);
        } else if (mAnswers && mAhead.empty()) {
            readPowerAhead();
        }
    }
}

void SDConfigClient::readPowerAhead() {
    std::vector<Request> rest;
    for (std::size_t i = mPowerChecked; i < std::size(kPowerDefaults); ++i)
        rest.push_back({protocol::kGetSecure, {kPowerDefaults[i].key}});
    askAhead(rest);
}

}  // namespace sd
