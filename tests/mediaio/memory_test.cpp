// Memory that runs out in the middle of a call: the call says so, nothing is kept, the next one
// works.
#include "channelfixture.h"

#include "tests/fakes/allocfault.h"

namespace {

using namespace mediatest;

class Memory : public CVolumeTest {};

// The first allocation of an opening fails, then the second alone, and so on until none is left.
TEST_F(Memory, AnOpeningThatFindsNoneMayBeTriedAgain) {
    const ULONGLONG made = Create("clip");
    for (uint32_t i = 0; i < 200; ++i)
        ASSERT_EQ(Write(made, i, Bytes(i, 500)), S_OK);
    CloseLast(made);
    const WString name = Wide("clip");
    uint64_t failures = 0;
    for (bool failed = true; failed; ++failures) {
        SCOPED_TRACE(failures);
        const std::unique_ptr<CZemChannelIo> channel = NewChannel();
        ULONGLONG token = 0;
        FailAllocationAfter(failures);
        const HRESULT hr = channel->OpenFile(name.c_str(), TEXT(""), kMediaFileAny,
                                             kFileRead | kFileWrite, false, token);
        failed = AllocationFailed();
        ASSERT_TRUE(hr == S_OK || (failed && hr == E_OUTOFMEMORY)) << std::hex << hr;
        if (SUCCEEDED(hr)) {
            ASSERT_EQ(channel->CloseFile(token), S_OK);
        }
        // Whoever could not open it holds nothing of it, least of all the right to write.
        zemstore::AwaitNoMediaFiles();
    }
    EXPECT_GT(failures, 5u);
}

TEST_F(Memory, AWriteThatFindsNoneSaysSoInEveryEntry) {
    const ULONGLONG token = Create("clip");
    Io io;
    io.entries[0].token = token;
    io.entries[0].bufferCount = 1;
    io.entries[0].buffers[0].length_bytes = 5000;
    ASSERT_EQ(m_channel->GetWriteFrameBuffers(io.desc), S_OK);
    FailNextAllocation(1);
    EXPECT_EQ(m_channel->WriteFrame(io.desc), E_OUTOFMEMORY);
    EXPECT_TRUE(AllocationFailed());
    EXPECT_EQ(io.desc.status, E_OUTOFMEMORY);
    EXPECT_EQ(io.entries[0].status, E_OUTOFMEMORY);
    EXPECT_EQ(io.entries[0].buffers[0].data, nullptr);
    EXPECT_EQ(m_allocator.BytesInUse(), 0u);
    EXPECT_EQ(Write(token, 0, Bytes(0, 5000)), S_OK);
}

}  // namespace
