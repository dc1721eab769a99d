// 32-bit random numbers that a seed repeats.
#pragma once

#include <cstdint>
#include <random>

class CRandom {
public:
    explicit CRandom(unsigned seed) : m_engine(seed) {}
    uint32_t operator()() { return static_cast<uint32_t>(m_engine()); }

private:
    std::mt19937 m_engine;
};
