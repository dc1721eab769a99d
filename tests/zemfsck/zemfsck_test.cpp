// The checker: files in order, files that a crash left, and each kind of damage; then the program
// with its two forms of report and its exit codes.
#include "apps/zemfsck/print.h"
#include "mediaio/store/crc32c.h"
#include "tests/mediaio/simfile.h"
#include "tests/tempfolder.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

using namespace simfile;
using namespace zemstore;
using zemfsck::Report;

constexpr uint32_t kFrames = 150;
constexpr size_t kFrame = 700;

void Fill(Device& device, bool closed) {
    FormatVideo(device);
    Opened file(device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    for (uint32_t i = 0; i < kFrames; ++i)
        ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, kFrame)), S_OK);
    ASSERT_EQ(file->Checkpoint(), S_OK);
    ASSERT_EQ(file->Erase(10, 13), S_OK);
    ASSERT_EQ(WriteFrame(*file.file, kFrames + 9, FrameBytes(kFrames + 9, 1, kFrame)), S_OK);
    ASSERT_EQ(closed ? file->EndWriting() : file->Flush(), S_OK);
}

class Fsck : public testing::Test {
protected:
    void SetUp() override { Fill(m_device, true); }
    HRESULT Check() {
        m_report = {};
        return zemfsck::Check(std::make_unique<CSimFile>(m_device), m_report);
    }
    // What there is to say about one part of the file, each finding in a line.
    std::string Damages() const {
        std::string text;
        for (const zemfsck::Finding& finding : m_report.findings) {
            if (finding.damage) {
                text += std::string(finding.part) + " " + std::to_string(finding.position) + ": " +
                        finding.text + "\n";
            }
        }
        return text;
    }
    std::string Remarks() const {
        std::string text;
        for (const zemfsck::Finding& finding : m_report.findings)
            if (!finding.damage) text += std::string(finding.part) + ": " + finding.text + "\n";
        return text;
    }
    template <typename T>
    T* At(uint64_t offset) {
        return reinterpret_cast<T*>(m_device.content.data() + offset);
    }
    Root* NewestRoot() {
        Root* roots[2] = {At<Root>(kRootOffset[0]), At<Root>(kRootOffset[1])};
        return roots[roots[1]->generation > roots[0]->generation ? 1 : 0];
    }
    // Changes the leaf of the first positions as a program with a fault would: checksums are right.
    template <typename Change>
    void ForgeFirstLeaf(Change change) {
        InnerNode* path[kTopLevel];
        uint64_t offset = NewestRoot()->indexOffset;
        for (InnerNode*& node : path) {
            node = At<InnerNode>(offset);
            offset = node->children[0].offset;
        }
        auto* leaf = At<LeafNode>(offset);
        change(*leaf);
        leaf->header.crc = 0;
        leaf->header.crc = Crc32c(0, leaf, sizeof *leaf);
        uint32_t crc = leaf->header.crc;
        for (size_t i = kTopLevel; i-- > 0;) {
            path[i]->children[0].crc = crc;
            path[i]->header.crc = 0;
            crc = path[i]->header.crc = Crc32c(0, path[i], sizeof *path[i]);
        }
        Root* root = NewestRoot();
        root->indexCrc = crc;
        root->crc = Crc32c(0, root, offsetof(Root, crc));
    }
    Device m_device;
    Report m_report;
};

TEST_F(Fsck, AClosedFileIsClean) {
    const std::vector<uint8_t> before = m_device.content;
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(m_report.damages, 0u) << Damages();
    EXPECT_TRUE(m_report.loaded);
    EXPECT_EQ(m_report.frameCount, kFrames + 10);
    EXPECT_EQ(m_report.present, kFrames - 3 + 1);
    EXPECT_EQ(m_report.erased, 3u);
    EXPECT_EQ(m_report.holes, 9u);
    EXPECT_EQ(m_report.dataBytes, (kFrames - 2) * kFrame);
    EXPECT_EQ(m_report.load.tailRecords, 0u);
    EXPECT_EQ(m_device.content, before) << "it only reads";
    EXPECT_EQ(m_device.calls[static_cast<size_t>(Call::kSetSize)], 0u);
}

TEST_F(Fsck, AnEmptyFileIsClean) {
    m_device = {};
    FormatVideo(m_device);
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(m_report.damages, 0u) << Damages();
    EXPECT_EQ(m_report.remarks, 0u) << Remarks();
}

