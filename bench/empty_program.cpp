// The floor of a start: a program that is linked to the same libraries and does nothing but say that it is there.
#include <cstdio>
#include <cstring>
#include <thread>

#include "libsdconfig/sdconfig.h"

int main(int argc, char** argv) {
    sd::SDConfig::GetInstance();  // so that the linker keeps the library
    std::fputs("ready\n", stderr);
    if (argc > 1 && std::strcmp(argv[1], "stay") == 0) std::this_thread::sleep_for(std::chrono::hours(1));
    return 0;
}
