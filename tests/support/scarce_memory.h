// Memory that runs out. To link it replaces the program's operators new and delete.
#pragma once

#include <cstdint>
#include <exception>

namespace test {

// For the life of the object, `new` fails for the n-th time that it is asked on one of these threads; from then on each
// time, where it lasts. One at a time in a process.
class ScarceMemory {
public:
    enum class Of { ThisThread, Others };
    ScarceMemory(Of whose, std::uint64_t n, bool lasts = false);
    ~ScarceMemory();
    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;

    static bool hasFailed();  // the latest

    // Runs the step with 1, 2 and so on, of which each is to have memory fail for the n-th time, until one of them has
    // not done so any more.
    template <class Step>
    static void forEach(const Step& step) {
        for (std::uint64_t n = 1; n == 1 || hasFailedInStep(); ++n) {
            beginStep(n);
            step(n);
        }
    }

    // Whether the task ends without an exception, while the n-th `new` on this thread fails.
    template <class Task>
    static bool passes(std::uint64_t n, bool lasts, const Task& task) {
        const ScarceMemory scarce(Of::ThisThread, n, lasts);
        try {
            task();
            return true;
        } catch (const std::exception&) {
            return false;
        }
    }

    // For other allocators: whether this time it fails, which counts as one more.
    static bool isRefused();

private:
    static void beginStep(std::uint64_t n);
    static bool hasFailedInStep();
};

}  // namespace test
