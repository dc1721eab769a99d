// The name that a thread gives itself.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <thread>

#include "platform/platform.h"

namespace {

std::string NameOf(const WCHAR* name) {
    std::string kept;
    std::thread thread([&] {
        NameThisThread(name);
        std::ifstream comm("/proc/self/task/" + std::to_string(GetCurrentThreadId()) + "/comm");
        std::getline(comm, kept);
    });
    thread.join();
    return kept;
}

TEST(ThreadName, IsWhatOthersSee) {
    EXPECT_EQ(NameOf(TEXT("zem-worker")), "zem-worker");
    EXPECT_EQ(NameOf(TEXT("")), "");
}
TEST(ThreadName, HasFifteenCharactersAtMost) {
    EXPECT_EQ(NameOf(TEXT("123456789012345")), "123456789012345");
    EXPECT_EQ(NameOf(TEXT("1234567890123456")), "123456789012345");
    EXPECT_EQ(NameOf(TEXT("caf\u00e9")), "caf?");
}

}  // namespace
