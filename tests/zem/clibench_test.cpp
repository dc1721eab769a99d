// zem bench from outside: that no lost frame escapes it, and that it measures no waits of its own.
#include <algorithm>

#include "apps/zem/client/wire.h"
#include "tests/zem/zemcli.h"

namespace {

// Most of them are written over before the end. A slow machine gets more time to come to that.
TEST_F(ZemCli, BenchNoticesEveryLostFrame) {
    m_media.freeSpace_bytes = uint64_t{1} << 30;
    for (const char* const order : {"--json", "--random"}) {
        for (const unsigned drop : {2u, 3u, 10u}) {
            m_media.dropEvery = drop;
            uint64_t written = 0;
            for (const char* const seconds : {"0.1", "3", "60"}) {
                if (written > 12) break;
                m_media.WritesAndAnew();
                const Outcome outcome =
                    Run({"bench", "--json", order, "--mode", "write", "--connections", "1",
                         "--frames", "5", "--frame-size", "16", "--seconds", seconds});
                written = m_media.WritesAndAnew();
                EXPECT_EQ(outcome.code, written < drop ? 0 : 1);
                EXPECT_TRUE(Has(outcome.out, "\"frames\":" + std::to_string(written) + ","))
                    << outcome.out;
                EXPECT_TRUE(Has(outcome.out, "\"lost\":" + std::to_string(written / drop) + "}"))
                    << outcome.out << drop;
            }
            EXPECT_GT(written, 12u);
        }
    }
}

// What the server shows already needs no wait for the device, which would be measured too.
TEST_F(ZemCli, BenchFlushesNothingBetweenTheRounds) {
    m_media.freeSpace_bytes = uint64_t{1} << 30;
    const auto asked = [&](zem::Command command) {
        const std::string word = std::to_string(static_cast<uint32_t>(command));
        return std::count(m_media.log.begin(), m_media.log.end(), word);
    };
    ptrdiff_t written = 0;
    for (const char* const seconds : {"0.1", "3", "60"}) {
        if (written > 6) break;
        m_media.log.clear();
        EXPECT_EQ(Run({"bench", "--mode", "write", "--connections", "1", "--frames", "2",
                       "--frame-size", "16", "--seconds", seconds})
                      .code,
                  0);
        written = asked(zem::Command::kWriteFrame);
        EXPECT_EQ(asked(zem::Command::kFlushBuffers), 1) << "at the end";
    }
    EXPECT_GT(written, 6) << "several rounds";
}

}  // namespace
