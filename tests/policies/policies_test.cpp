// The folders of the machine's policies: what of them counts, for whom, and what stays when a file breaks.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <system_error>

#include "policies/folder_watch.h"
#include "policies/policy_folders.h"
#include "tests/support/support.h"

namespace sd {
namespace {

namespace fs = std::filesystem;
using State = PolicySource::State;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;

std::string fileOf(const std::string& uri, const std::string& value, const std::string& more = "") {
    return "{\"" + uri + "\":\n{\"value\": \"" + value + "\", \"priority\": 7" + more + "}}";
}

class PoliciesTest : public testing::Test {
protected:
    PoliciesTest() {
        for (const char* folder : {"vendor", "admin", "boot"}) fs::create_directory(mFolder / folder);
    }

    // As "URI=value", in order.
    std::vector<std::string> read(const std::set<std::string>& unfinished = {}) {
        const auto isUnfinished = [&](const std::string& path) {
            return unfinished.count(path.substr(mFolder.path().size() + 1)) != 0;
        };
        mRead = mFolders.read(mUsers, isUnfinished);
        std::vector<std::string> policies;
        for (const auto& one : mRead->all()) policies.push_back(one.entry->uri + "=" + one.entry->value);
        return policies;
    }
    void write(const std::string& name, const std::string& text) const { test::writeFile(mFolder / name, text); }

    // Of the file or folder in the last reading.
    PolicySource sourceOf(const std::string& name) const {
        for (const auto* sources : {&mRead->status().folders, &mRead->status().files})
            for (const PolicySource& one : *sources)
                if (one.path == mFolder / name) return one;
        return {"", State::Absent, "not told"};
    }
    State stateOf(const std::string& name) const { return sourceOf(name).state; }

    test::TempDir mFolder;
    PolicyFolders mFolders{{mFolder / "vendor", mFolder / "admin", mFolder / "boot"}, ::geteuid()};
    PolicyUsers mUsers{::geteuid(), systemUsers(), std::chrono::seconds(10), nullptr};
    std::shared_ptr<const MachinePolicies> mRead;
};

TEST_F(PoliciesTest, FilesCountByTheRulesOfDropIns) {
    write("vendor/10-a.json", fileOf("a", "vendor"));
    write("vendor/20-b.json", fileOf("b", "vendor"));
    write("vendor/30-c.json", fileOf("c", "vendor"));
    write("vendor/40-d.json", fileOf("d", "vendor"));
    write("vendor/90-last.json", fileOf("E", "of the last name", ", \"description\": \"why\""));
    write("vendor/.hidden.json", fileOf("x", ""));
    write("vendor/text.txt", fileOf("y", ""));
    write("admin/20-b.json", fileOf("b", "admin"));
    write("admin/30-c.json", "");
    fs::create_symlink("/dev/null", mFolder / "boot/40-d.json");
    write("boot/50-e.json", fileOf("e", "of a later folder"));
    EXPECT_THAT(read(), ElementsAre("a=vendor", "b=admin", "E=of the last name"));
    EXPECT_EQ(sourceOf("vendor/20-b.json").detail, mFolder / "admin/20-b.json");
    EXPECT_EQ(stateOf("vendor/20-b.json"), State::Replaced);
    EXPECT_EQ(stateOf("admin/30-c.json"), State::Masks);
    EXPECT_EQ(stateOf("boot/40-d.json"), State::Masks);

    const auto* const found = mRead->find("e");
    ASSERT_TRUE(found);
    EXPECT_EQ(mRead->pathOf(*found), mFolder / "vendor/90-last.json");
    EXPECT_EQ(found->entry->line, 1);
    EXPECT_EQ(found->entry->description, "why");
    EXPECT_FALSE(mRead->find("ee"));

    const auto before = mRead;
    write("admin/20-b.json", fileOf("b", "admin"));
    write("vendor/90-last.json", "\n" + fileOf("e", "of the last name"));
    write("boot/60-f.json", fileOf("F", "new"));
    fs::remove(mFolder / "vendor/10-a.json");
    read();
    EXPECT_THAT(changedUris(before.get(), mRead.get()), ElementsAre("a", "F"));
    EXPECT_THAT(changedUris(nullptr, mRead.get()), ElementsAre("b", "e", "F"));
}

TEST_F(PoliciesTest, WhatOthersCanChangeIsLeftOut) {
    write("vendor/a.json", fileOf("a", "vendor"));
    write("admin/a.json", fileOf("a", "anybody's"));
    fs::permissions(mFolder / "admin/a.json", fs::perms(0646));
    write("admin/large.json", std::string(kPolicyFileBytesMax + 1, ' '));
    ASSERT_EQ(::mkfifo((mFolder / "admin/pipe.json").c_str(), 0600), 0);
    fs::create_directory(mFolder / "open");
    fs::create_directory(mFolder / "kept");
    write("kept/target", fileOf("l", "linked"));
    write("open/target", fileOf("o", "anybody's"));
    fs::permissions(mFolder / "open", fs::perms(0777));
    fs::create_symlink("../kept/target", mFolder / "admin/link.json");
    fs::create_symlink(mFolder / "open/target", mFolder / "admin/out.json");
    fs::create_symlink("loop.json", mFolder / "admin/loop.json");
    EXPECT_THAT(read(), ElementsAre("a=vendor", "l=linked")) << "nor does it take a place";
    EXPECT_TRUE(mRead->status().hasLinks);
    EXPECT_THAT(sourceOf("admin/a.json").detail, HasSubstr("a.json is writable by everybody"));
    EXPECT_THAT(sourceOf("admin/large.json").detail, HasSubstr("larger than 4 MiB"));
    EXPECT_THAT(sourceOf("admin/out.json").detail, HasSubstr("/open is writable by everybody"));
    for (const char* name : {"a", "large", "pipe", "out", "loop"})
        EXPECT_EQ(stateOf(std::string("admin/") + name + ".json"), State::LeftOut) << name;

    fs::permissions(mFolder / "admin", fs::perms(0770));
    EXPECT_THAT(read(), ElementsAre("a=vendor"));
    EXPECT_THAT(sourceOf("admin").detail, HasSubstr("is writable by its group"));
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown((mFolder / "vendor").c_str(), 1234, 0), 0);
        EXPECT_THAT(read(), ElementsAre());
        EXPECT_THAT(sourceOf("vendor").detail, HasSubstr("belongs to the user 1234"));
    }
    fs::permissions(mFolder.path(), fs::perms(0777));
    write("boot/b.json", fileOf("b", "safe itself"));
    EXPECT_THAT(read(), ElementsAre()) << "who can write the folder above can put another one there";
    fs::permissions(mFolder.path(), fs::perms(0700));
    EXPECT_THAT(read(), testing::Contains("b=safe itself"));

