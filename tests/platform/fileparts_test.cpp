// Which parts of files are in use, against a plain list of them; and what asking costs.
#include "platform/posix/fileparts.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <vector>

#include "platform/posix/views.h"
#include "tests/tempfolder.h"

namespace posix {
namespace {

class FileParts : public testing::Test {
protected:
    FileParts() {
        for (size_t i = 0; i < m_files.size(); ++i) {
            const std::string path = m_folder.File(std::to_string(i));
            m_files[i] = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        }
    }
    ~FileParts() override {
        for (const int file : m_files)
            close(file);
    }
    std::unique_ptr<CFilePartUse> Use(int file, uint64_t begin, uint64_t length) const {
        auto use = std::make_unique<CFilePartUse>();
        EXPECT_TRUE(use->Begin(file, begin, length));
        return use;
    }

    CTempFolder m_folder;
    std::array<int, 3> m_files{};
};

TEST_F(FileParts, OnlyWhatOverlapsIsInUse) {
    const auto use = Use(m_files[0], 1000, 100);
    for (const auto& [begin, length, in_use] : {std::tuple{0, 1000, false},
                                                {0, 1001, true},
                                                {1050, 1, true},
                                                {0, 5000, true},
                                                {1099, 1, true},
                                                {1100, 1000, false}}) {
        EXPECT_EQ(IsFilePartInUse(m_files[0], begin, length), in_use) << begin << '+' << length;
        EXPECT_FALSE(IsFilePartInUse(m_files[1], begin, length)) << "another file's";
    }
}

TEST_F(FileParts, AnswersAreThoseOfAPlainList) {
    struct Part {
        int file;
        uint64_t begin, end;
        std::unique_ptr<CFilePartUse> use;
    };
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    std::vector<Part> parts;
    size_t in_use = 0;
    constexpr int kSteps = 20000;
    for (int i = 0; i < kSteps; ++i) {
        const int file = m_files[random() % m_files.size()];
        const uint64_t begin = random() % 2000;
        const uint64_t length = 1 + random() % (random() % 8 == 0 ? 400 : 10);
        if (random() % 100 < parts.size())
            parts.erase(parts.begin() + static_cast<std::ptrdiff_t>(random() % parts.size()));
        else
            parts.push_back({file, begin, begin + length, Use(file, begin, length)});
        const uint64_t from = random() % 2000;
        const uint64_t to = from + 1 + random() % 50;
        const bool expected = std::any_of(parts.begin(), parts.end(), [&](const Part& part) {
            return part.file == file && part.begin < to && from < part.end;
        });
        ASSERT_EQ(IsFilePartInUse(file, from, to - from), expected) << from << " to " << to;
        in_use += expected ? 1 : 0;
    }
    EXPECT_GT(in_use, size_t{kSteps / 10});
    EXPECT_LT(in_use, size_t{kSteps - kSteps / 10});
}

}  // namespace
}  // namespace posix
