// Reads and writes the three kinds of values that the service keeps: a property, a secure value and a policy.
#include <cstdio>

#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "libsdconfig/sdconfig_text.h"

namespace {

int fail(const char* what) {
    std::fprintf(stderr, "read_and_write: %s; is the service running? \"sdconfig status\" tells\n", what);
    return 1;
}

}  // namespace

int main() {
    sd::SDConfig& config = *sd::SDConfig::GetInstance();
    sd::DMConfig& policies = *sd::DMConfig::GetInstance();

    // Lasts until the service stops.
    if (!config.SetProperty("example.theme", "dark")) return fail("the property was not set");
    std::printf("property: %s\n", config.GetProperty("example.theme").c_str());

    // Sealed and on the disk when the call returns true.
    const char password[] = "example.password";
    if (!config.SetSecure(password, "correct horse")) return fail("the secure value was not stored");
    std::printf("secure value: %s\n", sd::textAsSet(config.GetSecure(password)).c_str());

    // Above 5 a policy overrides the local value, and gives way to it again when it is deleted.
    if (!policies.SetPolicyWithUri(password, {{"from the administrator", 10}})) return fail("the policy was not set");
    std::printf("under a policy: %s%s\n", config.GetSecure(password).c_str(),
                policies.isStrongControl(password) ? " (strong)" : "");
    if (!policies.DeletePolicyWithUri(password)) return fail("the policy was not deleted");
    std::printf("without it: %s\n", config.GetSecure(password).c_str());

    const bool deleted = config.DeleteSecure(password) && config.DeleteProperty("example.theme");
    return deleted ? 0 : fail("the values were not deleted");
}
