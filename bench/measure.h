// Timing side by side: contenders take turns in short rounds, so that a noisy machine hits all of
// them alike, and what counts is the median over the rounds.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

struct Contender {
    std::string name;
    std::function<void(int count)> run;    // does the work `count` times
    std::vector<double> nanoseconds = {};  // per operation, one for each round
};

// One that makes the same call each time, with the number of the repetition.
template <typename Call>
Contender Make(const char* name, Call call) {
    return {name, [call](int count) {
                for (int i = 0; i < count; ++i) call(i);
            }};
}

inline double Median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

inline void MeasureRounds(std::vector<Contender>& contenders, int rounds, int count) {
    using Clock = std::chrono::steady_clock;
    for (Contender& contender : contenders) contender.run(count);  // warm up
    for (int round = 0; round < rounds; ++round) {
        for (Contender& contender : contenders) {
            const auto start = Clock::now();
            contender.run(count);
            const std::chrono::duration<double, std::nano> took = Clock::now() - start;
            contender.nanoseconds.push_back(took.count() / count);
        }
    }
}

// The median over the rounds of how many times `a` takes what `b` took in the same round.
inline double Ratio(const Contender& a, const Contender& b) {
    std::vector<double> ratios;
    for (size_t i = 0; i < a.nanoseconds.size(); ++i) {
        ratios.push_back(a.nanoseconds[i] / b.nanoseconds[i]);
    }
    return Median(ratios);
}

// One line for each contender; the first one is what the others are compared with.
inline void Report(const char* title, const std::vector<Contender>& contenders) {
    std::printf("%s\n", title);
    for (const Contender& contender : contenders) {
        std::printf("  %-44s min %8.1f ns  median %8.1f ns  %6.2f x\n", contender.name.c_str(),
                    *std::min_element(contender.nanoseconds.begin(), contender.nanoseconds.end()),
                    Median(contender.nanoseconds), Ratio(contender, contenders.front()));
    }
}
