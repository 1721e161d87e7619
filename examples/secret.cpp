// Stores a secret and reads it back.
#include <cstdio>

#include "libsdconfig/sdconfig.h"

int main() {
    sd::SDConfig& config = *sd::SDConfig::GetInstance();
    if (!config.SetSecure("chat.password", "correct horse")) return 1;  // sealed and on the disk when it returns true
    std::printf("%s\n", config.GetSecure("chat.password").c_str());
}
