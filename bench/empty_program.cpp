// The floor of a start: a program that is linked to the same libraries and does nothing; told to stay, it says that it
// is there.
#include <cstdio>
#include <cstring>
#include <thread>

#include "libsdconfig/sdconfig.h"

int main(int argc, char** argv) {
    sd::SDConfig::GetInstance();  // so that the linker keeps the library
    if (argc == 1 || std::strcmp(argv[1], "stay") != 0) return 0;
    std::fputs("ready\n", stderr);
    std::this_thread::sleep_for(std::chrono::hours(1));
    return 0;
}
