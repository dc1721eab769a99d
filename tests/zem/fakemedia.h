// A media server of a few dozen lines for tests of the client: files in memory, the protocol's
// manners (success is answered whatever happened), and faults on demand. Written against the wire
// format, shares nothing with the client.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/zem/scriptserver.h"

class CFakeMedia {
public:
    struct File {
        std::string desc;  // 56 bytes
        std::map<uint32_t, std::string> frames;
        bool isDirectory = false;
        std::set<uint32_t> notKeys = {};
    };

    // Faults; set before the first request.
    std::set<std::pair<std::string, uint32_t>> dropWrites;  // accepted, never stored
    unsigned dropEvery = 0;  // so many frame writes, the last of which is never stored
    std::set<std::pair<std::string, uint32_t>> corruptWrites;  // stored with a flipped bit
    std::set<uint32_t> notImplemented;                         // command codes
    std::set<uint32_t> ignored;      // commands that answer success and do nothing
    std::set<std::string> noCreate;  // names whose creation fails
    std::set<std::string> noWrite;   // names that are only read
    std::set<std::string> noGet;     // names that GET and DELETE refuse
    uint64_t totalSpace_bytes = 4000;
    uint64_t freeSpace_bytes = 1000;
    std::set<uint32_t> noErase;  // frames that stay
    bool noDescs = false;        // frames have no descriptors
    int shortOfMemory = 0;       // so many frame reads fail with the out-of-resources result first

    std::map<std::string, File> files;  // names narrowed to 8 bits
    std::set<std::string> clients;
    std::vector<std::string> log;  // one word per command

    // How many frames were written, and begins to count anew.
    unsigned WritesAndAnew() { return std::exchange(m_writes, 0); }

    ScriptAnswer operator()(const ScriptRequest& request);

private:
    std::string Post(const ScriptRequest& request);
    std::string ReadFrame(uint32_t trans_id, const std::string& body);
    void WriteFrame(const std::string& body, const std::string& payload);
    File* OfToken(const std::string& body, size_t at);
    uint64_t OpenToken(const std::string& name);
    std::string Body(uint32_t code, const std::string& body);
    std::string FileBody(uint32_t code, const std::string& body);
    std::string FrameDescs(const File* file, uint32_t position, uint32_t count) const;

    std::map<uint64_t, std::string> m_tokens;
    unsigned m_writes = 0;
    uint32_t m_next = 1;
};