    fs::remove_all(mFolder / "boot");
    write("boot", "");
    EXPECT_EQ((read(), stateOf("boot")), State::LeftOut) << "a folder that is a file";
    fs::remove(mFolder / "boot");
    EXPECT_EQ((read(), stateOf("boot")), State::Absent);
}

TEST_F(PoliciesTest, TenThousandFilesAreRead) {
    for (int i = 10'000; i < 20'000; ++i) write("admin/" + std::to_string(i) + ".json", "{}");
    write("admin/19999.json", fileOf("last", "1"));
    write("admin/20000.json", fileOf("beyond", "1"));
    EXPECT_THAT(read(), ElementsAre("last=1"));
    EXPECT_THAT(mRead->status().files.back().detail, HasSubstr("1 files, the last ones by their names"));
}

TEST_F(PoliciesTest, ABrokenFileKeepsItsPlaceAndWhatItHeld) {
    write("vendor/a.json", fileOf("a", "vendor"));
    write("admin/a.json", "{");
    write("admin/b.json", fileOf("b", "whole"));
    EXPECT_THAT(read(), ElementsAre("b=whole")) << "broken at the start, it holds nothing, in the place of the other";
    EXPECT_EQ(stateOf("admin/a.json"), State::LeftOut);
    write("admin/a.json", fileOf("a", "admin"));
    EXPECT_THAT(read(), ElementsAre("a=admin", "b=whole"));
    for (const std::string& broken :
         {std::string("{"), fileOf("a", "\\u0000"), fileOf("a", "\xff"), fileOf("a", "1\",\"value\":\"2"),
          fileOf("a", "", ", \"users\": [4294967295]"), fileOf("a", "", ", \"users\": []"),
          fileOf("a", "", ", \"users\": [\"u\", [1]]"), fileOf("a", "", ", \"users\": \"u\""),
          std::string(kPolicyFileBytesMax + 1, ' ')}) {
        write("admin/a.json", broken);
        for (int i = 0; i < 2; ++i) EXPECT_THAT(read(), ElementsAre("a=admin", "b=whole")) << broken.substr(0, 99);
        EXPECT_EQ(stateOf("admin/a.json"), State::Kept);
        EXPECT_NE(sourceOf("admin/a.json").detail, "");
    }
    write("admin/a.json", "");
    EXPECT_THAT(read({"admin/a.json"}), ElementsAre("a=admin", "b=whole")) << "who writes it is not at the end";
    fs::remove(mFolder / "admin/a.json");
    EXPECT_THAT(read(), ElementsAre("a=vendor", "b=whole"));
    write("admin/a.json", "");
    EXPECT_THAT(read({"admin/a.json"}), ElementsAre("a=vendor", "b=whole"))
        << "a new one takes its place when it is whole";
    write("admin/a.json", "{");
    EXPECT_THAT(read(), ElementsAre("b=whole")) << "once gone, what it held is forgotten";
    write("vendor/a.json", "{");
    read();
    fs::remove(mFolder / "admin/a.json");
    EXPECT_THAT(read(), ElementsAre("a=vendor", "b=whole")) << "what is replaced is not gone";
}

