// The device that can lose power.
#include "simfile.h"

#include "mediaio/store/crc32c.h"

#include <algorithm>
#include <cstring>

namespace simfile {

using namespace zemstore;

bool Device::CountCall() {
    if (dead) return false;
    if (callsLeft < 0) return true;
    if (callsLeft-- > 0) return true;
    dead = true;
    return false;
}

void Device::LosePower(double kept) {
    std::bernoulli_distribution keep(kept);
    for (const auto& [sector, bytes] : before) {
        if (keep(random)) continue;
        const uint64_t offset = sector * kSector;
        if (offset >= content.size()) continue;
        const size_t room = std::min<size_t>(bytes.size(), content.size() - offset);
        std::copy_n(bytes.begin(), room, content.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    // The length is one more thing that may not have reached the device.
    if (content.size() != durableSize && !keep(random)) {
        const uint64_t low = std::min<uint64_t>(durableSize, content.size());
        const uint64_t high = std::max<uint64_t>(durableSize, content.size());
        content.resize(low + random() % (high - low + 1));
    }
    before.clear();
    durableSize = content.size();
    dead = false;
    callsLeft = -1;
}

void CSimFile::Remember(uint64_t offset, uint64_t size) {
    Device& device = m_device;
    for (uint64_t sector = offset / kSector; sector * kSector < offset + size; ++sector) {
        if (device.before.contains(sector)) continue;
        std::vector<uint8_t> old(kSector, 0);
        const uint64_t at = sector * kSector;
        if (at < device.content.size()) {
            const size_t room = std::min<size_t>(kSector, device.content.size() - at);
            memcpy(old.data(), device.content.data() + at, room);
        }
        device.before.emplace(sector, std::move(old));
    }
}

HRESULT CSimFile::ReadAt(void* to, size_t size, uint64_t offset, size_t& done) {
    done = 0;
    if (offset >= m_device.content.size()) return S_OK;
    done = std::min<size_t>(size, m_device.content.size() - offset);
    memcpy(to, m_device.content.data() + offset, done);
    m_device.bytesRead += done;
    return S_OK;
}

HRESULT CSimFile::WriteAt(const IoSpan* spans, size_t count, uint64_t offset, size_t& done) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < count; ++i) {
        const auto* from = static_cast<const uint8_t*>(spans[i].data);
        bytes.insert(bytes.end(), from, from + spans[i].size_bytes);
    }
    done = 0;
    if (m_device.dead) return HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
    size_t part = bytes.size();
    HRESULT hr = S_OK;
    if (!m_device.CountCall()) {
        // The process or the machine dies in this very call.
        part = m_device.random() % (bytes.size() + 1);
        hr = HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
    } else if (offset + part > m_device.capacity) {
        part = offset >= m_device.capacity ? 0 : m_device.capacity - offset;
        hr = HRESULT_FROM_WIN32(ERROR_DISK_FULL);
    }
    Remember(offset, part);
    if (part != 0 && offset + part > m_device.content.size())
        m_device.content.resize(offset + part);
    memcpy(m_device.content.data() + offset, bytes.data(), part);
    done = part;
    return hr;
}

HRESULT CSimFile::Sync() {
    if (!m_device.CountCall()) return HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
    m_device.before.clear();
    m_device.durableSize = m_device.content.size();
    return S_OK;
}

HRESULT CSimFile::Size(uint64_t& size) {
    size = m_device.content.size();
    return S_OK;
}

HRESULT CSimFile::SetSize(uint64_t size) {
    if (m_device.dead) return HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
    if (size < m_device.content.size()) Remember(size, m_device.content.size() - size);
    m_device.content.resize(size);
    return S_OK;
}

HRESULT CSimFile::PunchHole(uint64_t offset, uint64_t size) {
    if (m_device.dead) return HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
    Remember(offset, size);
    if (offset >= m_device.content.size()) return S_OK;
    const size_t room = std::min<size_t>(size, m_device.content.size() - offset);
    memset(m_device.content.data() + offset, 0, room);
    return S_OK;
}

void FormatVideo(Device& device) {
    ZemEsDesc desc{};
    desc.sizeVersion = kEsDescVersion1;
    desc.mediaType = kMediaFileVideo;
    desc.rateNumerator = 25;
    desc.rateDenominator = 1;
    CSimFile file(device);
    CMediaFile::Format(file, desc);
}

std::vector<uint8_t> FrameBytes(uint32_t position, uint32_t version, size_t size) {
    std::vector<uint8_t> bytes(size);
    const uint64_t word = (uint64_t{position} << 32) | version;
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>((word >> (8 * (i % 8))) ^ (i / 8));
    return bytes;
}

HRESULT WriteFrame(CMediaFile& file, uint32_t position, const std::vector<uint8_t>& bytes) {
    WriteItem item;
    item.position = position;
    item.data = bytes.data();
    item.dataSize = static_cast<uint32_t>(bytes.size());
    item.dataCrc = Crc32c(0, bytes.data(), bytes.size());
    item.completed = [](WriteItem&) {};
    file.Append(item);  // done when it returns: the file has no threads
    return item.result;
}

HRESULT ReadFrame(CMediaFile& file, uint32_t position, std::vector<uint8_t>& bytes) {
    PinnedFrame frame{};
    HRESULT hr = file.Pin(position, true, frame);
    if (FAILED(hr)) return hr;
    bytes.assign(frame.dataSize, 0);
    if (frame.dataSize == 0) return S_OK;
    size_t done = 0;
    hr = file.File().ReadAt(bytes.data(), bytes.size(), frame.slotOffset, done);
    const bool good =
        done == bytes.size() && Crc32c(0, bytes.data(), bytes.size()) == frame.dataCrc;
    file.ReportVerified(frame, good);
    file.Unpin(frame.epoch);
    if (SUCCEEDED(hr) && !good) hr = HRESULT_FROM_WIN32(ERROR_CRC);
    return hr;
}

}  // namespace simfile