TEST_F(Fsck, AFileThatACrashLeftIsCleanAndSaysSo) {
    m_device = {};
    Fill(m_device, false);
    m_device.LosePower(Cut::kNothing);
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(m_report.damages, 0u) << Damages();
    EXPECT_EQ(m_report.load.tailRecords, 1u);
    EXPECT_NE(Remarks().find("log: 1 record since the last checkpoint: the file was not closed"),
              std::string::npos)
        << Remarks();
}

TEST_F(Fsck, AWriteThatWasCutOffIsNoDamage) {
    m_device = {};
    Fill(m_device, false);
    m_device.LosePower(Cut::kEverything);
    m_device.content[m_device.content.size() - kPageSize + 3] ^= 1;  // the last frame's data
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(m_report.damages, 0u) << Damages();
    EXPECT_EQ(m_report.load.tornRecords, 1u);
    EXPECT_NE(Remarks().find("log: a write of 700 bytes that was cut off"), std::string::npos)
        << Remarks();
}

TEST_F(Fsck, AFrameWithAFlippedBit) {
    m_device.content[kLogOffset + 5 * SlotSize(kFrame) + 123] ^= 4;
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(Damages(), "frame 5: 700 bytes: wrong checksum\n");
    EXPECT_EQ(m_report.damagedFrames, 1u);
}

TEST_F(Fsck, AFrameWhoseRecordIsDamaged) {
    m_device.content[kLogOffset + 6 * SlotSize(kFrame) - 1] ^= 4;
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(Damages(), "frame 5: its record is damaged\n");
}

TEST_F(Fsck, AHeaderThatIsDamaged) {
    At<FileHeader>(0)->created ^= 1;
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(Damages(), "header -1: wrong checksum; the file does not open\n");
    EXPECT_FALSE(m_report.loaded);
    m_device.content.resize(100);
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(Damages(), "header -1: cut off; the file does not open\n");
}

// What the older root leads to was given back when the newer one was durable: the records say what
// is there, but for frames that were erased, which are holes then.
TEST_F(Fsck, ARootThatIsDamaged) {
    m_device.content[kRootOffset[NewestRoot()->generation & 1] + 40] ^= 1;
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(Damages(),
              "root -1: not valid\n"
              "index 0: page of level 4: wrong checksum\n"
              "index -1: no index can be read; what follows is what the records tell\n");
    EXPECT_EQ(m_report.present, kFrames - 3 + 1);
    EXPECT_EQ(m_report.damagedFrames, 0u);
}

