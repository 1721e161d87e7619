// A figure beside its floor or its peer, measured in turn in one run: what every program here reports.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench {

using Samples = std::vector<double>;  // one a round

double quantile(Samples samples, double share);  // share: 0 the least, 1 the greatest; 0 of no samples
double median(const Samples& samples);

// How much is measured. All programs take it as their first argument: "full" (the default), "short" for the main ratios
// in two minutes in all, "smoke" to see that the program runs.
class Extent {
public:
    // Ends the process with 2 when the argument is none of them.
    Extent(int argc, char** argv);

    bool isFull() const { return mKind == Kind::Full; }
    bool isSmoke() const { return mKind == Kind::Smoke; }
    int rounds() const;                   // how often the measures take turns
    int calls(int full) const;            // calls a round, where the full extent has so many
    int size(int full, int smoke) const;  // how much data there is; a smaller amount than `full` only when smoking

private:
    enum class Kind { Full, Short, Smoke };
    Kind mKind;
};

// Runs the measures one after the other, all of them `rounds` times; each returns one sample. The order turns with the
// rounds, so that none always follows the same other.
std::vector<Samples> alternate(int rounds, const std::vector<std::function<double()>>& measures);

// Calls `call` so many times. Returns the median of a call, in microseconds.
double p50Microseconds(int calls, const std::function<void()>& call);

// Calls `call` so many times. Returns calls a second.
double callsASecond(int calls, const std::function<void()>& call);

enum class Wanted { Nothing, AtMost, AtLeast };

struct Comparison {
    std::string what;
    std::string against;
    const char* unit;
    Wanted wanted = Wanted::Nothing;
    double bound = 0;      // of the ratio what / against
    std::string series{};  // of the plot that it is a point of; "" for none
    double x = 0;
};

// Prints one line: both medians and the median of the rounds' ratios with its spread, from the lowest to the highest.
// Where $SDCONFIG_BENCH_RESULTS names a file, the same goes to its end as one line of JSON.
void report(const Comparison& comparison, const Samples& figures, const Samples& floors);

// The same for a figure that stands by itself.
void report(const std::string& what, const char* unit, const Samples& figures, const std::string& series = "",
            double x = 0);

}  // namespace bench
