// Typed settings of this process against a real service, with the keys that sdconfig-keygen made of exchange.keys.json.
#include <gmock/gmock.h>

#include <csignal>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "exchange_keys.h"
#include "libsdconfig/sdconfig_settings.h"
#include "tests/e2e/sandbox.h"
#include "tests/support/scarce_memory.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

class TypedTest : public test::Sandbox {
protected:
    void damageRow(const std::string& key) const {
        test::run({"sqlite3", path("data/sdconfig.db"), "UPDATE secure_v3 SET value='x' WHERE key='" + key + "'"});
    }

    const test::ScopedEnv mRuntime{"XDG_RUNTIME_DIR", path("run").c_str()};
    const sd::Settings mSettings;
};

TEST_F(TypedTest, TellsWhyThereIsNoValue) {
    EXPECT_EQ(mSettings.tryGet(exchange::short_("a")).lack, sd::Lack::NoService);
    EXPECT_FALSE(mSettings.set(exchange::short_("a"), 1));
    test::Process service = startService();
    EXPECT_EQ(mSettings.tryGet(exchange::short_("a")).lack, sd::Lack::Unset);
    EXPECT_EQ(mSettings.get(exchange::short_("a")), 8080);
    EXPECT_FALSE(mSettings.set(exchange::short_("a"), 0));
    EXPECT_TRUE(mSettings.set(exchange::short_("a"), 65535));
    EXPECT_EQ(mSettings.get(exchange::short_("a")), 65535);

    cli({"set", "exchange.a.short", "70000"});
    const auto misfit = mSettings.tryGet(exchange::short_("a"));
    EXPECT_EQ(misfit.lack, sd::Lack::Misfit);
    EXPECT_EQ(misfit.text, "70000");
    EXPECT_EQ(mSettings.get(exchange::short_("a")), 8080);
    EXPECT_EQ(sd::Settings(sd::Settings::Beyond::Clamped).get(exchange::short_("a")), 65535);
    EXPECT_TRUE(mSettings.unset(exchange::short_("a")));
    EXPECT_EQ(mSettings.tryGet(exchange::short_("a")).lack, sd::Lack::Unset);

    cli({"secure", "set", "exchange.a.enum", "ROT"});
    EXPECT_EQ(mSettings.tryGet(exchange::enum_("a")).lack, sd::Lack::Misfit);
    cli({"secure", "set", "exchange.a.enum", " Half & Half"});
    EXPECT_EQ(mSettings.get(exchange::enum_("a")), exchange::Enum::half_half);
    damageRow("exchange.a.enum");
    EXPECT_EQ(mSettings.tryGet(exchange::enum_("a")).lack, sd::Lack::Unreadable);
    cli({"policy", "set", "exchange.a.enum", "grün", "10"});
    EXPECT_EQ(mSettings.get(exchange::enum_("a")), exchange::Enum::gr_n);
    EXPECT_TRUE(mSettings.isGoverned(exchange::enum_("a")));
}

TEST_F(TypedTest, WhatCannotComeBackIsNotSent) {
    test::Process service = startService();
    const std::string long_name(70'000, 'x');
    EXPECT_FALSE(mSettings.set(exchange::url("a"), "")) << "would read as the default";
    EXPECT_TRUE(mSettings.set(exchange::string("a"), ""));
    EXPECT_FALSE(mSettings.set(exchange::string("a"), std::string("a\0b", 3)));
    EXPECT_FALSE(mSettings.set(exchange::number("a"), std::numeric_limits<double>::infinity()));
    EXPECT_FALSE(mSettings.set(exchange::duration("a"), -1ms));
    EXPECT_FALSE(mSettings.set(exchange::durations("a"), {1ms, -1ms}));
    EXPECT_FALSE(mSettings.set(exchange::size("a"), sd::Bytes{-1}));
    EXPECT_FALSE(mSettings.set(exchange::enum_("a"), exchange::Enum(17)));
    EXPECT_FALSE(mSettings.set(exchange::string(long_name), "value")) << "the service refuses the key";
    EXPECT_EQ(cli({"secure", "get", "exchange.a.string"}).out, "");
}

TEST_F(TypedTest, EveryByteComesBackFromBothStores) {
    test::Process service = startService();
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) bytes += static_cast<char>(byte);
    for (const std::string& text : {bytes, std::string("gr\xC3\xBC"), std::string("gr\xFC"), std::string("\xC3\x83")}) {
        EXPECT_TRUE(mSettings.set(exchange::string("a"), text) && mSettings.set(exchange::plain("a"), text));
        EXPECT_EQ(mSettings.get(exchange::string("a")), text);
        EXPECT_EQ(mSettings.get(exchange::plain("a")), text);
        EXPECT_EQ(cli({"secure", "get", "exchange.a.string"}).out, cli({"get", "exchange.a.plain"}).out);
    }
    for (const char* none : {"\xE2\x82\xAC \xC3\xBC", "\xFC", "\xC3\xBC\xC3"}) EXPECT_EQ(sd::textAsSet(none), none);
}

