// Files that nobody of ours wrote: whatever the bytes say, opening ends, and nothing is read that
// is not there.
#include "seeded.h"
#include "simfile.h"

#include "mediaio/store/crc32c.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace simfile;
using namespace zemstore;

void Fill(Device& device, bool closed) {
    FormatVideo(device);
    Opened file(device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    for (uint32_t i = 0; i < 150; ++i)
        ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, 700)), S_OK);
    ASSERT_EQ(file->Checkpoint(), S_OK);
    for (uint32_t i = 100; i < 180; ++i)
        ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 2, 700)), S_OK);
    if (closed) {
        ASSERT_EQ(file->EndWriting(), S_OK);
    }
}

TEST(Hostile, NotAMediaFile) {
    for (size_t size : {0u, 1u, 511u, 512u, 4096u, 100000u}) {
        Device device;
        device.content.assign(size, 0x41);
        Opened file(device);
        EXPECT_EQ(file.hr, HRESULT_FROM_WIN32(ERROR_BAD_FORMAT)) << size;
    }
}

TEST(Hostile, UnknownFeatures) {
    Device device;
    FormatVideo(device);
    auto* header = reinterpret_cast<FileHeader*>(device.content.data());
    header->compatible = 1;
    header->crc = Crc32c(0, header, offsetof(FileHeader, crc));
    {
        Opened file(device);
        ASSERT_EQ(file.hr, S_OK);
        EXPECT_EQ(file->BeginWriting(), E_ACCESSDENIED);
    }
    header->incompatible = 1;
    header->crc = Crc32c(0, header, offsetof(FileHeader, crc));
    Opened file(device);
    EXPECT_EQ(file.hr, HRESULT_FROM_WIN32(ERROR_BAD_FORMAT));
}

TEST(Hostile, ABrokenRootFallsBackToTheOther) {
    Device device;
    Fill(device, false);
    Device copy = device;
    for (const uint64_t root : kRootOffset) {
        device = copy;
        device.content[root + 100] ^= 1;
        Opened file(device);
        ASSERT_EQ(file.hr, S_OK);
        EXPECT_EQ(file->FrameCount(), 180u);
        std::vector<uint8_t> bytes;
        EXPECT_EQ(ReadFrame(*file.file, 120, bytes), S_OK);
        EXPECT_EQ(bytes, FrameBytes(120, 2, 700));
    }
}

TEST(Hostile, WithoutAnyRootTheRecordsTellEverything) {
    Device device;
    Fill(device, true);
    device.content[kRootOffset[0] + 100] ^= 1;
    device.content[kRootOffset[1] + 100] ^= 1;
    Opened file(device);
    ASSERT_EQ(file.hr, S_OK);
    EXPECT_TRUE(file->OpenReport().rebuilt);
    EXPECT_EQ(file->FrameCount(), 180u);
    std::vector<uint8_t> bytes;
    for (uint32_t i = 0; i < 180; ++i) {
        ASSERT_EQ(ReadFrame(*file.file, i, bytes), S_OK);
        ASSERT_EQ(bytes, FrameBytes(i, i < 100 ? 1 : 2, 700));
    }
    ASSERT_EQ(file->BeginWriting(), S_OK);
    ASSERT_EQ(file->EndWriting(), S_OK);
    Opened again(device);
    EXPECT_FALSE(again->OpenReport().rebuilt) << "the next writer made it whole";
    EXPECT_EQ(again->FrameCount(), 180u);
}

// A root whose numbers would run over does not count, and what is written then is found again.
TEST(Hostile, RootsThatCountToTheEndOfNumbers) {
    constexpr uint64_t kTop = ~0ull;
    for (const size_t field :
         {offsetof(Root, generation), offsetof(Root, logStart), offsetof(Root, nextSequence)}) {
        SCOPED_TRACE(field);
        Device device;
        Fill(device, false);
        auto* roots = device.content.data();
        auto* root = reinterpret_cast<Root*>(roots + kRootOffset[1]);
        ASSERT_EQ(root->generation, 1u);
        const uint64_t value = field == offsetof(Root, logStart) ? kTop - kPageSize + 1 : kTop;
        memcpy(roots + kRootOffset[1] + field, &value, sizeof value);
        root->crc = Crc32c(0, root, offsetof(Root, crc));
        {
            Opened file(device);
            ASSERT_EQ(file.hr, S_OK);
            EXPECT_EQ(file->OpenReport().roots[1].state, LoadReport::RootState::kInvalid);
            EXPECT_EQ(file->FrameCount(), 180u) << "from the older root and the records";
            ASSERT_EQ(file->BeginWriting(), S_OK);
            ASSERT_EQ(WriteFrame(*file.file, 200, FrameBytes(200, 1, 700)), S_OK);
            ASSERT_EQ(file->EndWriting(), S_OK);
        }
        Opened again(device);
        ASSERT_EQ(again.hr, S_OK);
        std::vector<uint8_t> bytes;
        EXPECT_EQ(ReadFrame(*again.file, 200, bytes), S_OK);
        EXPECT_EQ(bytes, FrameBytes(200, 1, 700));
    }
}

