// Tries to get round a policy of the machine, as a program of any user may: get_round_policy KEY VALUE
// VALUE is what the policy gives the key. Fails where an attempt succeeded or changed what the key has, and tells
// which.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"

namespace {

constexpr int kHighest = 127;
constexpr char kMine[] = "mine";

class Attempts {
public:
    Attempts(std::string key, std::string value) : mKey(std::move(key)), mValue(std::move(value)) {}

    // answered: as it has to be.
    void expect(const char* attempt, bool answered) {
        if (answered && holds()) return;
        std::fprintf(stderr, "get_round_policy: %s %s; the key has \"%s\"\n", attempt,
                     answered ? "changed something" : "was answered otherwise", mConfig.GetSecure(mKey).c_str());
        mHeld = false;
    }

    void makeAll() {
        expect("nothing", true);
        expect("SetPolicyWithUri", !mPolicies.SetPolicyWithUri(mKey, {{kMine, kHighest}}));
        expect("SetPolicyList", !mPolicies.SetPolicyList({{mKey, {{kMine, kHighest}}}}));
        expect("DeletePolicyWithUri", !mPolicies.DeletePolicyWithUri(mKey));
        expect("ClearAllKeys", mPolicies.ClearAllKeys());
        expect("SetSecure", mConfig.SetSecure(mKey, kMine));
        expect("DeleteSecure", mConfig.DeleteSecure(mKey));
    }

    bool haveHeld() const { return mHeld; }

private:
    bool holds() {
        const sd::PolicyMap policy = mPolicies.GetPolicyWithUri(mKey);
        return mConfig.GetSecure(mKey) == mValue && mPolicies.isStrongControl(mKey) && policy.count(mValue) == 1;
    }

    const std::string mKey;
    const std::string mValue;
    sd::SDConfig& mConfig = *sd::SDConfig::GetInstance();
    sd::DMConfig& mPolicies = *sd::DMConfig::GetInstance();
    bool mHeld = true;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: get_round_policy KEY VALUE\n");
        return EXIT_FAILURE;
    }
    Attempts attempts(argv[1], argv[2]);
    attempts.makeAll();
    return attempts.haveHeld() ? EXIT_SUCCESS : EXIT_FAILURE;
}
