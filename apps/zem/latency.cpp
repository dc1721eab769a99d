// See latency.h.
#include "apps/zem/latency.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>

namespace zem {

std::string LatencyText(double duration_us) {
    // Bounds of half a digit less: what is rounded up to 1000 has the next unit.
    constexpr double kMost = 999.5;
    std::array<char, 32> text{};
    if (duration_us < kMost)
        std::snprintf(text.data(), text.size(), "%.0f us", duration_us);
    else if (duration_us < kMost * 1e3)
        std::snprintf(text.data(), text.size(), "%.3g ms", duration_us / 1e3);
    else if (duration_us < kMost * 1e6)
        std::snprintf(text.data(), text.size(), "%.3g s", duration_us / 1e6);
    else
        std::snprintf(text.data(), text.size(), "%.0f s", duration_us / 1e6);
    return text.data();
}

size_t CLatency::BucketOf(uint64_t value) {
    if (value < (uint64_t{1} << kFineBits)) return static_cast<size_t>(value);
    const auto shift = static_cast<unsigned>(std::bit_width(value)) - 1 - kFineBits;
    const uint64_t fine = (value >> shift) - (uint64_t{1} << kFineBits);
    return (size_t{shift + 1} << kFineBits) + static_cast<size_t>(fine);
}

uint64_t CLatency::UpperOf(size_t bucket) {
    const size_t group = bucket >> kFineBits;
    if (group == 0) return bucket;
    const uint64_t fine = bucket & ((size_t{1} << kFineBits) - 1);
    return (((fine + (uint64_t{1} << kFineBits)) + 1) << (group - 1)) - 1;
}

uint64_t CLatency::RowBound_us(size_t row) {
    constexpr std::array<uint64_t, 3> kSteps = {1, 2, 5};
    if (row + 1 >= kRows) return UINT64_MAX;
    uint64_t bound_us = kSteps[row % 3];
    for (size_t decade = row / 3; decade > 0; --decade)
        bound_us *= 10;
    return bound_us;
}

void CLatency::Add(uint64_t duration_us) {
    ++m_buckets[BucketOf(duration_us)];
    size_t row = 0;
    while (duration_us > RowBound_us(row))
        ++row;
    ++m_rows[row];
    ++m_count;
    m_min_us = std::min(m_min_us, duration_us);
    m_max_us = std::max(m_max_us, duration_us);
    m_sum_us += static_cast<double>(duration_us);
}

void CLatency::Add(const CLatency& other) {
    for (size_t i = 0; i < kBuckets; ++i)
        m_buckets[i] += other.m_buckets[i];
    for (size_t i = 0; i < kRows; ++i)
        m_rows[i] += other.m_rows[i];
    m_count += other.m_count;
    m_min_us = std::min(m_min_us, other.m_min_us);
    m_max_us = std::max(m_max_us, other.m_max_us);
    m_sum_us += other.m_sum_us;
}

double CLatency::Mean_us() const {
    return m_count == 0 ? 0 : m_sum_us / static_cast<double>(m_count);
}

uint64_t CLatency::Percentile_us(double part) const {
    if (m_count == 0) return 0;
    const double wanted = std::ceil(part * static_cast<double>(m_count));
    const auto rank = static_cast<uint64_t>(std::clamp(wanted, 1.0, static_cast<double>(m_count)));
    uint64_t seen = 0;
    for (size_t i = 0; i < kBuckets; ++i) {
        seen += m_buckets[i];
        if (seen >= rank) return std::clamp(UpperOf(i), m_min_us, m_max_us);
    }
    return m_max_us;
}

}  // namespace zem
