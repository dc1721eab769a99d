// What the tests of the program zem from outside share: a scripted server with media of its own, a
// folder that goes at the end, and a way to run zem there. One test at a time, on one thread.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tempfolder.h"
#include "tests/zem/fakemedia.h"
#include "tests/zem/scriptserver.h"

namespace fs = std::filesystem;

struct Outcome {
    int code;
    std::string out;
    std::string err;
};

class ZemCli : public testing::Test {
protected:
    ZemCli() : m_server(std::ref(m_media)) {}

    static std::string Quoted(const std::string& text) {
        std::string out = "'";
        for (const char c : text)
            out += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return out + "'";
    }
    static std::string Contents(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    int Shell(const std::string& command) const {
        const int status = std::system(("cd " + Quoted(m_dir.string()) + " && " + command).c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000;
    }
    Outcome RunOn(const std::string& server, const std::vector<std::string>& arguments) const {
        std::string command = Quoted(ZEM_PROGRAM) + " --server " + Quoted(server);
        for (const std::string& argument : arguments)
            command += " " + Quoted(argument);
        m_server.Settle();
        const int code = Shell(command + " >out 2>err");
        m_server.Settle();
        return {code, Contents(m_dir / "out"), Contents(m_dir / "err")};
    }
    Outcome Run(const std::vector<std::string>& arguments) const {
        return RunOn(m_server.Url(), arguments);
    }
    // A second of moving picture and two channels of sound.
    void MakeClip() const {
        ASSERT_EQ(Shell("ffmpeg -v error -nostdin -f lavfi -i testsrc2=size=64x48:rate=25 "
                        "-f lavfi -i sine=frequency=440:sample_rate=48000 -t 1 -c:v mjpeg "
                        "-c:a pcm_s16le -ac 2 -timecode 01:02:03:04 clip.mov"),
                  0);
    }
    // The size and hash columns of ffmpeg's list of the clip's packets.
    std::string Reference(const std::string& map) const {
        Shell("ffmpeg -v error -nostdin -i clip.mov -map " + map +
              " -c copy -f framemd5 - | grep -v '^#' | cut -d, -f5,6 >reference");
        return Contents(m_dir / "reference");
    }
    std::string Columns(const std::string& list) const {
        std::ofstream(m_dir / "list") << list;
        Shell("grep -v '^#' list | cut -d, -f5,6 >columns");
        return Contents(m_dir / "columns");
    }

    const CTempFolder m_folder;
    const fs::path& m_dir = m_folder.Path();
    CFakeMedia m_media;
    CScriptServer m_server;
};

// A server with one file, of which one frame is missing.
class ZemCliFiles : public ZemCli {
protected:
    ZemCliFiles() {
        CFakeMedia::File& file = m_media.files["media/v"];
        file.desc = Le32(0x10038) + Le32(1) + "jpeg" + Le32(25) + Le32(1) + std::string(36, '\0');
        file.frames = {{0, "first"}, {1, "second"}, {3, "fourth"}};
    }
};

inline bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}
