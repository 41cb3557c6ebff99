// Measurement of a piece of the module against a hand-written minimum that does the same work. Both run
// alternately in one process: on a shared machine an absolute time means little, but the ratio of
// neighbouring runs is stable.
//
// Thread rule: [benchmark thread].
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "bench/require.h"

namespace zumod::bench {

template <class Work>
double SecondsOf(Work& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double Median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// Reports a figure and the most it should be, as the counters `figure` and limit_`figure`. scripts/bench
// prints a row for each such pair; the counter "limit" belongs to "ratio".
inline void Report(benchmark::State& state, const std::string& figure, double value, double limit) {
    state.counters[figure] = value;
    state.counters[figure == "ratio" ? "limit" : "limit_" + figure] = limit;
}

// Each iteration runs both once, in alternating order; each should take 20 microseconds or more, in an inner
// loop if necessary. Register the benchmark with UseManualTime. Reports "ratio", the median of the
// iterations' ratios.
template <class Subject, class Minimum>
void RunPaired(benchmark::State& state, double limit, Subject subject, Minimum minimum) {
    subject();
    minimum();
    std::vector<double> ratios;
    bool subject_first = false;
    for (auto _ : state) {
        double subject_seconds = 0;
        double minimum_seconds = 0;
        if (subject_first) {
            subject_seconds = SecondsOf(subject);
            minimum_seconds = SecondsOf(minimum);
        } else {
            minimum_seconds = SecondsOf(minimum);
            subject_seconds = SecondsOf(subject);
        }
        subject_first = !subject_first;
        ratios.push_back(subject_seconds / minimum_seconds);
        state.SetIterationTime(subject_seconds);
    }
    Report(state, "ratio", Median(ratios), limit);
}

}  // namespace zumod::bench
