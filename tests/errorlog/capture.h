// What the tests of the error log share: a destination that they can hold, and records.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "mediaio/errorlog.h"
#include "mediaio/errorlog/sink.h"
#include "platform/platform.h"
#include "tests/tempfolder.h"

namespace logtest {

inline constexpr uint32_t kFlush_ms = 20000;
inline constexpr SYSTEMTIME kTime{2025, 11, 4, 20, 18, 4, 5, 67};
inline const std::string kStamp = "2025-11-20 18:04:05.067";

// Nothing that a test left behind may reach the next one, nor a folder that is gone.
inline void BeSilent() {
    ErrorLogSettings settings;
    settings.toStderr = false;
    EXPECT_TRUE(ErrorLogConfigure(settings, nullptr));
}

// Collects what the log writes; can hold the writer thread inside a write.
class CCapture {
public:
    CCapture() { Use(ErrorLogVerbosity::kTraces); }
    ~CCapture() {
        Release();
        BeSilent();
    }

    void Use(ErrorLogVerbosity verbosity, ErrorLogFormat format = ErrorLogFormat::kText) {
        ErrorLogSettings settings;
        settings.toStderr = false;
        settings.verbosity = verbosity;
        settings.format = format;
        settings.write = &CCapture::Write;
        settings.writeContext = this;
        ASSERT_TRUE(ErrorLogConfigure(settings, nullptr));
    }

    void Hold() {
        std::scoped_lock lock(m_lock);
        m_hold = true;
    }
    void WaitUntilHeld() {
        std::unique_lock lock(m_lock);
        m_changed.wait(lock, [this] { return m_held; });
    }
    void Release() {
        std::scoped_lock lock(m_lock);
        m_hold = false;
        m_changed.notify_all();
    }

    std::string Text() {
        EXPECT_TRUE(ErrorLogFlush(kFlush_ms));
        std::scoped_lock lock(m_lock);
        return m_text;
    }
    std::vector<std::string> Lines() {
        std::istringstream text(Text());
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);)
            lines.push_back(line);
        return lines;
    }

private:
    static void Write(void* context, const char* lines, size_t bytes) {
        auto* self = static_cast<CCapture*>(context);
        std::unique_lock lock(self->m_lock);
        self->m_text.append(lines, bytes);
        if (!self->m_hold) return;
        self->m_held = true;
        self->m_changed.notify_all();
        self->m_changed.wait(lock, [self] { return !self->m_hold; });
        self->m_held = false;
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::string m_text;
    bool m_hold = false;
    bool m_held = false;
};

inline ErrorLogSettings ToFile(const std::string& path) {
    ErrorLogSettings settings;
    settings.toStderr = false;
    settings.path = path;
    return settings;
}

inline std::string ReadAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline std::string ThisThread() {
    return "[" + std::to_string(GetCurrentThreadId()) + "] ";
}

inline BOOL WriteMessage(DWORD level, const WCHAR* text) {
    return ErrorLogWriteExW(0, &kTime, 7, level, TEXT(""), -1, 0, text, 0);
}

// A time that no other message of this process has: pieces of one message share theirs.
inline SYSTEMTIME NewTime() {
    static std::atomic<unsigned> last{0};
    SYSTEMTIME time = kTime;
    time.wYear = static_cast<WORD>(3000 + ++last);
    return time;
}

inline void WriteInPieces(const WString& text, const SYSTEMTIME& time) {
    for (size_t i = 0; i < text.size(); i += 127) {
        EXPECT_TRUE(ErrorLogWriteExW(0, &time, 7, kErrorLogLevelMessage, TEXT(""), -1, 0,
                                     text.substr(i, 127).c_str(), 0));
    }
}
inline void WriteInPieces(const WString& text) {
    WriteInPieces(text, NewTime());
}

// The text of every line: what follows the thread.
inline std::vector<std::string> TextsOf(CCapture& capture) {
    std::vector<std::string> texts;
    for (const std::string& line : capture.Lines())
        texts.push_back(line.substr(line.find("] ") + 2));
    return texts;
}

}  // namespace logtest
