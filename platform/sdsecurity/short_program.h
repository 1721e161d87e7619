// A program that is run for one short answer. Of the C library alone, for sdconfig-seal as well.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "base/deadline.h"

namespace sd::security {

struct ProgramEnd {
    enum class How {
        Exited,   // with exitCode
        Missing,  // there is no such program
        TooLong,  // it was killed at the deadline
        TooMuch,  // it was killed for printing more than there is room for
        Failed,   // it was ended by a signal, or could not be started
    } how = How::Failed;
    int exitCode = -1;
    std::size_t outputSize = 0;      // of what stands in the room for its output
    std::array<char, 1024> error{};  // what it printed to its standard error, as far as there is room
    std::size_t errorSize = 0;

    std::string_view errorText() const { return {error.data(), errorSize}; }
};

// Runs the program of the path `arguments[0]`, with nothing of this process but its limits, its folder and its user.
// arguments, environment: end with a null pointer. input: stands in a pipe before the program starts, so a pipe has to
// hold it. Any thread. The program is gone when this returns.
ProgramEnd runShortProgram(const char* const* arguments, const char* const* environment, std::string_view input,
                           char* room, std::size_t roomSize, const Deadline& deadline);

}  // namespace sd::security
