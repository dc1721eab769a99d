// The store's file format: a script changes the bytes of a media file, with its checksums made
// right again or not, opens it, reads and writes and erases, loses power, and goes on. What is
// checked: opening ends, nothing is read that is not there, a frame that was written reads back as
// long as the file is open, and as long as the file's bytes were only ever the store's own, after
// any closing, too.
//
// The input: which file to begin with, then steps, each a byte and what it needs.
#include <map>

#include "fuzz/fuzz.h"
#include "fuzz/storebytes.h"
#include "mediaio/store/crc32c.h"
#include "tests/mediaio/simfile.h"

using namespace simfile;
using namespace zemstore;
using fuzz::Require;

namespace {

constexpr uint64_t kMostFileBytes = 4 << 20;
constexpr int kMostSteps = 200;

enum Step : uint8_t {
    kSetBytes,    // page, offset, length, bytes
    kSetField,    // page, offset, 64 bits
    kCopyPage,    // from, to
    kTruncate,    // bytes
    kForge,       // 0: structures, else data too
    kReopen,      //
    kPowerLoss,   // kind, seed
    kReadAll,     //
    kWrite,       // position, size
    kErase,       // first, count
    kSettings,    // 16 bytes
    kDescribe,    // position, 24 bytes
    kFlush,       //
    kCheckpoint,  //
    kEndWriting,  //
    kFailAfter,   // calls
    kFault,       // call, which of them
    kStepCount
};

class CScript {
public:
    explicit CScript(fuzz::CReader& input) : m_input(input) {}
    ~CScript() { Close(); }

    void Run();

private:
    struct Written {
        uint32_t version;
        size_t size;
    };
    bool Open();
    void Close();
    bool Writer();
    void Change(uint8_t step);
    void Act(uint8_t step);
    void Write(uint32_t position, size_t size);
    void Erase(uint32_t first, uint64_t end);
    void ReadAll();
    void Read(uint32_t position);
    void Forget();
    // From here on nothing is certain: what fails may be seen by anyone, at any time.
    void Distrust() {
        m_own = false;
        m_faulty = true;
        m_written.clear();
    }