TEST_F(Fsck, ARootThatACrashCutOff) {
    m_device = {};
    Fill(m_device, false);
    {
        Opened file(m_device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        m_device.faults = {{Call::kWrite, 1, HRESULT_FROM_WIN32(ERROR_IO_DEVICE)}};  // after nodes
        ASSERT_NE(file->Checkpoint(), S_OK);
    }
    memset(At<uint8_t>(kRootOffset[1]), 0x55, 300);
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(Damages(), "");
    EXPECT_NE(Remarks().find("root: a checkpoint that was cut off\n"), std::string::npos);
    EXPECT_EQ(m_report.frameCount, kFrames + 10);
}

TEST_F(Fsck, NeitherRoot) {
    memset(At<uint8_t>(kRootOffset[0]), 0, 512);
    m_device.content[kRootOffset[1] + 40] ^= 1;
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(Damages(),
              "root -1: blank where there must be one\n"
              "root -1: not valid\n"
              "index -1: no index can be read; what follows is what the records tell\n");
    EXPECT_EQ(m_report.frameCount, kFrames + 10);
}

TEST_F(Fsck, AnIndexPageThatIsDamaged) {
    m_device.content[NewestRoot()->indexOffset + 100] ^= 1;
    ASSERT_EQ(Check(), S_OK);
    EXPECT_NE(Damages().find("index 0: page of level 4: wrong checksum\n"), std::string::npos)
        << Damages();
}

TEST_F(Fsck, ATruncatedFile) {
    const std::vector<uint8_t> whole = m_device.content;
    for (const size_t size :
         {whole.size() - 1, whole.size() - 5 * kPageSize, whole.size() / 2,
          size_t{kLogOffset} + 100, size_t{kLogOffset} - 1, size_t{5000}, size_t{600}}) {
        m_device.content = whole;
        m_device.content.resize(size);
        ASSERT_EQ(Check(), S_OK) << size;
        EXPECT_GT(m_report.damages, 0u) << size;
    }
}

TEST_F(Fsck, NotANativeFile) {
    const HRESULT bad = HRESULT_FROM_WIN32(ERROR_BAD_FORMAT);
    m_device.content[0] ^= 1;
    EXPECT_EQ(Check(), bad);
    m_device.content.resize(7);
    EXPECT_EQ(Check(), bad);
    m_device.content.clear();
    EXPECT_EQ(Check(), bad);
}

TEST_F(Fsck, TwoFramesInOnePlace) {
    ForgeFirstLeaf([](LeafNode& leaf) {
        leaf.entries[3].slotOffset = leaf.entries[2].slotOffset;
        leaf.entries[3].dataCrc = leaf.entries[2].dataCrc;
    });
    ASSERT_EQ(Check(), S_OK);
    EXPECT_NE(Damages().find(" lies in the place of frame "), std::string::npos) << Damages();
}

// A frame that claims to be as large as a frame can be, in a file that is much smaller.
TEST_F(Fsck, LengthsAreNotBelieved) {
    ForgeFirstLeaf([](LeafNode& leaf) { leaf.entries[3].dataSize = kMaxFrameSize; });
    ASSERT_EQ(Check(), S_OK);
    EXPECT_NE(Damages().find("index 3: page of level 0: an entry that cannot be\n"),
              std::string::npos)
        << Damages();
}

TEST_F(Fsck, AFrameThatAnotherRecordBelongsTo) {
    ForgeFirstLeaf([](LeafNode& leaf) { std::swap(leaf.entries[2], leaf.entries[3]); });
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(Damages(),
              "frame 3: its record is another frame's\nframe 2: its record is another frame's\n");
}

TEST_F(Fsck, AFrameCountThatIsWrong) {
    Root* root = NewestRoot();
    root->frameCount = 20;
    root->crc = Crc32c(0, root, offsetof(Root, crc));
    ASSERT_EQ(Check(), S_OK);
    EXPECT_EQ(Damages(),
              "index -1: the file says that it has 20 frames, the index ends at 160\n"
              "frame 20: cannot be reached\n");
}

TEST_F(Fsck, AFileThatIsBeingWritten) {
    Opened writer(m_device);
    ASSERT_EQ(writer->BeginWriting(), S_OK);
    EXPECT_EQ(Check(), HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));
    ASSERT_EQ(writer->EndWriting(), S_OK);
    EXPECT_EQ(Check(), S_OK);
}

TEST_F(Fsck, ADeviceThatDoesNotRead) {
    for (uint32_t read = 0; read < 200; read += 7) {
        m_device.faults = {{Call::kRead, read, HRESULT_FROM_WIN32(ERROR_IO_DEVICE)}};
        EXPECT_EQ(Check(), HRESULT_FROM_WIN32(ERROR_IO_DEVICE)) << read;
    }
}

class FsckProgram : public testing::Test {
protected:
    FsckProgram() { Fill(m_device, true); }
    std::string Put(const std::string& name) const {
        return m_folder.Write(name, {m_device.content.begin(), m_device.content.end()});
    }
    int Run(const std::string& arguments) {
        const std::string command = ZEMFSCK_PROGRAM " " + arguments + " 2>&1";
        FILE* pipe = popen(command.c_str(), "r");
        m_output.clear();
        char buffer[4096];
        for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) != 0;)
            m_output.append(buffer, n);
        const int status = pclose(pipe);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    bool Says(const std::string& text) const { return m_output.find(text) != std::string::npos; }
    Device m_device;
    const CTempFolder m_folder;
    std::string m_output;
};

TEST_F(FsckProgram, CleanIs0) {
    EXPECT_EQ(Run(Put("good")), 0) << m_output;
    EXPECT_TRUE(Says("frames: 160, present 148 (103600 bytes), erased 3, holes 9, damaged 0\n"))
        << m_output;
    EXPECT_TRUE(m_output.ends_with("  clean\n")) << m_output;
}

