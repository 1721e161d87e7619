// The configuration facade and the requests behind it.
#include "libsdconfig/sdconfig.h"

#include <algorithm>

#include "base/limits.h"
#include "libsdconfig/sdconfig_client.h"
#include "libsdconfig/with_client.h"
#include "platform/velmarlog/log_line.h"
#include "platform/velmarlog/log_secret.h"
#include "src/sdconfig_impl_property.h"
#include "src/sdconfig_protocol.h"

namespace sd {

namespace {
constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "sdconfig_sdbus";

constexpr int kMostPairs = 500'000;  // no message holds more, whatever it says of itself
}  // namespace

// ---- Requests ----

SDConfig::Reading SDConfigClient::ReadProperty(const std::string& key, std::string& value) {
    constexpr char kCaller[] = "GetProperty";
    const Answer answer = request(protocol::kGetProperty, {key});
    if (answer.errorType() != 0)
        LOG(7, AT "callWithReplyBlocking timeout, reply error type = %d", HERE_AS(kCaller), answer.errorType());
    if (answer.ok()) {
        value = answer->getString(0);
        return value.empty() ? SDConfig::Reading::Unset : SDConfig::Reading::Value;
    }
    LOG(7, AT "error reply: type=%d, GetProperty the key : %s failed", HERE_AS(kCaller), answer.type(), key.c_str());
    return SDConfig::Reading::NoAnswer;
}

std::string SDConfigClient::GetProperty(const std::string& key) {
    std::string value;
    ReadProperty(key, value);
    return value;
}

bool SDConfigClient::SetProperty(const std::string& key, const std::string& value) {
    const Answer answer = request(protocol::kSetProperty, {key, value});
    if (answer.ok()) return answer->getBool(0);
    LOG(7, AT "error reply: type=%d, SetProperty the key : %s failed, value is %s", HERE, answer.type(), key.c_str(),
        SECRET(value));
    return false;
}

bool SDConfigClient::DeleteProperty(const std::string& key) {
    const Answer answer = request(protocol::kDeleteProperty, {key});
    if (answer.ok()) return answer->getBool(0);
    LOG(7, AT "error reply: type=%d, DeleteProperty the key : %s failed", HERE, answer.type(), key.c_str());
    return false;
}

bool SDConfigClient::GetAllProperties(std::map<std::string, std::string>& properties) {
    const Answer answer = request(protocol::kListProperty, {});
    if (!answer.ok()) {
        LOG(7, AT "error reply: type=%d", HERE, answer.type());
        return false;
    }
    const int count = std::min(answer->getInt32(0), kMostPairs);
    for (int pair = 0; pair < count; ++pair)
        properties[answer->getString(1 + 2 * pair)] = answer->getString(2 + 2 * pair);
    return true;
}

bool SDConfigClient::SetSecure(const std::string& key, const std::string& value) {
    const Answer answer = request(protocol::kSetSecure, {key, value});
    if (answer.ok()) return answer->getBool(0);
    LOG(7, AT "error reply: type=%d, setsecure the key : %s failed, the value is %s", HERE, answer.type(), key.c_str(),
        SECRET(value));
    return false;
}

SDConfig::Reading SDConfigClient::ReadSecure(const std::string& key, std::string& value) {
    const Answer answer = request(protocol::kGetSecure, {key});
    if (!answer.ok()) {
        LOG(7, AT "error reply: type=%d, GetSecure the key : %s failed", HERE_AS("GetSecure"), answer.type(),
            key.c_str());
        return SDConfig::Reading::NoAnswer;
    }
    value = answer->getString(0);
    if (!value.empty()) return SDConfig::Reading::Value;
    const bool isSealed = answer->getBool(1);  // a row is there that the service can't open
    return isSealed ? SDConfig::Reading::Unreadable : SDConfig::Reading::Unset;
}

std::string SDConfigClient::GetSecure(const std::string& key) {
    std::string value;
    ReadSecure(key, value);
    return value;
}

bool SDConfigClient::DeleteSecure(const std::string& key) {
    const Answer answer = request(protocol::kDeleteSecure, {key});
    if (answer.ok()) return answer->getBool(0);
    LOG(7, AT "error reply: type=%d, DeleteSecure the key : %s failed", HERE, answer.type(), key.c_str());
    return false;
}

std::string SDConfigClient::GetConst(const std::string& key) {
    const Answer answer = request(protocol::kGetConst, {key});
    if (answer.ok()) return answer->getString(0);
    LOG(7, AT "error reply: type=%d, GetConst the key : %s failed", HERE, answer.type(), key.c_str());
    return "";
}

std::string SDConfigClient::SignRequest(const std::string& content) {
    const Answer answer = request(protocol::kSignRequest, {content});
    if (answer.ok()) return answer->getString(0);
    LOG(7, AT "error reply: type=%d, SignRequest the content : %s failed", HERE, answer.type(), SECRET(content));
    return "";
}

bool SDConfigClient::VerifyRequest(const std::string& content, const std::string& sign) {
    const Answer answer = request(protocol::kVerifySign, {content, sign});
    if (answer.ok()) return answer->getBool(0);
    LOG(7, AT "error reply: type=%d, VerifyRequest the content : %s failed, the sign is %s", HERE, answer.type(),
        SECRET(content), SECRET(sign));
    return false;
}

// ---- The facade ----

SDConfig* SDConfig::GetInstance() {
    static SDConfig instance;
    return &instance;
}

std::string SDConfig::GetProperty(const std::string& key, bool local) {
    if (local) return SDPropertyInf::GetInstance()->GetProperty(key);
    return withClient(__func__, std::string(), [&](SDConfigClient& client) { return client.GetProperty(key); });
}

bool SDConfig::SetProperty(const std::string& key, const std::string& value) {
    return withClient(__func__, false, [&](SDConfigClient& client) { return client.SetProperty(key, value); });
}

bool SDConfig::DeleteProperty(const std::string& key) {
    return withClient(__func__, false, [&](SDConfigClient& client) { return client.DeleteProperty(key); });
}

bool SDConfig::GetAllProperties(std::map<std::string, std::string>* properties) {
    return withClient(__func__, false, [&](SDConfigClient& client) {
        return properties != nullptr && client.GetAllProperties(*properties);
    });
}

// The two identity keys are read back after a change: their history is followed by the log.
bool SDConfig::SetSecure(const std::string& key, const std::string& value) {
    const char* const function = __func__;
    return withClient(function, false, [&](SDConfigClient& client) {
        const bool stored = client.SetSecure(key, value);
        if (isIdentityKey(key))
            LOG(5, AT "key is %s, value is %s, latestVal is %s", HERE_AS(function), key.c_str(), SECRET(value),
                SECRET(client.GetSecure(key)));
        return stored;
    });
}

std::string SDConfig::GetSecure(const std::string& key) {
    std::string value;
    ReadSecure(key, &value);
    return value;
}

SDConfig::Reading SDConfig::ReadProperty(const std::string& key, std::string* value) {
    value->clear();
    return withClient("GetProperty", Reading::NoAnswer,
                      [&](SDConfigClient& client) { return client.ReadProperty(key, *value); });
}

SDConfig::Reading SDConfig::ReadSecure(const std::string& key, std::string* value) {
    const char* const function = "GetSecure";
    value->clear();
    return withClient(function, Reading::NoAnswer, [&](SDConfigClient& client) {
        const Reading reading = client.ReadSecure(key, *value);
        if (isIdentityKey(key)) LOG(5, AT "key is %s, value is %s", HERE_AS(function), key.c_str(), SECRET(*value));
        return reading;
    });
}

bool SDConfig::DeleteSecure(const std::string& key) {
    const char* const function = __func__;
    return withClient(function, false, [&](SDConfigClient& client) {
        const bool deleted = client.DeleteSecure(key);
        if (isIdentityKey(key))
            LOG(5, AT "key is %s, latestVal is %s", HERE_AS(function), key.c_str(), SECRET(client.GetSecure(key)));
        return deleted;
    });
}

std::string SDConfig::GetConst(const std::string& key) {
    return withClient(__func__, std::string(), [&](SDConfigClient& client) { return client.GetConst(key); });
}

std::string SDConfig::SignRequest(const std::string& content) {
    return withClient(__func__, std::string(), [&](SDConfigClient& client) { return client.SignRequest(content); });
}

bool SDConfig::VerifyRequest(const std::string& content, const std::string& sign) {
    return withClient(__func__, false, [&](SDConfigClient& client) { return client.VerifyRequest(content, sign); });
}

}  // namespace sd
