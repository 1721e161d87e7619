// The client against a service of the test's own making, which records what it is asked.
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "libsdconfig/data_path.h"
#include "libsdconfig/lockscreen_entries.h"
#include "libsdconfig/sdconfig.h"
#include "libsdconfig/sdconfig_client.h"
#include "tests/libsdconfig/client_fixture.h"

namespace sd {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST_F(ClientTest, WaitsASecondForTheServiceEachTime) {
    auto first = std::async(std::launch::async, [this] { return mConfig->GetSecure("k"); });
    test::waitUntil([this] { return mLog.has("not ready"); });
    EXPECT_EQ(mConfig->GetSecure("k"), "") << "whoever calls meanwhile waits along";
    EXPECT_EQ(first.get(), "");
    EXPECT_EQ(mLog.count("service sdconfig not ready, waiting...", 5), 10);
    EXPECT_EQ(mLog.count("sdconfig_sdbus GetInstance(253): service sdconfig failed to register after timeout", 7), 1);
    EXPECT_EQ(mLog.count("no sdconfig client!!!", 7), 2);
    EXPECT_EQ(mLog.count("sdconfig_sdbus GetInstance(239): sdconfig service name sdconfig", 5), 1);

    mLog.clear();
    std::thread late([this] {
        test::waitUntil([this] { return mLog.count("not ready") >= 3; });
        serve();
    });
    std::map<std::string, std::string> all{{"a", "1"}, {"z", "9"}};
    EXPECT_TRUE(mConfig->GetAllProperties(&all));
    late.join();
    EXPECT_THAT(all, ElementsAre(std::pair("a", "2"), std::pair("b", "3"), std::pair("z", "9")));
    EXPECT_FALSE(mLog.has("failed to register"));
    EXPECT_FALSE(mConfig->GetAllProperties(nullptr));
}

TEST_F(ClientTest, ThreadsShareOneClient) {
    serve();
    std::shared_ptr<SDConfigClient> first, second;
    std::thread other([&] { first = SDConfigClient::GetInstance(); });
    second = SDConfigClient::GetInstance();
    other.join();
    EXPECT_EQ(first, second);
    EXPECT_EQ(mLog.count("SDConfigClient initialized successfully"), 1);
}

TEST_F(ClientTest, StartUpTasksMoveTheLockScreenDataAndSetPowerDefaults) {
    mService.values = {{"ro.sd.build.version", "1.2"},
                       {"ro.sd.user.lockscreen.data", R"({"user": {"pin": "x"}})"},
                       {"config.device.batteryBrightness", "75"},
                       {"config.device.chargeBrightness", "7.5"},
                       {"config.device.chargeDimDisplayTime", "-1"}};
    serve();
    mConfig->VerifyRequest("content", "sign");
    std::vector<std::string> wanted{"GET_PROPERTY ro.sd.build.version ",
                                    "GET_PROPERTY ro.sd.product.mode ",
                                    "GET_SECURE ro.sd.user.lockscreen.data ",
                                    R"(SET_SECURE sd.device.lockscreen.data {"pin": "x"})",
                                    "DEL_SECURE ro.sd.user.lockscreen.data ",
                                    "GET_SECURE config.device.batteryBrightness ",
                                    "GET_SECURE config.device.chargeBrightness ",
                                    "SET_SECURE config.device.chargeBrightness 80",
                                    "GET_SECURE config.device.chargeDimDisplayTime ",
                                    "SET_SECURE config.device.chargeDimDisplayTime 15",
                                    "GET_SECURE config.device.batteryDimDisplayTime ",
                                    "GET_SECURE config.device.chargeLidCloseAction ",
                                    "GET_SECURE config.device.batteryLidCloseAction ",
                                    "VERIFY_SIGN content sign"};
    if (!std::getenv("BUS_OF_VERSION_1_0"))  // else what follows the first setting is read at once
        std::stable_partition(wanted.begin() + 6, wanted.end() - 1, [](auto& call) { return call[0] == 'G'; });
    EXPECT_EQ(mService.takeCalls(), wanted);
    EXPECT_TRUE(mLog.has("printProductInfo(1032): ProductInfo build.version: 1.2", 5));
    EXPECT_FALSE(mLog.has("ProductInfo product.mode"));
    EXPECT_TRUE(mLog.has(R"(i = 0, first element is user, secend element is {"pin": "x"})", 5));
    EXPECT_EQ(mLog.count(" is nullptr", 6), 2);
    EXPECT_TRUE(mLog.has("wpowerConfigInit", 6));
}

TEST_F(ClientTest, StartUpOnAnEmptyStoreWritesAllDefaultsOneByOneAndSeveralEntriesAreDropped) {
    mService.values = {{"ro.sd.user.lockscreen.data", R"({"a": {}, "b": {}})"}};
    serve(false);
    mConfig->GetConst("k");
    std::vector<std::string> wanted{"GET_PROPERTY ro.sd.build.version ", "GET_PROPERTY ro.sd.product.mode ",
                                    "GET_SECURE ro.sd.user.lockscreen.data ", "DEL_SECURE ro.sd.user.lockscreen.data "};
    for (const std::string setting : {"batteryBrightness 50", "chargeBrightness 80", "chargeDimDisplayTime 15",
                                      "batteryDimDisplayTime 5", "chargeLidCloseAction 1", "batteryLidCloseAction 1"}) {
        wanted.push_back("GET_SECURE config.device." + setting.substr(0, setting.find(' ') + 1));
        wanted.push_back("SET_SECURE config.device." + setting);
    }
    wanted.push_back("GET_CONST k ");
    EXPECT_EQ(mService.takeCalls(), wanted);
}

TEST_F(ClientTest, ReadingTellsWhyThereIsNoValue) {
    std::string value = "from before";
    EXPECT_EQ(mConfig->ReadProperty("k", &value), SDConfig::Reading::NoAnswer);
    EXPECT_EQ(value, "");
    mService.values = {{"k", "v"}, {"config.device.batteryBrightness", "1"}};
    mService.sealed = {"locked"};
    serve();
    EXPECT_EQ(mConfig->ReadProperty("k", &value), SDConfig::Reading::Value);
    EXPECT_EQ(value, "v");
    EXPECT_EQ(mConfig->ReadSecure("locked", &value), SDConfig::Reading::Unreadable);
    EXPECT_EQ(mConfig->ReadSecure("k", &value), SDConfig::Reading::Value);
    EXPECT_EQ(mConfig->ReadSecure("none", &value), SDConfig::Reading::Unset);
    EXPECT_EQ(value, "");
}

TEST_F(ClientTest, AServiceThatHangsCostsTheFirstCallNoMoreThanAnyOther) {
    serve();
    mService.hang();
    const auto started = std::chrono::steady_clock::now();
    auto other = std::async(std::launch::async, [this] { return mConfig->GetConst("k"); });
    EXPECT_EQ(mConfig->GetConst("k"), "");
    EXPECT_EQ(other.get(), "");
    EXPECT_LT(std::chrono::steady_clock::now() - started, 9s);
    mService.release();
    mService.takeCalls();
    mConfig->GetConst("k");
    const auto calls = mService.takeCalls();
    EXPECT_EQ(calls.size(), 11U) << "the whole start-up";
    EXPECT_EQ(calls.back(), "GET_CONST k ");
}

TEST_F(ClientTest, StartUpLeavesAloneWhatItCannotReadAndGoesOnWithTheNextCall) {
    mService.sealed = {"ro.sd.user.lockscreen.data", "config.device.batteryBrightness"};
    serve(false);
    mService.hold("GET_SECURE config.device.chargeDimDisplayTime");
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(mConfig->GetConst("k"), "");
    EXPECT_LT(std::chrono::steady_clock::now() - started, 9s);
    mService.resume();
    auto calls = mService.takeCalls();
    EXPECT_EQ(calls.size(), 10U);
    EXPECT_EQ(calls.back(), "SET_SECURE config.device.chargeBrightness 80") << "it was read before the one in hand";
    EXPECT_EQ(mLog.count("sdconfig_sdbus dataMigrate(", 6), 1);
    EXPECT_EQ(mLog.count("can't be read and is left alone", 6), 3);
    mConfig->GetConst("k");
    calls = mService.takeCalls();
    EXPECT_EQ(calls.size(), 9U);
    EXPECT_EQ(calls[2], "GET_SECURE config.device.batteryDimDisplayTime ");
    EXPECT_EQ(calls.back(), "GET_CONST k ");
}

TEST(LockscreenEntriesTest, AreTakenApartCharacterByCharacter) {
    using Entries = std::vector<std::pair<std::string, std::string>>;
    const std::pair<const char*, Entries> cases[] = {
        {"no braces", {}},
        {R"({"a":{"x":1},"b" : {}})", {{"a", R"({"x":1})"}, {"b", "{}"}}},
        {R"({"a":{"x":{"y":1}}})", {{"a", R"({"x":{"y":1})"}}},
        {R"({"a":{"x":1)", {}},
        {R"(}{"a":{1}}x)", {{"a", "{1}"}}},
        {R"({"a{}":{}})", {{"a{}", "{}"}}},
    };
    for (const auto& [text, entries] : cases) EXPECT_EQ(lockscreenEntries(text), entries) << text;
}

TEST(DataPathTest, TheFirstFolderThatIsNotEmpty) {
    test::LogCapture log;
    using Folders = std::vector<std::string>;
    const auto path = [](const Folders& data, const Folders& home) { return applicationDataPath({data, home, "app"}); };
    EXPECT_EQ(path({"", "/data"}, {"/home"}), "/data");
    EXPECT_TRUE(log.has("sdconfig_sdbus applicationDataPath(185): data[0]=", 5));
    EXPECT_TRUE(log.has("sdconfig_sdbus applicationDataPath(185): data[1]=/data", 5) && !log.has("home["));
    EXPECT_EQ(path({""}, {"", "/home"}), "/home/app");
    EXPECT_TRUE(log.has("applicationHomePath(161): home[1]=/home", 5));
    EXPECT_EQ(path({}, {}), "~/app");
    EXPECT_TRUE(log.has("applicationHomePath(168): using fallback home=~", 5));
    EXPECT_TRUE(log.has("applicationDataPath(197): using fallback data=~/app", 5));

    SDConfig::setDataPath("/old");
    EXPECT_TRUE(SDConfig::setDataPath("/new"));
    EXPECT_TRUE(log.has("setDataPath", 6) && log.has("new db path from datapath /new to path /old", 6));
    log.clear();
    EXPECT_TRUE(SDConfig::setDataPath("/new") && log.lines().empty());
    SDConfig::setDataPath("gr\xC3\xBCn");
    EXPECT_EQ(SDConfig::getDataPathUtf8(), "gr\xC3\xBCn");
    SDConfig::setDataPath("");
    EXPECT_EQ(SDConfig::getDataPathUtf8(), "");
}

}  // namespace
}  // namespace sd