TEST_F(FsckProgram, DamageIs1) {
    const std::string good = Put("good");
    m_device.content[kLogOffset + 5 * SlotSize(kFrame) + 123] ^= 4;
    EXPECT_EQ(Run(good + " " + Put("bad") + " " + good), 1);
    EXPECT_TRUE(Says("  DAMAGE frame, position 5, offset 36864: 700 bytes: wrong checksum\n"))
        << m_output;
    EXPECT_TRUE(Says("  1 damage\n"));
    m_device.content[kLogOffset + 6 * SlotSize(kFrame) + 123] ^= 4;
    EXPECT_EQ(Run(Put("worse")), 1);
    EXPECT_TRUE(Says("  2 damages\n")) << m_output;
}

TEST_F(FsckProgram, AnOptionThatDoesNotExistIs2) {
    EXPECT_EQ(Run("--repair " + Put("good")), 2);
    EXPECT_EQ(m_output, "zemfsck: there is no option '--repair'; see zemfsck --help\n");
}

TEST_F(FsckProgram, WhatCannotBeCheckedIs2) {
    EXPECT_EQ(Run(m_folder.File("none")), 2);
    EXPECT_TRUE(Says("not checked: no such file")) << m_output;
    m_folder.Write("text", "hello");
    EXPECT_EQ(Run(m_folder.File("text") + " " + Put("good")), 2);
    EXPECT_TRUE(Says("not a native media file")) << m_output;
    for (const std::string& folder : {m_folder.Path().string(), std::string("/")}) {
        EXPECT_EQ(Run(folder), 2);
        EXPECT_TRUE(Says("not checked: a directory; name files")) << m_output;
    }
    EXPECT_EQ(Run(""), 2);
    EXPECT_TRUE(Says("Usage:")) << m_output;
    EXPECT_EQ(Run("--nonsense"), 2);
    EXPECT_EQ(Run(Put("good") + " >/dev/full"), 2) << "a report that nobody got";
}

TEST_F(FsckProgram, AsksForHelpAndVersion) {
    EXPECT_EQ(Run("--help"), 0);
    EXPECT_TRUE(Says("Exit codes:\n  0  all files are clean")) << m_output;
    EXPECT_EQ(Run("--version"), 0);
    EXPECT_TRUE(m_output.starts_with("zemfsck ")) << m_output;
}

TEST_F(FsckProgram, JsonIsOneObjectALine) {
    m_device.content[kLogOffset + 5 * SlotSize(kFrame) + 123] ^= 4;
    const std::string bad = Put("a \"quoted\" name");
    EXPECT_EQ(Run("--json '" + bad + "' " + m_folder.File("none")), 2);
    const std::string expected = R"(\"quoted\" name","result":"damaged","size":)" +
                                 std::to_string(m_device.content.size()) +
                                 R"(,"type":"video","file_id":")";
    EXPECT_TRUE(Says(expected)) << m_output;
    EXPECT_TRUE(Says(R"("frames":{"count":160,"present":148,"erased":3,"holes":9,"damaged":1,)"))
        << m_output;
    EXPECT_TRUE(Says(R"({"damage":true,"part":"frame","position":5,"offset":36864,"text":)"
                     R"("700 bytes: wrong checksum"})"))
        << m_output;
    EXPECT_TRUE(Says(R"(/none","result":"unchecked","why":"no such file"})")) << m_output;
    // One object; its members are named as those of zem.
    EXPECT_EQ(system(("'" ZEMFSCK_PROGRAM "' --json '" + bad +
                      "' | python3 -c 'import json,re,sys; names = []; "
                      "json.loads(sys.stdin.read(), object_pairs_hook=lambda pairs: names.extend("
                      "name for name, _ in pairs)); "
                      "wrong = [name for name in names if not re.fullmatch(\"[a-z_]+\", name)]; "
                      "sys.exit(str(wrong) if wrong or len(names) < 20 else 0)'")
                         .c_str()),
              0);
}

TEST_F(FsckProgram, ReadsWithoutPermissionToWrite) {
    const std::string path = Put("good");
    std::filesystem::permissions(path, std::filesystem::perms::owner_read);
    const auto before = std::filesystem::last_write_time(path);
    EXPECT_EQ(Run(path), 0) << m_output;
    EXPECT_EQ(std::filesystem::last_write_time(path), before);
}

}  // namespace
