// See clipend.h.
#include "apps/zem/clipend.h"

extern "C" {
#include <libavformat/avio.h>
}

#include <algorithm>
#include <bit>
#include <string_view>

namespace zem {
namespace {

constexpr uint32_t kSegment = 0x18538067;
constexpr uint32_t kCluster = 0x1F43B675;
// What else a segment and a cluster consist of. What is none of these is damage: no size is
// believed then.
constexpr std::array<uint32_t, 17> kOthers = {
    0x1A45DFA3, 0x114D9B74, 0x1549A966, 0x1654AE6B, 0x1043A770, 0x1C53BB6B,
    0x1941A469, 0x1254C367, 0xEC,       0xBF,       0xE7,       0xA7,
    0xAB,       0xA3,       0xA0,       0xAF,       0x5854};

// Transport packets, alone, with a clock in front or with check bytes behind.
struct PacketForm {
    size_t size_bytes;
    size_t sync;  // where in it the byte 0x47 stands
};
constexpr std::array<PacketForm, 3> kPacketForms = {{{188, 0}, {192, 4}, {204, 0}}};
constexpr size_t kPackets = 8;  // in a row must be ones, at either end
constexpr size_t kEnd_bytes = (kPackets + 1) * 204;

}  // namespace

void CMatroskaWalk::Take(uint8_t byte) {
    m_head[m_count++] = byte;
    Step();
}

void CMatroskaWalk::Step() {
    // The zero bits in front tell how many bytes a number has; of a size they are no part of it.
    const auto name_bytes = static_cast<size_t>(std::countl_zero(m_head[0])) + 1;
    if (name_bytes > 4) {
        m_done = m_lost = true;
        return;
    }
    if (m_count <= name_bytes) return;
    const auto size_bytes = static_cast<size_t>(std::countl_zero(m_head[name_bytes])) + 1;
    if (size_bytes > 8) {
        m_done = m_lost = true;
        return;
    }
    if (m_count < name_bytes + size_bytes) return;
    uint32_t name = 0;
    for (size_t i = 0; i < name_bytes; ++i)
        name = name << 8 | m_head[i];
    uint64_t size = m_head[name_bytes] & (0xFFu >> size_bytes);
    for (size_t i = 1; i < size_bytes; ++i)
        size = size << 8 | m_head[name_bytes + i];
    const bool unknown = size == (uint64_t{1} << (7 * size_bytes)) - 1;
    const bool opens = unknown && (name == kSegment || name == kCluster);
    const bool known = name == kSegment || name == kCluster ||
                       std::find(kOthers.begin(), kOthers.end(), name) != kOthers.end();
    const bool first = m_at == 0;
    if (!known || (unknown && !opens) || first != (name == kOthers.front())) {
        m_done = m_lost = true;
        return;
    }
    m_before = m_at;
    m_at += m_count + (opens ? 0 : size);
    m_count = 0;
    if (name != kSegment || unknown) return;
    m_done = true;  // it says where all of it ends
}

std::string CMatroskaWalk::WhyCut(uint64_t size_bytes) const {
    if (m_lost) return {};
    if (m_at > size_bytes) {
        return "what begins at byte " + std::to_string(m_before) + " ends at byte " +
               std::to_string(m_at) + ", but it has " + std::to_string(size_bytes);
    }
    if (m_count == 0) return {};
    return "it ends within what begins at byte " + std::to_string(m_at);
}

CClipEnd::CClipEnd() {
    m_first.reserve(kEnd_bytes);
    m_last.reserve(2 * kEnd_bytes);
}

void CClipEnd::Take(std::span<const uint8_t> data) {
    const uint64_t begin = m_size_bytes;
    m_size_bytes += data.size();
    while (m_walk.Wants() < m_size_bytes)
        m_walk.Take(data[m_walk.Wants() - begin]);
    const size_t first = std::min(data.size(), kEnd_bytes - m_first.size());
    m_first.insert(m_first.end(), data.begin(), data.begin() + static_cast<std::ptrdiff_t>(first));
    const auto last = data.last(std::min(data.size(), kEnd_bytes));
    m_last.insert(m_last.end(), last.begin(), last.end());
    if (m_last.size() > kEnd_bytes)
        m_last.erase(m_last.begin(), m_last.end() - static_cast<std::ptrdiff_t>(kEnd_bytes));
}

void CClipEnd::Look(AVIOContext& file) {
    const int64_t place = avio_tell(&file);
    const int64_t size = avio_size(&file);
    if (place < 0 || size <= 0) return;
    m_size_bytes = static_cast<uint64_t>(size);
    const auto seek = [&](uint64_t to) {
        return avio_seek(&file, static_cast<int64_t>(to), SEEK_SET) >= 0;
    };
    while (m_walk.Wants() < m_size_bytes && seek(m_walk.Wants()) && avio_feof(&file) == 0)
        m_walk.Take(static_cast<uint8_t>(avio_r8(&file)));
    const auto read = [&](std::vector<uint8_t>& into, uint64_t from) {
        into.resize(std::min<uint64_t>(kEnd_bytes, m_size_bytes));
        const int got =
            seek(from) ? avio_read(&file, into.data(), static_cast<int>(into.size())) : 0;
        into.resize(got < 0 ? 0 : static_cast<size_t>(got));
    };
    read(m_first, 0);
    read(m_last, m_size_bytes - m_first.size());
    seek(static_cast<uint64_t>(place));
}

std::string CClipEnd::WhyCut(const char* format) const {
    const std::string_view name = format;
    if (name.starts_with("matroska")) return m_walk.WhyCut(m_size_bytes);
    return name == "mpegts" ? WhyTransportCut() : std::string();
}

std::string CClipEnd::WhyTransportCut() const {
    if (m_first.size() < kEnd_bytes || m_last.size() < kEnd_bytes) return {};
    for (const PacketForm& form : kPacketForms) {
        const auto left = static_cast<size_t>(m_size_bytes % form.size_bytes);
        bool is = left != 0;
        for (size_t i = 0; is && i < kPackets; ++i) {
            is = m_first[i * form.size_bytes + form.sync] == 0x47 &&
                 m_last[kEnd_bytes - left - (i + 1) * form.size_bytes + form.sync] == 0x47;
        }
        if (is && left > form.sync) is = m_last[kEnd_bytes - left + form.sync] == 0x47;
        if (is) {
            return "its last packet has " + std::to_string(left) + " bytes of " +
                   std::to_string(form.size_bytes);
        }
    }
    return {};
}

}  // namespace zem
