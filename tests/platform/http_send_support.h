// What the tests of sending share: files of their own, chunks and responses, one exchange.
#pragma once

#include <gtest/gtest.h>

#include <fstream>

#include "http_support.h"
#include "tests/tempfolder.h"

namespace httptest {

// A file of its own in a folder of its own, with text that tells every offset.
class CTextFile {
public:
    explicit CTextFile(size_t bytes) {
        while (text.size() < bytes)
            text += std::to_string(text.size()) + ".";
        text.resize(bytes);
        std::ofstream(m_path, std::ios::binary) << text;
    }
    HANDLE Open() const {
        const std::u16string wide(m_path.begin(), m_path.end());
        return CreateFileW(wide.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    }
    const std::string& Path() const { return m_path; }
    std::string text;

private:
    const CTempFolder m_folder;
    const std::string m_path = m_folder.File("file");
};

inline HTTP_DATA_CHUNK Memory(const std::string& text) {
    HTTP_DATA_CHUNK chunk{};
    chunk.FromMemory.pBuffer = const_cast<char*>(text.data());
    chunk.FromMemory.BufferLength = static_cast<ULONG>(text.size());
    return chunk;
}

inline HTTP_DATA_CHUNK File(HANDLE file, ULONGLONG offset, ULONGLONG length) {
    HTTP_DATA_CHUNK chunk{};
    chunk.DataChunkType = HttpDataChunkFromFileHandle;
    chunk.FromFileHandle.FileHandle = file;
    chunk.FromFileHandle.ByteRange.StartingOffset.QuadPart = offset;
    chunk.FromFileHandle.ByteRange.Length.QuadPart = length;
    return chunk;
}

inline HTTP_RESPONSE Response(std::vector<HTTP_DATA_CHUNK>& chunks) {
    HTTP_RESPONSE response{};
    response.StatusCode = 200;
    response.pReason = "OK";
    response.ReasonLength = 2;
    response.EntityChunkCount = static_cast<USHORT>(chunks.size());
    response.pEntityChunks = chunks.data();
    return response;
}

inline ULONG SendIt(CServer& server, HTTP_REQUEST_ID id, HTTP_RESPONSE& response,
                    ULONG* sent = nullptr) {
    return HttpSendHttpResponse(server.Queue(), id, 0, &response, nullptr, sent, nullptr, 0,
                                nullptr, nullptr);
}

struct CExchange {
    CExchange() : client(server.TcpPort()) { Ask(); }
    void Ask() {
        client.Send(Get("/zem/"));
        block = server.Take();
        EXPECT_NE(block, nullptr);
    }
    CServer server;
    CClient client;
    CBlock* block = nullptr;
};

}  // namespace httptest
