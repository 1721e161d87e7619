// A client that goes on through restarts of the service: sets a secure value every second and reads it back.
// Start it, kill sdconfigd with -9, start sdconfigd again: the next round works, with nothing done here.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "libsdconfig/sdconfig.h"

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::stoi(argv[1]) : 60;
    sd::SDConfig& config = *sd::SDConfig::GetInstance();
    for (int round = 1; round <= rounds; ++round) {
        const std::string value = "round " + std::to_string(round);
        const bool stored = config.SetSecure("example.steady", value);
        const bool same = config.GetSecure("example.steady") == value;
        std::printf("%s: %s\n", value.c_str(), stored && same ? "stored and read back" : "no service");
        std::fflush(stdout);
        if (round < rounds) std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    return 0;
}
