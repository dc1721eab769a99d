// What zem top knows and how it looks: pure functions of what was sampled, so that they can be
// tested without a terminal. Main thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "apps/zem/latency.h"
#include "apps/zem/serverpages.h"

namespace zem {

class TopState {
public:
    std::string server;
    double interval_s = 1;
    bool onScreen = false;  // a live picture, which a key ends

    void TakeLatency(uint64_t duration_us);
    // `now` is the time of day as it is shown.
    void Take(const std::string& now, const VolumeStatus& volume, const ClientList& clients);
    void TakeFailure(const std::string& now, const std::string& what);

    bool Started() const { return m_samples > 0; }

    // A client as long as it is joined, and for a few samples after it went.
    struct Client {
        std::string since;     // empty: it was there at the start
        std::string left;      // empty: it is joined
        uint64_t changed = 0;  // the sample that saw it come or go; 0: the first one
    };

    std::string now;
    std::string failure;  // of the last sample; empty: it was answered
    std::string failingSince;
    VolumeStatus volume;
    std::map<std::string, Client> clients;
    size_t joined = 0;
    bool perhapsMore = false;
    uint64_t came = 0;
    uint64_t went = 0;
    CLatency latency;
    uint64_t last_us = 0;

    // Whether the client came or went within the last samples.
    bool Fresh(const Client& client) const;

private:
    uint64_t m_samples = 0;
    bool m_listWhole = false;  // of the sample before
};

// The rows of the picture, at most `lines`; none is wider than `columns`, sequences of colours
// aside.
std::vector<std::string> TopPicture(const TopState& state, size_t columns, size_t lines);
// One object; `stamp` is the time as programs read it.
std::string TopJson(const TopState& state, const std::string& stamp);

}  // namespace zem
