// A verb that is told to stop while a command is on its way to the server: what it has made it puts
// away, or says what is left.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <utility>

#include "tests/zem/zemcli.h"

namespace {

constexpr uint32_t kCreateFile = 1;
constexpr uint32_t kReadFrame = 3;
constexpr uint32_t kWriteFrame = 4;
constexpr uint32_t kKeepAlive = 17;
constexpr const char* kLeave = "16";

class ZemCliStop : public ZemCli {
protected:
    // Runs zem and calls `event` when the first `command` has arrived at the server, before that is
    // answered.
    Outcome RunAndAt(uint32_t command, const std::function<void()>& event,
                     const std::string& arguments, const std::string& before = {}) {
        bool happened = false;  // once: a second signal ends the program at once
        CScriptServer server([&](const ScriptRequest& request) {
            if (request.method == "POST" && request.body.substr(4, 4) == Le32(command) &&
                !std::exchange(happened, true)) {
                event();
            }
            return m_media(request);
        });
        const int code =
            Shell("sh -c 'echo $$ >pid; " + before + "exec \"$0\" \"$@\"' " + Quoted(ZEM_PROGRAM) +
                  " --server " + server.Url() + " " + arguments + " >out 2>err");
        server.Settle();
        EXPECT_TRUE(happened);
        return {code, m_pipe < 0 ? Contents(m_dir / "out") : "", Contents(m_dir / "err")};
    }
    void Signal(int number) const { kill(std::stoi(Contents(m_dir / "pid")), number); }
    Outcome RunAndStopAt(uint32_t command, const std::string& arguments, int number = SIGTERM) {
        return RunAndAt(
            command, [&] { Signal(number); }, arguments);
    }
    // Its output is a pipe, whose reader goes away.
    Outcome RunAndCloseAt(uint32_t command, const std::string& arguments) {
        const fs::path out = m_dir / "out";
        fs::remove(out);
        EXPECT_EQ(mkfifo(out.c_str(), 0600), 0);
        m_pipe = open(out.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        EXPECT_GE(m_pipe, 0);
        return RunAndAt(
            command, [&] { close(m_pipe); }, arguments);
    }

    int m_pipe = -1;
};

TEST_F(ZemCliStop, APutLeavesAndSaysWhatIsLeftBehind) {
    MakeClip();
    const Outcome outcome = RunAndStopAt(kWriteFrame, "put clip.mov media/clip");
    EXPECT_EQ(outcome.code, 130);
    EXPECT_TRUE(Has(outcome.err,
                    "; the files on the server are incomplete: media/clip.v0 "
                    "media/clip.a0 (zem rm removes them, zem put --force replaces "
                    "them)\n"))
        << outcome.err;
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

TEST_F(ZemCliStop, ATopEndsWellInTheMiddleOfASampleToo) {
    for (const int last : {1, 2}) {
        int asked = 0;
        CScriptServer server([&](const ScriptRequest& request) {
            ScriptAnswer answer = m_media(request);
            if (request.target == "/media/status" && ++asked == last) {
                answer.bytes.pop_back();  // which leaves it waiting
                Signal(SIGINT);
            }
            return answer;
        });
        const int code = Shell("sh -c 'echo $$ >pid; exec \"$0\" \"$@\"' " + Quoted(ZEM_PROGRAM) +
                               " --server " + server.Url() + " top --interval 0.1 >out 2>err");
        server.Settle();
        EXPECT_EQ(code, 0);
        EXPECT_EQ(Contents(m_dir / "err"), "");
        EXPECT_EQ(asked, last);
    }
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

constexpr const char* kNobodyReads = "zem: stopped; nobody reads the output any more\n";

TEST_F(ZemCliStop, ADoctorWhoseReaderIsGonePutsItsFileAway) {
    for (const uint32_t command : {kCreateFile, kWriteFrame, kReadFrame}) {
        const Outcome outcome = RunAndCloseAt(command, "doctor");
        EXPECT_EQ(outcome.code, 130) << command;
        EXPECT_EQ(outcome.err, kNobodyReads);
        EXPECT_TRUE(m_media.files.empty()) << command;
        EXPECT_TRUE(m_media.clients.empty()) << command;
    }
}

TEST_F(ZemCliStop, WhoeverReadsFramesForNobodyLeaves) {
    MakeClip();
    ASSERT_EQ(Run({"put", "clip.mov", "media/v"}).code, 0);
    for (const char* const verb : {"read media/v.v0", "framemd5 media/v.v0"}) {
        const Outcome outcome = RunAndCloseAt(kReadFrame, verb);
        EXPECT_EQ(outcome.code, 130) << verb;
        EXPECT_EQ(outcome.err, kNobodyReads) << verb;
        EXPECT_TRUE(m_media.clients.empty()) << verb;
    }
}

TEST_F(ZemCliStop, AFullDiskBehindStdoutIs5) {
    EXPECT_EQ(Shell(Quoted(ZEM_PROGRAM) + " --server " + m_server.Url() + " df >/dev/full 2>err"),
              5);
    EXPECT_EQ(Contents(m_dir / "err"), "zem: stdout cannot be written\n");
}

TEST_F(ZemCliStop, HelpThatCannotBeWrittenIs5) {
    for (const char* const asked : {"--help", "put --help", "--version", "--version --json"}) {
        EXPECT_EQ(Shell(Quoted(ZEM_PROGRAM) + " " + asked + " >/dev/full 2>err"), 5) << asked;
        EXPECT_EQ(Contents(m_dir / "err"), "zem: stdout cannot be written\n") << asked;
    }
}

// The limit comes when zem runs: what a sanitizer writes when it starts has none.
TEST_F(ZemCliStop, AFileAtItsSizeLimitIsCleanedUpAfter) {
    MakeClip();
    ASSERT_EQ(Run({"put", "clip.mov", "media/v"}).code, 0);
    const auto limit = [&] {
        const rlimit below_frame{1000, 1000};  // bytes; the message has room
        EXPECT_EQ(prlimit(std::stoi(Contents(m_dir / "pid")), RLIMIT_FSIZE, &below_frame, nullptr),
                  0);
    };
    for (const char* const arguments : {"read media/v.v0 -o new.mov", "export media/v new.mov"}) {
        const Outcome outcome = RunAndAt(kReadFrame, limit, arguments);
        EXPECT_EQ(outcome.code, 5) << arguments;
        EXPECT_TRUE(outcome.err.ends_with("File too large\n")) << arguments << ": " << outcome.err;
        EXPECT_FALSE(fs::exists(m_dir / "new.mov")) << arguments;
        EXPECT_FALSE(fs::exists(m_dir / "new.mov.part")) << arguments;
    }
}

TEST_F(ZemCliStop, AHangUpIsAsGoodAsCtrlC) {
    MakeClip();
    for (const int number : {SIGHUP, SIGINT}) {
        const Outcome outcome = RunAndStopAt(kWriteFrame, "doctor", number);
        EXPECT_EQ(outcome.code, 130) << number;
        EXPECT_EQ(outcome.err, "zem: stopped\n");
        EXPECT_TRUE(m_media.files.empty()) << number;
        EXPECT_TRUE(m_media.clients.empty()) << number;
    }
    const Outcome outcome = RunAndStopAt(kCreateFile, "import clip.mov media/clip", SIGHUP);
    EXPECT_EQ(outcome.code, 130);
    EXPECT_TRUE(m_media.files.empty());
    EXPECT_TRUE(m_media.clients.empty());
}

// A pipe that says nothing holds up nothing but the clip.

class ZemCliPipe : public ZemCliStop {
protected:
    ZemCliPipe() {
        const fs::path in = m_dir / "in";
        EXPECT_EQ(mkfifo(in.c_str(), 0600), 0);
        // With its other end open, too, nobody waits for somebody to open it.
        m_in = open(in.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        EXPECT_GE(m_in, 0);
    }
    ~ZemCliPipe() override { CloseIn(); }
    void CloseIn() {
        if (m_in >= 0) close(std::exchange(m_in, -1));
    }
    int m_in = -1;
};

TEST_F(ZemCliPipe, APutThatWaitsForTheBeginningOfAClipEndsAtOneSignal) {
    for (const char* const clip : {"- media/x <in", "in media/x"}) {
        // So much says nothing of a clip yet.
        const std::string zeros(4096, '\0');
        while (write(m_in, zeros.data(), zeros.size()) > 0) {
        }
        ASSERT_EQ(errno, EAGAIN) << "it is full";
        std::future<int> run = std::async(std::launch::async, [&] {
            return Shell("sh -c 'echo $$ >pid; exec \"$0\" \"$@\"' " + Quoted(ZEM_PROGRAM) +
                         " --server " + m_server.Url() + " put " + clip + " >out 2>err");
        });
        pollfd room = {m_in, POLLOUT, 0};
        EXPECT_EQ(poll(&room, 1, 60000), 1) << "somebody has read some of it";
        Signal(SIGINT);
        if (run.wait_for(std::chrono::seconds(60)) != std::future_status::ready) Signal(SIGKILL);
        EXPECT_EQ(run.get(), 130) << clip;
        EXPECT_EQ(Contents(m_dir / "err"), "zem: stopped\n");
        EXPECT_TRUE(m_server.Requests().empty());
    }
}

TEST_F(ZemCliPipe, WhoseClipStopsInTheMiddleEndsAtOneSignalAndTidiesUp) {
    MakeClip();
    ASSERT_EQ(Shell("ffmpeg -v error -nostdin -i clip.mov -c copy -movflags +faststart front.mov"),
              0);
    const std::string half = Contents(m_dir / "front.mov").substr(0, 150000);
    constexpr int kRoom_bytes = 1 << 20;
    ASSERT_GE(fcntl(m_in, F_SETPIPE_SZ, kRoom_bytes), kRoom_bytes);
    for (const std::string verb : {"import", "put"}) {
        ASSERT_EQ(write(m_in, half.data(), half.size()), static_cast<ssize_t>(half.size()));
        int alive = 0;
        // It waits, and says that it is alive: then it is told to stop. Whoever waits on has an
        // end.
        CScriptServer server([&](const ScriptRequest& request) {
            if (request.method == "POST" && request.body.substr(4, 4) == Le32(kKeepAlive)) {
                if (++alive == 1) Signal(SIGINT);
                if (alive == 3) CloseIn();
            }
            return m_media(request);
        });
        const int code =
            Shell("sh -c 'echo $$ >pid; exec \"$0\" \"$@\"' " + Quoted(ZEM_PROGRAM) + " --server " +
                  server.Url() + " --keep-alive 1 " + verb + " - media/x <in >out 2>err");
        server.Settle();
        EXPECT_EQ(code, 130) << verb;
        const std::string err = Contents(m_dir / "err");
        EXPECT_EQ(err, verb == "put"
                           ? "zem: stopped; the files on the server are incomplete: "
                             "media/x.v0 media/x.a0 (zem rm removes them, zem put --force replaces "
                             "them)\n"
                           : "zem: stopped; nothing of it is left on the server\n");
        EXPECT_EQ(m_media.files.empty(), verb == "import");
        EXPECT_TRUE(m_media.clients.empty()) << verb;
        if (m_in < 0) break;
    }
}

TEST_F(ZemCliStop, AHangUpThatIsIgnoredStaysIgnored) {
    const Outcome outcome = RunAndAt(
        kWriteFrame, [&] { Signal(SIGHUP); }, "doctor", "trap \"\" HUP; ");
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    EXPECT_TRUE(Has(outcome.out, "delete")) << outcome.out;
    EXPECT_TRUE(m_media.files.empty());
}

}  // namespace
