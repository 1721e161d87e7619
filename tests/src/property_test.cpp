// Build properties. The two absolute files are read below a root folder of the test's own.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "libsdconfig/sdconfig.h"
#include "src/sdconfig_impl_property.h"
#include "tests/support/support.h"

namespace sd {
namespace {

// A product whose build.prop is `content`; its data folder is what the reader is told.
class PropertyTest : public testing::Test {
protected:
    PropertyTest() {
        std::filesystem::create_directories(mProduct / "etc");
        std::filesystem::create_directories(mProduct / "data");
        SDConfig::setVelmarDataPath(mProduct / "data");
    }
    ~PropertyTest() override { SDConfig::setVelmarDataPath(""); }

    const test::TempDir mProduct;
    const std::string mFile = mProduct / "etc/build.prop";
    test::LogCapture mLog;
};

TEST_F(PropertyTest, LinesAreTakenApartAsWritten) {
    test::writeFile(mFile,
                    "plain=1\nspaced \t=  two words \n leading=l\nmore=a=b\n# c=d\nnothing here\n\n=noname\n"
                    "cr=x\r\ntwice=1\ntwice=2\nro.once=\nro.once=1\nro.once=2\nlast=no newline");
    SDPropertyInf properties;
    const std::pair<const char*, const char*> expected[] = {
        {"plain", "1"}, {"spaced", "two words "}, {" leading", "l"}, {"leading", ""}, {"more", "a=b"},
        {"# c", "d"},   {"", "noname"},           {"cr", "x\r"},     {"twice", "2"},  {"ro.once", "1"},
        {"Plain", ""},  {"last", "no newline"},
    };
    for (const auto& [key, value] : expected) EXPECT_EQ(properties.GetProperty(key), value) << key;
    EXPECT_EQ(mLog.count("invalid set readyonly ro.once=2", 6), 1);
    EXPECT_EQ(mLog.count("init property data", 5), 1);
}

TEST_F(PropertyTest, LongLinesAndZeroBytesAreCutNotTrusted) {
    std::string content;
    for (const size_t length : std::initializer_list<size_t>{1022, 1023, 1024, 1026, 100000}) {
        std::string line = "k" + std::to_string(length) + "=";
        line.resize(length, 'v');
        content += line + "\n";
    }
    content += std::string("nul=a\0b=c\nafter=1\n", 18);
    test::writeFile(mFile, content);
    SDPropertyInf properties;
    EXPECT_EQ(properties.GetProperty("k1022").size(), 1022u - 6);
    for (const char* key : {"k1023", "k1024", "k1026"}) EXPECT_EQ(properties.GetProperty(key).size(), 1023u - 6) << key;
    EXPECT_EQ(properties.GetProperty("k100000").size(), 1023u - 8);
    EXPECT_EQ(properties.GetProperty("nul"), "a");
    EXPECT_EQ(properties.GetProperty("after"), "1");
}

TEST_F(PropertyTest, WhatIsNoFileIsNotRead) {
    std::filesystem::create_directory(mFile);
    SDPropertyInf ofFolder;
    EXPECT_EQ(mLog.count("can not find filename " + mProduct.path() + "/data/../etc/build.prop", 7), 1);
    EXPECT_EQ(mLog.count("failed to init properties from " + mProduct.path() + "/data/../etc/build.prop", 6), 1);
    std::filesystem::remove(mFile);
    ASSERT_EQ(::mkfifo(mFile.c_str(), 0600), 0);
    SDPropertyInf ofPipe;  // and it does not hang on it
    EXPECT_EQ(mLog.count("can not find filename " + mProduct.path(), 7), 2);

    SDConfig::setVelmarDataPath("");
    mLog.clear();
    SDPropertyInf ofNothing;
    EXPECT_FALSE(mLog.has("failed to init properties from"));
    EXPECT_EQ(ofNothing.GetProperty("ro.sd.build.version"), "");
}

TEST_F(PropertyTest, SpecialKeysFollowTheFileAndReadOnlyOnesStay) {
    test::writeFile(mFile, "ro.sd.build.version=1\nother=1\n");
    SDPropertyInf properties;
    test::writeFile(mFile, "ro.sd.build.version=2\nro.sd.build.version=3\nother=2\n");
    EXPECT_EQ(properties.GetProperty("ro.sd.build.version"), "2") << "the first definition";
    EXPECT_EQ(properties.GetProperty("other"), "1");
    EXPECT_FALSE(properties.SetProperty("ro.sd.build.version", "9"));
    EXPECT_EQ(test::readFile(mFile), "ro.sd.build.version=2\nro.sd.build.version=3\nother=2\n");
    for (const char* value : {"", "1"}) EXPECT_TRUE(properties.SetProperty("ro.new", value));
    EXPECT_FALSE(properties.SetProperty("ro.new", "1") || properties.DeleteProperty("ro.new"));
    for (const char* value : {"1", "2"}) EXPECT_TRUE(properties.SetProperty("RO.free", value));
}

constexpr int kNotAllowed = 77;

// Runs in a child whose root is `folder`: 0 when all is as it should be.
int checkAbsoluteFiles(const std::string& folder) {
    if (::geteuid() != 0 && ::unshare(CLONE_NEWUSER) != 0) return kNotAllowed;
    if (::chroot(folder.c_str()) != 0 || ::chdir("/") != 0) return kNotAllowed;
    SDConfig::setVelmarDataPath("/product/data");
    test::LogCapture log;
    SDPropertyInf properties;
    const bool good = properties.GetProperty("ro.a") == "product" && properties.GetProperty("b") == "velmar" &&
                      log.count("invalid set readyonly ro.a=", 6) == 2 && !log.has("failed to init properties");
    return good ? 0 : 1;
}

TEST_F(PropertyTest, TheFirstFileWinsForReadOnlyKeysTheLastForOthers) {
    const test::TempDir root;
    for (const char* folder : {"product/data", "product/etc", "etc", "velmar/etc"})
        std::filesystem::create_directories(root / folder);
    test::writeFile(root / "product/etc/build.prop", "ro.a=product\nb=product\n");
    test::writeFile(root / "etc/build.prop", "ro.a=etc\nb=etc\n");
    test::writeFile(root / "velmar/etc/build.prop", "ro.a=velmar\nb=velmar\n");
    const pid_t child = ::fork();
    if (child == 0) ::_exit(checkAbsoluteFiles(root.path()));
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == kNotAllowed) GTEST_SKIP() << "a root folder of one's own takes a privilege";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace sd