TEST_F(TypedTest, AWatchOutlivesRestartsOfTheService) {
    test::Heard heard;
    std::optional<test::Process> service(startService());
    auto port = mSettings.watch(exchange::short_("a"), [&](int now) { heard.add("port " + std::to_string(now)); });
    sd::Watch own;
    own = mSettings.watch(exchange::string("a"), [&](const std::string& now) {
        heard.add("string " + now);
        if (now == "last") own.end();
    });
    cli({"set", "exchange.a.short", "1"});
    EXPECT_TRUE(test::waitUntil([&] { return heard.all().size() == 1; }));
    cli({"policy", "set", "exchange.a.string", "grün", "10"});
    EXPECT_TRUE(test::waitUntil([&] { return heard.all().size() == 2; }));

    service->stop(SIGKILL);
    service.emplace(startService());  // the property is gone with it
    EXPECT_TRUE(test::waitUntil([&] { return heard.all().size() == 3; }, 20000));
    EXPECT_THAT(heard.all(), ElementsAre("port 1", "string grün", "port 8080"));
    EXPECT_TRUE(test::inChild([&] {
        port.end();
        return mSettings.get(exchange::string("a")) == "grün";
    }));

    port = sd::Watch();
    cli({"set", "exchange.a.short", "2"});
    cli({"policy", "set", "exchange.a.string", "last", "10"});
    EXPECT_TRUE(test::waitUntil([&] { return heard.all().size() == 4; }));
    test::Heard others;
    const auto other = mSettings.watch(exchange::string("a"), [&](const std::string& now) { others.add(now); });
    cli({"policy", "set", "exchange.a.string", "later", "10"});
    EXPECT_TRUE(test::waitUntil([&] { return others.all().size() == 1; }));
    EXPECT_EQ(heard.all().back(), "string last");
}

TEST_F(TypedTest, AWatchOutlivesALackOfMemory) {
    test::Process service = startService();
    test::Heard heard;
    const auto port = mSettings.watch(exchange::short_("a"), [&](int now) { heard.add(std::to_string(now)); });
    EXPECT_TRUE(mSettings.set(exchange::short_("a"), 1));
    EXPECT_TRUE(test::waitUntil([&] { return heard.all().size() == 1; }));
    {
        const test::ScarceMemory none(test::ScarceMemory::Of::Others, 1, true);
        EXPECT_TRUE(mSettings.set(exchange::short_("a"), 2));
        std::this_thread::sleep_for(1200ms);  // beyond the next check
        EXPECT_TRUE(test::ScarceMemory::hasFailed());
    }
    EXPECT_TRUE(test::waitUntil([&] { return heard.all().size() == 2; }, 20000));
    EXPECT_THAT(heard.all(), ElementsAre("1", "2"));
}

TEST(KeygenTest, ConstantsAreWhatTheFileSays) {
    EXPECT_EQ(exchange::switch_::new_.name, "exchange.switch.new");
    EXPECT_EQ(exchange::switch_::new_.standard, 5.0);
    EXPECT_EQ(exchange::short_.range.most, 65535);
    EXPECT_EQ(exchange::json("a").defaultValue(), R"({"a":[1,null]})");
    EXPECT_EQ(exchange::durations("a").defaultValue(), std::vector{std::chrono::milliseconds(1s)});
    EXPECT_EQ(exchange::color.standard, sd::Color{0x336699ff});
    static_assert(std::is_same_v<decltype(exchange::int_), const sd::KeyFamily<std::int64_t>>);
}

}  // namespace
