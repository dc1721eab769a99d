// See topview.h.
#include "apps/zem/topview.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <initializer_list>
#include <set>

#include "apps/zem/client/text.h"
#include "apps/zem/output.h"
#include "apps/zem/terminal.h"

namespace zem {
namespace {

constexpr uint64_t kFreshSamples = 5;

double UsedPart(const VolumeStatus& volume) {
    const uint64_t free_bytes = std::min(volume.free_bytes, volume.total_bytes);
    return 1 - static_cast<double>(free_bytes) / static_cast<double>(volume.total_bytes);
}

// A row of the picture: what is said, its colour, all cut to the width.
class CRows {
public:
    CRows(size_t columns, size_t lines) : m_columns(columns), m_lines(lines) {}
    void Add(const std::string& text) {
        if (Left() > 0) m_rows.push_back(CutToColumns(text, m_columns));
    }
    void Add(Colour colour, const std::string& text) {
        if (Left() > 0)
            m_rows.push_back(Painted(Stream::kOut, colour, CutToColumns(text, m_columns)));
    }
    // What stands between parts of the picture, where there is room for that.
    void AddGap() {
        constexpr size_t kFewLines = 10;
        if (m_lines >= kFewLines) Add("");
    }
    // A label of nine columns, something coloured, and plainly the first of `rests` that fits: they
    // say less and less. When none does, the last is cut.
    void Add(const char* label, Colour colour, const std::string& text,
             std::initializer_list<std::string> rests = {}) {
        if (Left() == 0) return;
        std::string head = label;
        head.resize(std::max(kLabel, head.size()), ' ');
        const std::string cut = CutToColumns(head + text, m_columns);
        const size_t room = m_columns - std::min(m_columns, ColumnsOf(cut));
        std::string tail;
        for (const std::string& rest : rests) {
            tail = rest;
            if (ColumnsOf(tail) <= room) break;
        }
        tail = CutToColumns(tail, room);
        m_rows.push_back(cut.size() <= head.size()
                             ? cut
                             : head + Painted(Stream::kOut, colour, cut.substr(head.size())) +
                                   tail);
    }
    // Columns behind a label.
    size_t Room() const { return m_columns - std::min(m_columns, kLabel); }
    size_t Left() const { return m_lines - std::min(m_lines, m_rows.size()); }
    std::vector<std::string> Take() { return std::move(m_rows); }

private:
    static constexpr size_t kLabel = 9;
    size_t m_columns;
    size_t m_lines;
    std::vector<std::string> m_rows;
};

void AddVolume(CRows& rows, const VolumeStatus& volume) {
    constexpr size_t kWidestBar = 24;
    constexpr size_t kNarrowestBar = 6;
    if (!volume.Known()) {
        rows.Add("Volume", Colour::kRed, StatusFailureText(volume));
        return;
    }
    const double used = UsedPart(volume);
    std::array<char, 32> percent{};
    std::snprintf(percent.data(), percent.size(), "%.1f %% used", used * 100);
    const Colour colour = used > 0.95   ? Colour::kRed
                          : used > 0.85 ? Colour::kYellow
                                        : Colour::kGreen;
    const std::string free = "   " + HumanBytes(volume.free_bytes) + " free";
    const std::string freeOf = free + " of " + HumanBytes(volume.total_bytes);
    const std::string told = std::string("  ") + percent.data() + freeOf;
    const size_t bar = std::min(kWidestBar, rows.Room() - std::min(rows.Room(), told.size() + 2));
    if (bar < kNarrowestBar) {
        rows.Add("Volume", colour, percent.data(), {freeOf, free, ""});
        return;
    }
    const auto filled = static_cast<size_t>(std::lround(used * static_cast<double>(bar)));
    rows.Add("Volume", colour,
             "[" + std::string(filled, '#') + std::string(bar - filled, '.') + "]", {told});
}

// How long the own requests took: the last one, then all of them.
void AddAnswers(CRows& rows, const TopState& state) {
    const auto within = [&](double part) {
        return LatencyText(static_cast<double>(state.latency.Percentile_us(part)));
    };
    const std::string median = "   median " + within(0.5);
    const std::string most = "   worst " + LatencyText(static_cast<double>(state.latency.Max_us()));
    const std::string all = median + "   99 % within " + within(0.99) + most;
    rows.Add(
        "Answers", Colour::kBold, LatencyText(static_cast<double>(state.last_us)),
        {all + "   of " + Counted(state.latency.Count(), "request"), all, median + most, most, ""});
}

void AddClients(CRows& rows, const TopState& state) {
    const std::string joined =
        (state.perhapsMore ? "at least " : "") + std::to_string(state.joined) + " joined";
    const std::string changes =
        "   " + std::to_string(state.came) + " came, " + std::to_string(state.went) + " went";
    if (state.perhapsMore) {
        rows.Add("Clients", Colour::kBold, joined,
                 {"   the server's list is full: there may be more", ""});
    } else {
        rows.Add("Clients", Colour::kBold, joined, {changes + " while watching", changes, ""});
    }
    if (state.clients.empty() || rows.Left() < 2) return;
    rows.AddGap();
    rows.Add(Colour::kDim, "  SINCE     CLIENT");
    size_t shown = 0;
    for (const auto& [id, client] : state.clients) {
        // The last row tells how many do not fit.
        if (rows.Left() <= 1 && shown + 1 < state.clients.size()) {
            rows.Add(Colour::kDim,
                     "  and " + std::to_string(state.clients.size() - shown) + " more clients");
            break;
        }
        ++shown;
        const bool fresh = state.Fresh(client);
        const char* const mark = !client.left.empty() ? "- " : fresh ? "+ " : "  ";
        std::string row = mark + (client.since.empty() ? std::string("before  ") : client.since) +
                          "  " + Printable(id);
        if (!client.left.empty()) row += "  left " + client.left;
        if (!client.left.empty())
            rows.Add(Colour::kRed, row);
        else if (fresh)
            rows.Add(Colour::kGreen, row);
        else
            rows.Add(row);
    }
}

}  // namespace

void TopState::TakeLatency(uint64_t duration_us) {
    latency.Add(duration_us);
    last_us = duration_us;
}

void TopState::Take(const std::string& time, const VolumeStatus& status, const ClientList& list) {
    ++m_samples;
    now = time;
    failure.clear();
    failingSince.clear();
    volume = status;
    perhapsMore = list.perhapsMore;
    joined = list.ids.size();
    const std::set<std::string> there(list.ids.begin(), list.ids.end());
    // Two lists that may both have been cut off do not tell who came and who went.
    const bool comparable = m_samples > 1 && m_listWhole && !list.perhapsMore;
    if (!comparable) clients.clear();
    for (const std::string& id : there) {
        const auto [at, added] = clients.try_emplace(id);
        if (!added && at->second.left.empty()) continue;
        at->second = Client{comparable ? now : "", "", comparable ? m_samples : 0};
        if (comparable) ++came;
    }
    for (auto& [id, client] : clients) {
        if (!client.left.empty() || there.count(id) != 0) continue;
        client.left = now;
        client.changed = m_samples;
        ++went;
    }
    std::erase_if(clients, [this](const auto& each) {
        return !each.second.left.empty() && !Fresh(each.second);
    });
    m_listWhole = !list.perhapsMore;
}

void TopState::TakeFailure(const std::string& time, const std::string& what) {
    now = time;
    if (failure.empty()) failingSince = time;
    failure = what;
}

bool TopState::Fresh(const Client& client) const {
    return client.changed != 0 && m_samples < client.changed + kFreshSamples;
}

std::vector<std::string> TopPicture(const TopState& state, size_t columns, size_t lines) {
    CRows rows(columns, lines);
    std::array<char, 48> every{};
    std::snprintf(every.data(), every.size(), "every %g s, q ends", state.interval_s);
    const std::string name = "  " + Printable(state.volume.serverName);
    const std::string now = "   " + state.now;
    rows.Add("zem top", Colour::kBold, state.server,
             {name + now + (state.onScreen ? std::string("   ") + every.data() : ""), name + now,
              now, ""});
    if (!state.failure.empty())
        rows.Add("No answer", Colour::kRed, " since " + state.failingSince + ": " + state.failure);
    rows.AddGap();
    AddVolume(rows, state.volume);
    AddAnswers(rows, state);
    AddClients(rows, state);
    return rows.Take();
}

std::string TopJson(const TopState& state, const std::string& stamp) {
    CJson json;
    json.Open('{').Text("time", stamp).Text("server", state.volume.serverName);
    if (state.failure.empty())
        json.Null("failure");
    else
        json.Text("failure", state.failure);
    json.Unsigned("error", static_cast<uint32_t>(state.volume.hr));
    json.Unsigned("free_bytes", state.volume.free_bytes);
    json.Unsigned("total_bytes", state.volume.total_bytes);
    json.Unsigned("joined", state.joined).Bool("perhaps_more", state.perhapsMore);
    json.Unsigned("came", state.came).Unsigned("went", state.went).Open('[', "clients");
    for (const auto& [id, client] : state.clients)
        if (client.left.empty()) json.Text({}, id);
    json.Close().Open('{', "latency_us").Unsigned("last", state.last_us);
    json.Unsigned("p50", state.latency.Percentile_us(0.5));
    json.Unsigned("p99", state.latency.Percentile_us(0.99));
    return json.Unsigned("max", state.latency.Max_us()).Close().Close().Str();
}

}  // namespace zem
