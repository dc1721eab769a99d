// Where the lines of the error log go: a file that rotates by size, standard error, a
// function of the host, or several of them. Used by one thread at a time (the writer, or
// ErrorLogConfigure while the writer waits).
#pragma once

#include "mediaio/errorlog/sink.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

// Opens, or creates, a file of any name for appending, without translation of line ends; null:
// errno says why. The caller closes it. In output_posix.cpp and output_windows.cpp.
std::FILE* OpenToAppend(const std::filesystem::path& path);

class CErrorLogOutput {
public:
    // Opens the file of the settings, if any; false: *problem says why.
    bool Open(const ErrorLogSettings& settings, std::string* problem);

    // Writes whole lines. Returns false when the file took less: the lines are then lost to the
    // file.
    bool Write(const std::string& lines);

    ErrorLogFormat Format() const { return m_settings.format; }

private:
    struct FileCloser {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    bool OpenFile();
    void Rotate();

    ErrorLogSettings m_settings;
    std::unique_ptr<std::FILE, FileCloser> m_file;
    uint64_t m_file_bytes = 0;
};
