// Measures a piece of the module against a hand-written minimum that does the same work, turn by turn in one
// run. On a shared machine a time means nothing and a ratio of neighbours still does.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

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

// Each iteration runs both once, the order changing from one to the next; each should take 20 microseconds or
// more, by a loop of its own if need be. Register the benchmark with UseManualTime. Reports "ratio", the
// median of the neighbours' ratios, beside "limit", the most it should be.
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
    state.counters["ratio"] = Median(ratios);
    state.counters["limit"] = limit;
}

}  // namespace zumod::bench
