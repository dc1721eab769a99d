// The device that can lose power.
#include "simfile.h"

#include "mediaio/store/crc32c.h"

#include <algorithm>
#include <cstring>

namespace simfile {

using namespace zemstore;

// Counts the call, and refuses it where that was asked for.
HRESULT Device::Admit(Call call) {
    if (dead) return HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
    ++calls[static_cast<size_t>(call)];
    if (call != Call::kRead && callsLeft >= 0 && callsLeft-- == 0) {
        dead = true;
        return HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
    }
    for (size_t i = 0; i < faults.size(); ++i) {
        if (faults[i].call != call || faults[i].countdown-- != 0) continue;
        const HRESULT error = faults[i].error;
        faults.erase(faults.begin() + static_cast<std::ptrdiff_t>(i));
        ++faultsHit;
        return error;
    }
    return S_OK;
}

void Device::Resize(uint64_t size) {
    if (size == content.size()) return;
    content.resize(size);
    pending.push_back({true, size, {}});
}

void Device::Change(uint64_t offset, std::vector<uint8_t> bytes) {
    if (bytes.empty()) return;
    if (offset + bytes.size() > content.size()) Resize(offset + bytes.size());
    std::copy(bytes.begin(), bytes.end(), content.begin() + static_cast<std::ptrdiff_t>(offset));
    pending.push_back({false, offset, std::move(bytes)});
}

// Brings one write into `to`, each of its sectors with this probability. Bytes beyond the length
// are kept too: the length is decided by the writes that change it.
void Device::Apply(std::vector<uint8_t>& to, const Write& write, double probability) {
    if (write.isSize) {
        if (!Likely(probability)) return;
        if (write.offset < to.size())
            std::fill(to.begin() + static_cast<std::ptrdiff_t>(write.offset), to.end(), uint8_t{0});
        return;
    }
    const uint64_t end = write.offset + write.bytes.size();
    if (to.size() < end) to.resize(end);
    if (probability >= 1) memcpy(to.data() + write.offset, write.bytes.data(), write.bytes.size());
    for (uint64_t at = probability >= 1 ? end : write.offset; at < end;) {
        const uint64_t next = std::min(end, (at / kSector + 1) * kSector);
        if (Likely(probability))
            memcpy(to.data() + at, write.bytes.data() + (at - write.offset), next - at);
        at = next;
    }
}

void Device::LosePower(Cut cut) {
    std::vector<Write> left = std::move(pending);
    pending.clear();
    const size_t count = left.size();
    std::vector<double> kept(count, 1.0);
    const size_t some = count == 0 ? 0 : random() % count;
    const double probability = static_cast<double>(random() % 9 + 1) / 10;
    // Leaves of one write what is before or behind some sector of it.
    const auto tear = [this](Write& write, bool front) {
        if (write.isSize || write.bytes.size() <= kSector) return;
        const uint64_t sectors = write.bytes.size() / kSector;
        const uint64_t at = (random() % sectors + 1) * kSector;
        if (front) {
            write.bytes.resize(at);
        } else {
            write.bytes.erase(write.bytes.begin(),
                              write.bytes.begin() + static_cast<std::ptrdiff_t>(at));
            write.offset += at;
        }
    };
    for (size_t i = 0; i < count; ++i) {
        switch (cut) {
            case Cut::kNothing:
                kept[i] = 0;
                break;
            case Cut::kEverything:
                break;
            case Cut::kPrefix:
                kept[i] = i <= some ? 1 : 0;
                if (i == some) tear(left[i], true);
                break;
            case Cut::kWholeCalls:
                kept[i] = Likely(probability) ? 1 : 0;
                break;
            case Cut::kTornCalls:
                kept[i] = Likely(probability) ? 1 : 0;
                if (random() % 2 == 0) tear(left[i], random() % 2 == 0);
                break;
            case Cut::kLateFirst:
                kept[i] = i >= some ? 1 : 0;
                if (i == some) tear(left[i], false);
                break;
            case Cut::kSectors:
            case Cut::kOtherOrder:
                kept[i] = probability;
                break;
        }
    }
    std::vector<size_t> order(count);
    for (size_t i = 0; i < count; ++i)
        order[i] = i;
    if (cut == Cut::kOtherOrder) std::shuffle(order.begin(), order.end(), random);
    std::vector<uint8_t> after = durable;
    uint64_t size = durable.size();
    for (const size_t i : order) {
        if (left[i].isSize) {
            if (!Likely(kept[i])) continue;
            size = left[i].offset;
            // A file that grows may have got a part of the way.
            if (kept[i] < 1 && random() % 4 == 0 && size > durable.size())
                size = durable.size() + random() % (size - durable.size() + 1);
            Apply(after, {true, size, {}}, 1);
        } else {
            Apply(after, left[i], kept[i]);
        }
    }
    after.resize(size);
    durable = after;
    content = std::move(after);
    dead = false;
    callsLeft = -1;
    faults.clear();
    writer = nullptr;
}

void Device::LosePower(double kept) {
    std::vector<uint8_t> after = durable;
    uint64_t size = durable.size();
    for (const Write& write : pending) {
        if (!write.isSize) {
            Apply(after, write, kept);
        } else if (Likely(kept)) {
            size = write.offset;
            Apply(after, write, 1);
        }
    }
    pending.clear();
    after.resize(size);
    durable = after;
    LosePower(Cut::kNothing);
}

void Device::Evict() {
    const uint64_t size = content.size();
    content = durable;
    for (const Write& write : pending)
        Apply(content, write, 1);
    content.resize(size);  // the length is not a page
}

// A sync that worked.
void Device::Settle() {
    const uint64_t size = content.size();
    for (const Write& write : pending)
        Apply(durable, write, 1);
    durable.resize(size);
    pending.clear();
}

// A sync that did not: some sectors arrived, the others count as written from now on and are not.
void Device::FailSync() {
    ++syncsFailed;
    std::vector<Write> sizes;
    const uint64_t size = durable.size();
    for (Write& write : pending) {
        if (write.isSize)
            sizes.push_back(std::move(write));
        else
            Apply(durable, write, 0.5);
    }
    // What lies behind the length is not there before the length is.
    if (durable.size() > size && random() % 2 == 0) {
        sizes.clear();
        durable.resize(content.size());
    } else {
        durable.resize(size);
    }
    pending = std::move(sizes);
}

HRESULT CSimFile::ReadAt(void* to, size_t size, uint64_t offset, size_t& done) {
    done = 0;
    const HRESULT hr = m_device.Admit(Call::kRead);
    if (FAILED(hr)) return hr;
    if (offset > INT64_MAX) return E_INVALIDARG;
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
    HRESULT hr = m_device.Admit(Call::kWrite);
    if (FAILED(hr)) {
        // The process, the machine or the medium ends in this very call.
        part = m_device.random() % (bytes.size() + 1);
    } else if (offset + part > m_device.capacity) {
        part = offset >= m_device.capacity ? 0 : m_device.capacity - offset;
        hr = HRESULT_FROM_WIN32(ERROR_DISK_FULL);
        ++m_device.writesWithoutRoom;
    }
    bytes.resize(part);
    m_device.Change(offset, std::move(bytes));
    // More may have reached the file than a failed call knows of.
    done = FAILED(hr) && part != 0 ? part - m_device.random() % part : part;
    return hr;
}

HRESULT CSimFile::Sync() {
    if (m_device.dead) return HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
    const HRESULT hr = m_device.Admit(Call::kSync);
    if (SUCCEEDED(hr))
        m_device.Settle();
    else if (!m_device.dead)
        m_device.FailSync();
    return hr;
}

HRESULT CSimFile::Size(uint64_t& size) {
    size = m_device.content.size();
    return S_OK;
}

HRESULT CSimFile::SetSize(uint64_t size) {
    const HRESULT hr = m_device.Admit(Call::kSetSize);
    if (SUCCEEDED(hr)) m_device.Resize(size);
    return hr;
}

HRESULT CSimFile::PunchHole(uint64_t offset, uint64_t size) {
    const HRESULT hr = m_device.Admit(Call::kPunch);
    m_device.largestHole = std::max(m_device.largestHole, size);
    if (FAILED(hr) || offset >= m_device.content.size()) return hr;
    const size_t room = std::min<size_t>(size, m_device.content.size() - offset);
    m_device.Change(offset, std::vector<uint8_t>(room, 0));
    if (m_device.capacity != ~0ull) m_device.capacity += room;
    return S_OK;
}

uint64_t CSimFile::NextData(uint64_t offset) {
    const auto data = m_device.content.begin();
    for (uint64_t size = m_device.content.size(); offset < size;) {
        const uint64_t end = std::min(size, (offset / kPageSize + 1) * kPageSize);
        const auto blank = [](uint8_t byte) { return byte == 0; };
        if (!std::all_of(data + static_cast<std::ptrdiff_t>(offset),
                         data + static_cast<std::ptrdiff_t>(end), blank)) {
            return offset;
        }
        offset = end;
    }
    return m_device.content.size();
}

HRESULT CSimFile::LockForWriting() {
    if (m_device.writer != nullptr && m_device.writer != this)
        return HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION);
    m_device.writer = this;
    return S_OK;
}

void CSimFile::UnlockForWriting() {
    if (m_device.writer == this) m_device.writer = nullptr;
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

HRESULT WriteDescription(CMediaFile& file, uint32_t position, uint32_t version) {
    WriteItem item;
    item.position = position;
    item.hasDescription = true;
    memcpy(item.description, FrameBytes(position, version, kDescriptionSize).data(),
           kDescriptionSize);
    item.completed = [](WriteItem&) {};
    file.Append(item);
    return item.result;
}

HRESULT ReadFrame(CMediaFile& file, uint32_t position, std::vector<uint8_t>& bytes) {
    PinnedFrame frame{};
    HRESULT hr = file.Pin(position, true, frame);
    if (FAILED(hr)) return hr;
    bytes.assign(frame.dataSize, 0);
    if (frame.dataSize == 0) return S_OK;
    hr = file.ReadNow(frame, bytes.data());
    file.Unpin(frame.epoch);
    return hr;
}

}  // namespace simfile