    fuzz::CReader& m_input;
    Device m_device;
    std::unique_ptr<Opened> m_file;
    bool m_writer = false;
    bool m_own = true;      // nobody else has changed a byte
    bool m_faulty = false;  // calls of the device fail
    uint32_t m_version = 10;
    std::map<uint32_t, Written> m_written;
};

bool CScript::Open() {
    if (m_file) return SUCCEEDED(m_file->hr);
    m_file = std::make_unique<Opened>(m_device);
    Require(!m_own || SUCCEEDED(m_file->hr), "the store's own file opens");
    if (FAILED(m_file->hr)) return false;
    const ZemEsDesc desc = m_file->file->EsDescNow();
    Require(desc.mediaType >= kMediaFileVideo && desc.mediaType <= kMediaFileData,
            "a stream is of a known kind");
    return true;
}

void CScript::Close() {
    if (m_writer) m_file->file->EndWriting();
    m_writer = false;
    m_file.reset();
}

bool CScript::Writer() {
    if (!Open()) return false;
    if (!m_writer) m_writer = SUCCEEDED(m_file->file->BeginWriting());
    return m_writer;
}

// What was written cannot be told any more.
void CScript::Forget() {
    m_own = false;
    m_written.clear();
}

void CScript::Change(uint8_t step) {
    Close();
    std::vector<uint8_t>& bytes = m_device.content;
    const auto page = [this] { return uint64_t{m_input.Take<uint16_t>()} * kPageSize; };
    switch (step) {
        case kSetBytes:
        case kSetField: {
            const uint64_t at = page() + m_input.Take<uint16_t>() % kPageSize;
            const size_t length = step == kSetField ? 8 : m_input.Take<uint8_t>();
            const std::string_view what = m_input.TakeBytes(length);
            if (at + what.size() > bytes.size() || what.empty()) return;
            std::memcpy(bytes.data() + at, what.data(), what.size());
            break;
        }
        case kCopyPage: {
            const uint64_t from = page(), to = page();
            if (from + kPageSize > bytes.size() || to + kPageSize > kMostFileBytes) return;
            if (to + kPageSize > bytes.size()) bytes.resize(to + kPageSize);
            std::memmove(bytes.data() + to, bytes.data() + from, kPageSize);
            break;
        }
        case kTruncate:
            bytes.resize(std::min<uint64_t>(m_input.Take<uint32_t>(), bytes.size()));
            break;
        default:
            fuzz::Forge(bytes, m_input.Take<uint8_t>() != 0);
    }
    m_device.pending.clear();
    m_device.durable = bytes;
    Forget();
}

void CScript::Write(uint32_t position, size_t size) {
    if (!Writer()) return;
    const uint32_t version = ++m_version;
    const HRESULT hr = WriteFrame(*m_file->file, position, FrameBytes(position, version, size));
    if (SUCCEEDED(hr) && !m_faulty)
        m_written[position] = {version, size};
    else
        m_written.erase(position);
}

void CScript::Erase(uint32_t first, uint64_t end) {
    if (!Writer()) return;
    if (FAILED(m_file->file->Erase(first, end))) return Forget();
    for (auto it = m_written.lower_bound(first); it != m_written.end() && it->first < end;)
        it = m_written.erase(it);
}

void CScript::Read(uint32_t position) {
    CMediaFile& file = *m_file->file;
    PinnedFrame frame{};
    HRESULT hr = file.Pin(position, false, frame);
    const auto known = m_written.find(position);
    Require(known == m_written.end() || SUCCEEDED(hr), "a frame that was written is there");
    uint8_t description[kDescriptionSize];
    file.Description(position, description);
    ZemFrameDesc desc;
    file.FrameDesc(position, desc);
    if (FAILED(hr)) return;
    Require(frame.dataSize == 0 ||
                frame.slotOffset + SlotSize(frame.dataSize) <= m_device.content.size(),
            "a frame lies in the file");
    std::vector<uint8_t> bytes;
    hr = ReadFrame(file, position, bytes);
    if (known == m_written.end()) return;
    Require(
        SUCCEEDED(hr) && bytes == FrameBytes(position, known->second.version, known->second.size),
        "and reads as it was written");
}

void CScript::ReadAll() {
    if (!Open()) return;
    const uint32_t count = m_file->file->FrameCount();
    for (uint32_t i = 0; i < std::min(count, 300u); ++i)
        Read(i);
    for (const uint32_t i : {count / 2, count - 1, count, 0xFFFFFFFEu, 0xFFFFFFFFu})
        Read(i);
    const std::map<uint32_t, Written> written = m_written;
    for (const auto& [position, how] : written)
        Read(position);
}

void CScript::Act(uint8_t step) {
    switch (step) {
        case kReopen:
            Close();
            if (!m_own) Forget();
            Open();
            break;
        case kPowerLoss:
            // Whatever was not flushed may be lost: tests/mediaio/crash_test.cpp says what may not.
            if (m_file) {
                m_device.dead = true;
                Close();
            }
            m_device.random.seed(m_input.Take<uint8_t>());
            m_device.LosePower(static_cast<Cut>(m_input.Take<uint8_t>() % kCuts));
            m_written.clear();
            Open();
            break;
        case kReadAll:
            ReadAll();
            break;
        case kWrite: {
            const uint32_t position = m_input.Take<uint32_t>();
            Write(std::min(position, kLastPosition), m_input.Take<uint16_t>());
            break;
        }
        case kErase: {
            const uint32_t first = m_input.Take<uint32_t>();
            Erase(first, uint64_t{first} + m_input.Take<uint32_t>());
            break;
        }
        case kSettings: {
            if (!Open()) return;
            m_file->file->AppendSettings(m_input.Take<Settings>());
            break;
        }
        case kDescribe: {
            if (!Writer()) return;
            WriteItem item;
            item.position = std::min(m_input.Take<uint32_t>(), kLastPosition);
            item.hasDescription = true;
            const std::string_view text = m_input.TakeBytes(kDescriptionSize);
            if (!text.empty()) std::memcpy(item.description, text.data(), text.size());
            item.completed = [](WriteItem&) {};
            m_file->file->Append(item);
            m_written.erase(item.position);
            break;
        }
        case kFlush:
            if (Writer()) m_file->file->Flush();
            break;
        case kCheckpoint:
            if (Writer()) m_file->file->Checkpoint();
            break;
        case kEndWriting:
            if (m_writer) m_file->file->EndWriting();
            m_writer = false;
            break;
        case kFailAfter:
            m_device.callsLeft = m_input.Take<uint8_t>();
            Distrust();
            break;
        default: {
            const auto call = static_cast<Call>(m_input.Take<uint8_t>() % kCalls);
            m_device.faults.push_back(
                {call, m_input.Take<uint8_t>(), HRESULT_FROM_WIN32(ERROR_IO_DEVICE)});
            Distrust();
        }
    }
}

void CScript::Run() {
    m_device = fuzz::FirstFile(m_input.Take<uint8_t>());
    m_device.capacity = kMostFileBytes;
    for (int i = 0; i < kMostSteps && !m_input.AtEnd(); ++i) {
        const uint8_t step = m_input.Take<uint8_t>() % kStepCount;
        if (step <= kForge)
            Change(step);
        else
            Act(step);
    }
    ReadAll();
    m_device.dead = false;
    m_device.callsLeft = -1;
    m_device.faults.clear();
    Close();
    if (!m_own) m_written.clear();
    ReadAll();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::CReader input(data, size);
    CScript(input).Run();
    return 0;
}
