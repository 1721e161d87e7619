// The lines that tell of slow operations, on a clock and with a security layer of the test's own: to the nanosecond.
#include <gmock/gmock.h>

#include <chrono>
#include <functional>

#include "libsdconfig/sdconfig.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_impl.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_impl_property.h"
#include "src/sdconfig_interface.h"
#include "tests/support/arguments.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

nanoseconds sNow = 0ns;
nanoseconds sSealing = 0ns;  // how long it takes to seal or open a value
nanoseconds sLooking = 0ns;  // how long passes between two looks at the clock

}  // namespace

// These stand in for the shared libraries' own.
std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
    return time_point(sNow += sLooking);
}
std::string sd::SDSecurity::EncryptForRow(const SDSecurityRow& /*row*/, const std::string& plain) {
    sNow += sSealing;
    return plain;
}
std::string sd::SDSecurity::DecryptForRow(const SDSecurityRow& /*row*/, const std::string& cipher,
                                          OpenResult* /*why*/) {
    sNow += sSealing;
    return cipher;
}

namespace sd {
namespace {

class SlowTest : public testing::Test {
protected:
    // Without a bus: the answer gets lost.
    template <typename... Arguments>
    void call(const std::string& method, const Arguments&... arguments) {
        const auto proxy = SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1);
        const auto message = proxy->makeMethodCallMessage(method);
        test::appendAll(*message, arguments...);
        mInterface.handleMethodCall(message);
    }

    // The line of a time that begins so and is logged while the pace is `time`; "" without one.
    std::string told(const std::string& begin, nanoseconds& pace, nanoseconds time,
                     const std::function<void()>& operation) {
        mLog.clear();
        pace = time;
        operation();
        pace = 0ns;
        for (const auto& [level, tag, text] : mLog.lines())
            if (level == 6 && text.find("): " + begin) != std::string::npos &&
                text.find(" takes ") != std::string::npos)
                return text;
        return "";
    }

    const test::TempDir mFolder;
    const bool mThere = SDConfig::setDataPath(mFolder.path());
    test::LogCapture mLog;
    SDConfigInterface mInterface;
    SDConfigImpl& mConfig = *SDConfigImpl::GetInstance();
    SDConfigDmHelper& mPolicies = SDConfigDmHelper::GetInstance();
    SDPropertyInf& mProperties = *SDPropertyInf::GetInstance();
};

TEST_F(SlowTest, OperationsAreToldFromTheirThresholdOn) {
    int keys = 0;
    const auto fresh = [&] { return "fresh" + std::to_string(keys++); };
    const struct {
        const char* line;
        int ms;
        nanoseconds& pace;
        std::function<void()> operation;
    } cases[] = {
        {"SetSecure fresh", 100, sSealing, [&] { mConfig.SetSecure(fresh(), "v"); }},
        {"GetSecure local", 100, sSealing, [&] { mConfig.GetSecure("local"); }},
        {"SetPolicyWithUri fresh", 100, sSealing,
         [&] {
             mPolicies.SetPolicyWithUri(fresh(), {{"v", 9}});
         }},
        {"GetPolicyFromDMtable policy", 100, sSealing, [&] { mPolicies.GetPolicyFromDMtable("policy"); }},
        {"GetPolicyWithUri policy", 150, sSealing, [&] { mPolicies.GetPolicyWithUri("policy"); }},
        {"GetProperty in cache none", 301, sLooking, [&] { mProperties.GetProperty("none"); }},
        {"GetProperty in prop ro.sd.build.version", 301, sLooking,
         [&] { mProperties.GetProperty("ro.sd.build.version"); }},
        {"GET_SECURE", 500, sSealing, [&] { call("GET_SECURE", "local"); }},
        {"SET_SECURE", 500, sSealing, [&] { call("SET_SECURE", fresh(), "v"); }},
        {"SET_POLICY", 500, sSealing, [&] { call("SET_POLICY", fresh(), "v", 9); }},
        {"SET_POLICYLIST", 500, sLooking, [&] { call("SET_POLICYLIST", 0); }},
        {"GET_POLICY", 500, sSealing, [&] { call("GET_POLICY", "policy"); }},
        {"DELETE_POLICY", 500, sLooking, [&] { call("DELETE_POLICY", "none"); }},
        {"ISSTRONG_CONTROL", 500, sSealing, [&] { call("ISSTRONG_CONTROL", "policy"); }},
        {"DM_GET_POLICIES", 500, sSealing, [&] { call("DM_GET_POLICIES", 1, "policy"); }},
    };
    ASSERT_TRUE(mConfig.SetSecure("local", "v") && mPolicies.SetPolicyWithUri("policy", {{"v", 9}}));
    for (const auto& [line, ms, pace, operation] : cases) {
        const nanoseconds threshold = std::chrono::milliseconds(ms);
        EXPECT_EQ(told(line, pace, threshold - 1ns, operation), "");
        EXPECT_THAT(told(line, pace, threshold + 1ms - 1ns, operation),
                    testing::EndsWith(" takes " + std::to_string(ms) + " ms"))
            << line;
    }

    mProperties.SetProperty("cached", "v");
    EXPECT_EQ(told("", sLooking, 1h, [&] { mProperties.GetProperty("cached"); }), "");
    for (const char* method : {"GET_PROPERTY", "SET_PROPERTY", "LST_PROPERTY", "DEL_PROPERTY", "DEL_SECURE",
                               "GET_CONST", "SIGN_REQUEST", "VERIFY_SIGN", "REG_LISTENER", "UNREG_LISTENER",
                               "ISALREADY_LISTHENED", "DM_REGISTER_LISTERNER", "DM_LIST", "DM_CLEAR_ALL_KEYS"})
        EXPECT_EQ(told(method, sLooking, 1h, [&] { call(method, "k", "v"); }), "");
}

}  // namespace
}  // namespace sd
