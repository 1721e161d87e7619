// What the fuzzer learns from where the thread sanitizer looks on: a counter a place in the code, some places sharing
// one.
#include <array>
#include <cstdint>

namespace {

__attribute__((section("__libfuzzer_extra_counters"))) std::array<uint8_t, std::size_t{1} << 17> sCounters;

}  // namespace

// Called at each place by the code itself, instead of the fuzzer's own function, which counts nothing. A count that
// another thread overtakes is lost, which does no harm.
extern "C" __attribute__((disable_sanitizer_instrumentation, no_sanitize("coverage"))) void
__wrap___sanitizer_cov_trace_pc() {
    const auto place = reinterpret_cast<uintptr_t>(__builtin_return_address(0));
    uint8_t& counter = *(sCounters.data() + place % sCounters.size());
    if (counter < UINT8_MAX) ++counter;
}
