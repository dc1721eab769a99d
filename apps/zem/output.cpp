// Terminal, JSON and signals of the program zem.
#include "apps/zem/output.h"

#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <random>

#include "apps/zem/client/text.h"

namespace zem {

std::string HumanBytes(uint64_t bytes) {
    constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return std::to_string(bytes) + " B";
    double value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit)
        value /= 1024;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f %s", value, kUnits[unit]);
    return text.data();
}

void CJson::Begin(std::string_view key) {
    if (!m_first) m_text += ",";
    m_first = false;
    if (!key.empty()) {
        Quote(key);
        m_text += ":";
    }
}

void CJson::Quote(std::string_view value) {
    m_text += '"';
    for (const char c : value) {
        if (c == '"' || c == '\\') {
            m_text += '\\';
            m_text += c;
        } else if (static_cast<uint8_t>(c) < 0x20) {
            std::array<char, 8> escape{};
            std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(c));
            m_text += escape.data();
        } else {
            m_text += c;
        }
    }
    m_text += '"';
}

CJson& CJson::Open(char bracket, std::string_view key) {
    Begin(key);
    m_text += bracket;
    m_brackets += bracket == '{' ? '}' : ']';
    m_first = true;
    return *this;
}

CJson& CJson::Close() {
    m_text += m_brackets.back();
    m_brackets.pop_back();
    m_first = false;
    return *this;
}

CJson& CJson::Text(std::string_view key, std::string_view value) {
    Begin(key);
    Quote(value);
    return *this;
}
CJson& CJson::Number(std::string_view key, int64_t value) {
    Begin(key);
    m_text += std::to_string(value);
    return *this;
}
CJson& CJson::Unsigned(std::string_view key, uint64_t value) {
    Begin(key);
    m_text += std::to_string(value);
    return *this;
}
CJson& CJson::Bool(std::string_view key, bool value) {
    Begin(key);
    m_text += value ? "true" : "false";
    return *this;
}
CJson& CJson::Null(std::string_view key) {
    Begin(key);
    m_text += "null";
    return *this;
}

bool StdoutIsTerminal() {
    return isatty(1) == 1;
}
bool StderrIsTerminal() {
    return isatty(2) == 1;
}

CProgress::CProgress(std::string label, bool wanted)
    : m_label(std::move(label)),
      m_on(wanted && StderrIsTerminal()),
      m_start(std::chrono::steady_clock::now()),
      m_last(m_start) {}

CProgress::~CProgress() {
    if (m_drawn) std::fputs("\r\x1b[K", stderr);
}

double CProgress::Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
}

namespace {

// "0:07", "12:31", "2:03:40".
std::string TimeLeft(double seconds) {
    const auto whole = static_cast<long>(seconds + 0.5);
    std::array<char, 48> text{};
    if (whole >= 3600) {
        std::snprintf(text.data(), text.size(), "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60,
                      whole % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%ld:%02ld", whole / 60, whole % 60);
    }
    return text.data();
}

}  // namespace

std::string ProgressText(uint64_t done, uint64_t total, double seconds, std::string_view note) {
    constexpr size_t kWidth = 24;
    if (total == 0) return std::string(note);
    const double part =
        static_cast<double>(done < total ? done : total) / static_cast<double>(total);
    const auto filled = static_cast<size_t>(part * static_cast<double>(kWidth));
    std::string text = "[" + std::string(filled, '#') + std::string(kWidth - filled, '.') + "] " +
                       std::to_string(static_cast<int>(part * 100)) + " % ";
    if (part > 0.01) text += TimeLeft(seconds * (1 - part) / part) + " left, ";
    return text.append(note);
}

void CProgress::Show(uint64_t done, uint64_t total, std::string_view note) {
    const auto now = std::chrono::steady_clock::now();
    if (!m_on || (m_drawn && now - m_last < std::chrono::milliseconds(100))) return;
    m_last = now;
    m_drawn = true;
    std::fprintf(stderr, "\r\x1b[K%s %s", m_label.c_str(),
                 ProgressText(done, total, Seconds(), note).c_str());
}

namespace {

volatile std::sig_atomic_t g_stop = 0;

void OnStopSignal(int number) {
    g_stop = 1;
    std::signal(number, SIG_DFL);
}

}  // namespace

void CatchStopSignals() {
    std::signal(SIGINT, &OnStopSignal);
    std::signal(SIGTERM, &OnStopSignal);
}

bool StopRequested() {
    return g_stop != 0;
}

std::string DefaultClientId() {
    std::random_device random;
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "zem-%ld-%08x", static_cast<long>(getpid()),
                  static_cast<unsigned>(random()));
    return text.data();
}

}  // namespace zem