// A record that begins before the file's first byte, by numbers that run over.
TEST(Hostile, ARecordThatReachesAroundTheEndOfNumbers) {
    Device device;
    Fill(device, false);
    const uint64_t page = device.content.size();
    FileHeader header;
    memcpy(&header, device.content.data(), sizeof header);
    LogRecord record{};
    record.magic = kRecordMagic;
    record.kind = static_cast<uint16_t>(RecordKind::kFrame);
    record.size = sizeof record;
    record.fileId = header.fileId;
    record.sequence = 1000;
    record.slotOffset = 0ull - kPageSize;
    record.dataSize = static_cast<uint32_t>(page + 2 * kPageSize - sizeof record);
    record.crc = Crc32c(0, &record, offsetof(LogRecord, crc));
    device.content.resize(page + kPageSize);
    memcpy(device.content.data() + page + kPageSize - sizeof record, &record, sizeof record);
    Opened file(device);
    ASSERT_EQ(file.hr, S_OK);
    EXPECT_EQ(file->FrameCount(), 180u);
    EXPECT_EQ(file->OpenReport().tornRecords, 0u) << "it is no record at all";
}

TEST(Hostile, AnyBytesAnywhere) {
    Device original;
    Fill(original, true);
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    CRandom random(seed);
    for (int round = 0; round < 500; ++round) {
        Device device = original;
        const uint32_t flips = random() % 6 + 1;
        for (uint32_t i = 0; i < flips; ++i) {
            // Most of them where structure is: headers, roots, ends of pages, nodes.
            uint64_t at = random() % device.content.size();
            if (random() % 2 == 0) at = random() % (3 * kPageSize);
            if (random() % 3 == 0)
                at = at / kPageSize * kPageSize + kPageSize - 128 + random() % 128;
            if (at < device.content.size()) device.content[at] = static_cast<uint8_t>(random());
        }
        if (random() % 4 == 0) device.content.resize(random() % device.content.size());
        Opened file(device);
        if (FAILED(file.hr)) continue;
        std::vector<uint8_t> bytes;
        for (uint32_t i = 0; i < 200; ++i) {
            const HRESULT hr = ReadFrame(*file.file, i, bytes);
            if (FAILED(hr)) continue;
            ASSERT_EQ(bytes.size(), 700u);
            ASSERT_TRUE(bytes == FrameBytes(i, 1, 700) || bytes == FrameBytes(i, 2, 700));
        }
    }
}

// Well-formed lies: checksums are right, contents are not.
TEST(Hostile, ForgedNodes) {
    Device original;
    Fill(original, true);
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    CRandom random(seed);
    for (int round = 0; round < 400; ++round) {
        Device device = original;
        const uint64_t generation0 =
            reinterpret_cast<Root*>(device.content.data() + kRootOffset[0])->generation;
        const uint64_t generation1 =
            reinterpret_cast<Root*>(device.content.data() + kRootOffset[1])->generation;
        auto* root = reinterpret_cast<Root*>(device.content.data() +
                                             kRootOffset[generation1 > generation0 ? 1 : 0]);
        if (random() % 2 == 0) {
            auto* node = reinterpret_cast<InnerNode*>(device.content.data() + root->indexOffset);
            for (ChildRef& child : node->children)
                if (random() % 8 == 0) child.offset = root->indexOffset;
            node->children[random() % kInnerChildren] = {random() * 512ull, random(), 0};
            node->header.crc = 0;
            node->header.crc = Crc32c(0, node, sizeof *node);
            root->indexCrc = node->header.crc;
        } else {
            reinterpret_cast<uint8_t*>(root)[24 + random() % 72] = static_cast<uint8_t>(random());
        }
        root->crc = Crc32c(0, root, offsetof(Root, crc));
        Opened file(device);
        if (FAILED(file.hr)) continue;
        std::vector<uint8_t> bytes;
        for (uint32_t i = 0; i < 200; ++i) {
            if (SUCCEEDED(ReadFrame(*file.file, i, bytes))) {
                ASSERT_EQ(bytes.size(), 700u);
            }
        }
    }
}

}  // namespace