TEST_F(PoliciesTest, APolicyIsForThoseThatItNames) {
    const std::string self = std::to_string(::geteuid());
    write("vendor/a.json", fileOf("a", "", ", \"users\": [\"no.such.user\", " + self + "]"));
    write("vendor/b.json", fileOf("b", "", ", \"users\": [\"4294967294\", \"@no.such.group\"]"));
    write("vendor/c.json", fileOf("a", "for others", ", \"users\": [4294967294]"));
    write("vendor/d.json", fileOf("d", "", ", \"description\": \"by law\", \"users\": [" + self + "]"));
    EXPECT_THAT(read(), ElementsAre("a=", "d="));
    EXPECT_THAT(mRead->status().nobody, UnorderedElementsAre(Pair("no.such.user", HasSubstr("no user")),
                                                             Pair("@no.such.group", HasSubstr("no group"))));
}

TEST(PolicyUsersTest, ASlowAnswerCountsWhenItComes) {
    std::promise<void> answer;
    std::promise<void> late;
    const auto group = [gate = answer.get_future().share()](const std::string& name) -> std::optional<gid_t> {
        if (name == "slow") gate.wait();
        return name == "other" ? 8 : 7;
    };
    const auto user = [](const std::string& name) -> std::optional<uid_t> {
        if (name == "lost") throw std::system_error(EIO, std::generic_category());
        return name == "me" ? 5 : 6;
    };
    const UserDirectory directory{user, group, [](uid_t) { return std::vector<gid_t>{3, 7}; }};
    PolicyUsers quick(5, directory, std::chrono::seconds(10), nullptr);
    EXPECT_THAT(quick.lookUp({"me", "you", "lost", "@quick", "@other", "5"}),
                UnorderedElementsAre(Pair("lost", HasSubstr("not answered"))));
    EXPECT_FALSE(quick.areAllAnswered()) << "a directory that fails is asked again";
    for (const char* meant : {"me", "@quick", "5"}) EXPECT_TRUE(quick.isAmong({"you", "@other", meant})) << meant;
    EXPECT_FALSE(quick.isAmong({"you", "@other"}));

    PolicyUsers users(5, directory, std::chrono::milliseconds(20), [&] { late.set_value(); });
    EXPECT_THAT(users.lookUp({"@slow"}), UnorderedElementsAre(Pair("@slow", HasSubstr("not answered in time"))));
    EXPECT_FALSE(users.isAmong({"@slow"}));
    answer.set_value();
    late.get_future().wait();
    EXPECT_THAT(users.lookUp({"@slow"}), UnorderedElementsAre());
    EXPECT_TRUE(users.isAmong({"@slow"}));
}

TEST(FolderWatchTest, LearnsOfAFileOnceItHasItsName) {
    const test::TempDir folder;
    FolderWatch watch({folder.path()});
    (void)watch.arm();
    test::writeFile(folder / "50-fleet.json.new", "{}");
    EXPECT_FALSE(watch.hasNews());
    fs::rename(folder / "50-fleet.json.new", folder / "50-fleet.json");
    EXPECT_TRUE(watch.hasNews());
}

}  // namespace
}  // namespace sd
