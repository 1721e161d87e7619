// Where a host's data lies that tells no folder, and that of one which an earlier version served.
#include <sys/stat.h>

#include "tests/e2e/sandbox.h"

namespace test {
namespace {

class EarlierDataTest : public Sandbox {
protected:
    Result host(std::vector<std::string> arguments = {}) const {
        arguments.insert(arguments.begin(), PLAIN_HOST);
        return run(arguments, environment());
    }

    const std::string mEarlier = path("home");
    const std::string mOwn = path("home/plain_host");
};

TEST_F(EarlierDataTest, IsUsedUntilTheProgramHasItsOwn) {
    const std::string usual = path("home/.local/share/plain_host");
    const Result fresh = run({PLAIN_HOST}, {{"XDG_RUNTIME_DIR", path("run")}, {"HOME", path("home")}});
    EXPECT_EQ(fresh.out, usual + ": \n") << fresh.err;
    struct stat made {};
    ASSERT_EQ(::stat((usual + "/sdconfig.db").c_str(), &made), 0);
    ASSERT_EQ(::stat(usual.c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 0777u, 0700u);

    EXPECT_EQ(host({mEarlier, "earlier"}).out, mEarlier + ": earlier\n");
    const Result found = host();
    EXPECT_EQ(found.out, mEarlier + ": earlier\n");
    EXPECT_NE(found.err.find("W sdconfig: src/sdconfig_store_folder"), std::string::npos) << found.err;
    EXPECT_NE(found.err.find("no data in " + mOwn + ", so that of an earlier version is used: " + mEarlier + "\n"),
              std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(mOwn));
    std::filesystem::create_directory_symlink(".", mOwn);
    EXPECT_EQ(host().out, mOwn + ": earlier\n") << "both are the same folder";
}

TEST_F(EarlierDataTest, IsNotGuessedAtWhereBothHoldData) {
    host({mEarlier});
    std::filesystem::remove(mEarlier + "/sdconfig.db");  // policies alone are data, too
    std::filesystem::create_directory(mOwn);
    EXPECT_EQ(host({mOwn, "own"}).out, mOwn + ": own\n");

    const Result refused = host();
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("E sdconfig: src/sdconfig_store_folder"), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find("both " + mOwn + " and " + mEarlier + ", the place of earlier versions, hold data"),
              std::string::npos);
    EXPECT_NE(refused.err.find("name the folder with SDConfig::setDataPath"), std::string::npos);
    EXPECT_EQ(refused.err.find("failed"), std::string::npos) << refused.err;
    EXPECT_FALSE(std::filesystem::exists(mEarlier + "/sdconfig.db"));

    EXPECT_EQ(host({mOwn}).out, mOwn + ": own\n");
    std::filesystem::remove(mEarlier + "/dmhelper.db");
    EXPECT_EQ(host().out, mOwn + ": own\n");
}

TEST_F(EarlierDataTest, IsSealedByALayerOfTheHostsOwnThatKnowsNoRows) {
    const std::string folder = path("own");
    std::filesystem::create_directory(folder);
    const Result served = run({OWN_LAYER_HOST, folder, "secret"}, environment());
    EXPECT_EQ(served.out, folder + ": secret\n") << served.err;
    EXPECT_EQ(query(folder + "/sdconfig.db", "SELECT value FROM secure_v3 WHERE key = 'key'")[0][0], "host:secret");
    EXPECT_NE(served.err.find("no trail is kept: the security layer makes no digests"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(folder + "/trail.jsonl"));
    const std::string layers = std::filesystem::path(OWN_LAYER_HOST).parent_path();
    const Result doctor = run({"env", "LD_LIBRARY_PATH=" + layers, SDCONFIG_CLI, "doctor"}, environment());
    EXPECT_NE(doctor.out.find("problem: security layer"), std::string::npos) << doctor.err;
}

}  // namespace
}  // namespace test
