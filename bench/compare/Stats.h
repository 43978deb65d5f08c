// The few statistics the comparison reports.
#ifndef ORVANE_BENCH_COMPARE_STATS_H
#define ORVANE_BENCH_COMPARE_STATS_H

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace compare {

// The middle sample, or the mean of the two middle ones.
inline double median(std::vector<double> samples) {
    if (samples.empty()) throw std::invalid_argument("median of nothing");
    const size_t middle = samples.size() / 2;
    std::nth_element(samples.begin(), samples.begin() + middle, samples.end());
    const double upper = samples[middle];
    if (samples.size() % 2 != 0) return upper;
    const double lower = *std::max_element(samples.begin(), samples.begin() + middle);
    return (lower + upper) / 2;
}

// The sample below which `percent` of the samples lie (nearest rank).
inline double percentile(std::vector<double> samples, double percent) {
    if (samples.empty()) throw std::invalid_argument("percentile of nothing");
    std::sort(samples.begin(), samples.end());
    const double rank = percent / 100 * static_cast<double>(samples.size());
    size_t index = static_cast<size_t>(rank + 0.999999);
    index = index == 0 ? 0 : index - 1;
    return samples[std::min(index, samples.size() - 1)];
}

// A check of median() and percentile() themselves, run before every comparison.
inline bool statsWork() {
    return median({3}) == 3 && median({5, 1, 3}) == 3 && median({4, 1, 3, 2}) == 2.5 &&
           median({7, 7, 1, 100}) == 7 && percentile({5, 1, 4, 2, 3, 6, 7, 8, 9, 10}, 90) == 9 &&
           percentile({3, 1, 2}, 10) == 1 && percentile({3, 1, 2}, 100) == 3;
}

}  // namespace compare

#endif
