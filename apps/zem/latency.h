// Durations of requests, counted in buckets: adding one costs no memory, and percentiles are within
// 2 % of the truth however many there were. An object belongs to one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zem {

// For people, three digits: "42 us", "5.18 ms", "1.25 s".
std::string LatencyText(double duration_us);

class CLatency {
public:
    void Add(uint64_t duration_us);
    void Add(const CLatency& other);

    uint64_t Count() const { return m_count; }
    uint64_t Min_us() const { return m_count == 0 ? 0 : m_min_us; }
    uint64_t Max_us() const { return m_max_us; }
    double Mean_us() const;
    // The smallest duration that `part` (0 to 1) of all do not exceed; 0 when there is none.
    uint64_t Percentile_us(double part) const;

    // The histogram that people see: 1, 2, 5, 10, 20, 50 ... microseconds, exact counts. A row
    // holds what is above the row before and up to its own bound; the last has no bound.
    static constexpr size_t kRows = 25;
    static uint64_t RowBound_us(size_t row);  // UINT64_MAX for the last
    uint64_t RowCount(size_t row) const { return m_rows[row]; }

private:
    // 64 buckets for every doubling.
    static constexpr unsigned kFineBits = 6;
    static constexpr size_t kBuckets = size_t{64 - kFineBits + 1} << kFineBits;
    static size_t BucketOf(uint64_t value);
    static uint64_t UpperOf(size_t bucket);

    std::array<uint64_t, kBuckets> m_buckets{};
    std::array<uint64_t, kRows> m_rows{};
    uint64_t m_count = 0;
    uint64_t m_min_us = UINT64_MAX;
    uint64_t m_max_us = 0;
    double m_sum_us = 0;
};

}  // namespace zem
