// Where a client looks for its user's services when the environment names no folder.
#include "platform/sdbus/runtime_folder.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>

#include "platform/sdbus/client_connection.h"
#include "tests/support/support.h"

namespace test {

namespace fs = std::filesystem;

TEST(RuntimeFolderTest, AClientLooksIntoTheSessionsFolder) {
    constexpr char kService[] = "runtime-folder-test";
    const TempDir users;
    const std::string session = users / std::to_string(::geteuid());
    std::string why;
    const auto reaches = [&] {
        const ScopedEnv unset("XDG_RUNTIME_DIR", nullptr);
        sdbus::ClientConnection::Failure failure;
        const auto place = sdbus::RuntimeFolder::forClient(users.path());
        const bool reached = sdbus::ClientConnection::open(place, kService, failure) != nullptr;
        why = failure.why;
        return reached;
    };
    EXPECT_FALSE(reaches());
    EXPECT_EQ(why, "") << "a user without a session is nothing to tell of";

    fs::create_directory(session);
    fs::permissions(session, fs::perms::owner_all);
    const int listener = listenAt(session + "/sdbus/" + kService);
    EXPECT_TRUE(reaches());
    fs::permissions(session, fs::perms::all);
    EXPECT_FALSE(reaches());
    EXPECT_THAT(why, testing::HasSubstr("others may write to the runtime folder " + session));
    const ScopedEnv named("XDG_RUNTIME_DIR", users.path().c_str());
    EXPECT_EQ(sdbus::RuntimeFolder::forClient(users.path()).next(), nullptr);
    ::close(listener);
}

}  // namespace test
