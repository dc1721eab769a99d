// What zem put and zem import do: the clip's packets go in one by one, each stream into a file of
// its own, and are compared with what the server has afterwards. One thread.
#pragma once

extern "C" {
#include <libavutil/crc.h>
}

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "apps/zem/client/zemerror.h"
#include "apps/zem/clipfile.h"
#include "apps/zem/demux.h"
#include "apps/zem/session.h"

namespace zem {

struct PutOptions {
    std::string clip;
    std::string name;
    std::string verify = "quick";
    bool force = false;
    bool import = false;
};

struct SentFrame {
    uint32_t size_bytes;
    uint32_t crc;
};

struct PutFile {
    std::string name;
    std::string written;  // its name until the import is whole; put: the same
    ZemEsDesc desc{};
    std::string codecName;
    uint64_t token = 0;
    uint64_t total_bytes = 0;
    std::vector<SentFrame> frames;
    StreamHead head;            // import: what goes into the clip's description
    std::vector<uint8_t> rest;  // PCM that does not make a frame yet
};

inline uint32_t CrcOf(std::span<const uint8_t> data) {
    return av_crc(av_crc_get_table(AV_CRC_32_IEEE_LE), 0xFFFFFFFFu, data.data(), data.size());
}

// True when the server did what was asked; false when it does not know the command (an older or
// smaller server).
template <typename Call>
bool IfImplemented(Call call) {
    try {
        call();
        return true;
    } catch (const CZemError& error) {
        if (error.Kind() == ErrorKind::kRefused && error.Hr() == kHrNotImplemented) return false;
        throw;
    }
}

// Throws CZemError(kUsage) for a name that ends where that of a clip would begin.
void RequireClipName(const std::string& name);

class CPut {
public:
    CPut(const CommandLine& line, const PutOptions& options)
        : m_line(line), m_options(options), m_clip(options.clip), m_session(line) {}

    // Exit code; throws CZemError, which says what is left on the server.
    int Run();

private:
    // Sending (put.cpp).
    void RequireNoFolder();
    std::string Left(std::string text) const;  // and names the files
    void CreateFiles();
    void Create(PutFile file);
    std::string WhatIs(const std::string& name);
    void PrepareHead(size_t stream, PutFile& file);
    void SendAll(ClipPacket packet);  // which is the first
    void Take(const ClipPacket& packet);
    void SendCut(PutFile& file, bool all);
    void Describe();
    void Send(PutFile& file, std::span<const uint8_t> data, bool isKey);
    void Flush(uint64_t token);
    void Close(PutFile& file);
    void Publish();
    std::string TakeBack(ErrorKind failure);

    // Comparing (putverify.cpp).
    [[noreturn]] void ThrowLost(const PutFile& file, uint32_t position, const std::string& what);
    void CheckLast(const PutFile& file);
    void Verify(const PutFile& file);
    void VerifyDescs(const PutFile& file, uint64_t token, bool& implemented);
    void VerifyFrame(const PutFile& file, uint64_t token, uint32_t position);

    void Summary() const;  // putverb.cpp

    const CommandLine& m_line;
    const PutOptions& m_options;
    CDemuxer m_clip;
    CSession m_session;
    std::vector<PutFile> m_files;
    uint64_t m_unconfirmed_bytes = 0;
    bool m_canFlush = true;
};

}  // namespace zem
