// What the library that makes things scarce shares with the program that watches.
#pragma once

#include <atomic>
#include <cstdint>

namespace torture {

// In a file that both map. All zero: nothing is counted yet.
struct Scarcity {
    enum Kind : std::uint32_t { Memory, Descriptor, Thread, Mapping };
    std::atomic<std::uint32_t> kind;
    std::atomic<std::uint32_t> isCounting;
    std::atomic<std::uint64_t> at;     // the number of the time that fails; 0 for none
    std::atomic<std::uint64_t> asked;  // how often it was asked for
    char place[256];                   // the file of who was refused, or kUsersLookUp
    char crashPlace[256];              // the file in whose code the process crashed, or kUsersLookUp
};

// Where users are looked up the C library asks under its own name, as for everybody else.
inline constexpr char kUsersLookUp[] = "the look-up of users";

}  // namespace torture
