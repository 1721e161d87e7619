#include "bench/comparison.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

const char* nameOf(Wanted wanted) {
    switch (wanted) {
        case Wanted::AtMost:
            return "at most";
        case Wanted::AtLeast:
            return "at least";
        case Wanted::Nothing:
            break;
    }
    return "";
}

void record(const nlohmann::json& line) {
    if (const char* path = std::getenv("SDCONFIG_BENCH_RESULTS")) std::ofstream(path, std::ios::app) << line << '\n';
}

nlohmann::json lineOf(const std::string& what, const char* unit, const Samples& figures, const std::string& series,
                      double x) {
    nlohmann::json line{{"what", what}, {"unit", unit}, {"figure", median(figures)}, {"rounds", figures.size()}};
    line["spread"] = {quantile(figures, 0), quantile(figures, 1)};
    if (!series.empty()) {
        line["series"] = series;
        line["x"] = x;
    }
    return line;
}

}  // namespace

double quantile(Samples samples, double share) {
    if (samples.empty()) return 0;
    const auto at = static_cast<std::ptrdiff_t>(std::lround(share * static_cast<double>(samples.size() - 1)));
    std::nth_element(samples.begin(), samples.begin() + at, samples.end());
    return samples[static_cast<std::size_t>(at)];
}

double median(const Samples& samples) {
    return quantile(samples, 0.5);
}

Extent::Extent(int argc, char** argv) : mKind(Kind::Full) {
    const std::string word = argc > 1 ? argv[1] : "full";
    if (word == "short") mKind = Kind::Short;
    if (word == "smoke") mKind = Kind::Smoke;
    if (word == "full" || mKind != Kind::Full) return;
    std::fprintf(stderr, "%s: the extent is full, short or smoke\n", argv[0]);
    std::exit(2);
}

int Extent::rounds() const {
    if (isSmoke()) return 1;
    return isFull() ? 9 : 5;
}

int Extent::calls(int full) const {
    if (isSmoke()) return 2;
    return isFull() ? full : std::max(full / 5, 1);
}

int Extent::size(int full, int smoke) const {
    return isSmoke() ? smoke : full;
}

std::vector<Samples> alternate(int rounds, const std::vector<std::function<double()>>& measures) {
    std::vector<Samples> samples(measures.size());
    for (int round = 0; round < rounds; ++round)
        for (std::size_t i = 0; i < measures.size(); ++i) {
            const std::size_t at = (i + static_cast<std::size_t>(round)) % measures.size();
            samples[at].push_back(measures[at]());
        }
    return samples;
}

double p50Microseconds(int calls, const std::function<void()>& call) {
    Samples times;
    times.reserve(static_cast<std::size_t>(calls));
    for (int i = 0; i < calls; ++i) {
        const auto start = Clock::now();
        call();
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return median(times);
}

double callsASecond(int calls, const std::function<void()>& call) {
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i) call();
    return calls / std::chrono::duration<double>(Clock::now() - start).count();
}

void report(const Comparison& comparison, const Samples& figures, const Samples& floors) {
    Samples ratios;
    for (std::size_t i = 0; i < std::min(figures.size(), floors.size()); ++i) ratios.push_back(figures[i] / floors[i]);
    const double ratio = median(ratios);
    std::printf("%s: %.4g %s, %s: %.4g %s, ratio %.2f (%.2f to %.2f)", comparison.what.c_str(), median(figures),
                comparison.unit, comparison.against.c_str(), median(floors), comparison.unit, ratio,
                quantile(ratios, 0), quantile(ratios, 1));
    if (comparison.wanted != Wanted::Nothing)
        std::printf(", wanted %s %.2f", nameOf(comparison.wanted), comparison.bound);
    std::printf("\n");
    std::fflush(stdout);

    nlohmann::json line = lineOf(comparison.what, comparison.unit, figures, comparison.series, comparison.x);
    line["against"] = comparison.against;
    line["floor"] = median(floors);
    line["ratio"] = ratio;
    line["ratio_spread"] = {quantile(ratios, 0), quantile(ratios, 1)};
    line["wanted"] = nameOf(comparison.wanted);
    line["bound"] = comparison.bound;
    record(line);
}

void report(const std::string& what, const char* unit, const Samples& figures, const std::string& series, double x) {
    std::printf("%s: %.4g %s (%.4g to %.4g)\n", what.c_str(), median(figures), unit, quantile(figures, 0),
                quantile(figures, 1));
    std::fflush(stdout);
    record(lineOf(what, unit, figures, series, x));
}

}  // namespace bench
