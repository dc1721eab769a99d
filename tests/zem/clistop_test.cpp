// A verb that is told to stop while a command is on its way to the server: what it has made it puts
// away, or says what is left.
#include <signal.h>

#include <utility>

#include "tests/zem/zemcli.h"

namespace {

constexpr uint32_t kCreateFile = 1;
constexpr uint32_t kReadFrame = 3;
constexpr uint32_t kWriteFrame = 4;
constexpr const char* kLeave = "16";

class ZemCliStop : public ZemCli {
protected:
    // Runs zem and sends it a SIGTERM when the first `command` has arrived at the server, before
    // that is answered.
    Outcome RunAndStopAt(uint32_t command, const std::string& arguments) {
        const fs::path pidFile = m_dir / "pid";
        bool signalled = false;  // once: a second signal ends the program at once
        CScriptServer server([&](const ScriptRequest& request) {
            if (request.method == "POST" && request.body.substr(4, 4) == Le32(command) &&
                !std::exchange(signalled, true)) {
                kill(std::stoi(Contents(pidFile)), SIGTERM);
            }
            return m_media(request);
        });
        const int code = Shell("sh -c 'echo $$ >pid; exec \"$0\" \"$@\"' " + Quoted(ZEM_PROGRAM) +
                               " --server " + server.Url() + " " + arguments + " >out 2>err");
        server.Settle();
        EXPECT_TRUE(signalled);
        return {code, Contents(m_dir / "out"), Contents(m_dir / "err")};
    }
};

TEST_F(ZemCliStop, APutLeavesAndSaysWhatIsLeftBehind) {
    MakeClip();
    const Outcome outcome = RunAndStopAt(kWriteFrame, "put clip.mov media/clip");
    EXPECT_EQ(outcome.code, 130);
    EXPECT_TRUE(Has(outcome.err, "incomplete")) << outcome.err;
    EXPECT_EQ(m_media.log.back(), kLeave);
    EXPECT_LT(m_media.files["media/clip.v0"].frames.size(), 25u);
}

TEST_F(ZemCliStop, APutThatIsCreatingAFileSaysThatItIsThere) {
    MakeClip();
    const Outcome outcome = RunAndStopAt(kCreateFile, "put clip.mov media/clip");
    EXPECT_EQ(outcome.code, 130);
    EXPECT_TRUE(Has(outcome.err, "incomplete")) << outcome.err;
    EXPECT_EQ(m_media.files.size(), 1u) << "no second file after the stop";
}

TEST_F(ZemCliStop, AnImportThatIsCreatingAFileTakesItBack) {
    MakeClip();
    const Outcome outcome = RunAndStopAt(kCreateFile, "import clip.mov media/clip");
    EXPECT_EQ(outcome.code, 130);
    EXPECT_TRUE(Has(outcome.err, "nothing of it is left on the server")) << outcome.err;
    EXPECT_TRUE(m_media.files.empty());
}

TEST_F(ZemCliStop, ADoctorPutsItsFileAway) {
    for (const uint32_t command : {kCreateFile, kWriteFrame, kReadFrame}) {
        const Outcome outcome = RunAndStopAt(command, "doctor");
        EXPECT_EQ(outcome.code, 130) << command;
        EXPECT_TRUE(Has(outcome.out, "delete")) << outcome.out;
        EXPECT_TRUE(m_media.files.empty()) << command;
        EXPECT_TRUE(m_media.clients.empty()) << command;
    }
}

TEST_F(ZemCliStop, ABenchPutsItsFilesAway) {
    m_media.freeSpace_bytes = 1 << 20;
    for (const uint32_t command : {kCreateFile, kWriteFrame, kReadFrame}) {
        const Outcome outcome = RunAndStopAt(
            command, "bench --seconds 86400 --connections 2 --frames 2 --frame-size 1k" +
                         std::string(command == kReadFrame ? " --mode read" : ""));
        EXPECT_EQ(outcome.code, 130) << command;
        EXPECT_EQ(outcome.err, "zem: stopped\n");
        EXPECT_TRUE(m_media.files.empty()) << command;
        EXPECT_TRUE(m_media.clients.empty()) << command;
    }
}

}  // namespace
