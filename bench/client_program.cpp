// A client of the service that has made one call, to see what it occupies.
#include <chrono>
#include <cstdio>
#include <thread>

#include "libsdconfig/sdconfig.h"

int main() {
    sd::SDConfig::GetInstance()->GetProperty("bench");
    std::fputs("ready\n", stderr);
    std::this_thread::sleep_for(std::chrono::hours(1));
    return 0;
}
