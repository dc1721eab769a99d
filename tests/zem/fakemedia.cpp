// See fakemedia.h. Offsets are from the start of the command body.
#include "tests/zem/fakemedia.h"

namespace {

constexpr uint32_t kEndOfMedia = 0x8007044C;
constexpr uint32_t kNoResources = 0x800705AA;

uint32_t U32(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i)
        value |= static_cast<uint32_t>(static_cast<uint8_t>(bytes.at(at + i))) << (8 * i);
    return value;
}
uint64_t U64(const std::string& bytes, size_t at) {
    return U32(bytes, at) | static_cast<uint64_t>(U32(bytes, at + 4)) << 32;
}
std::string NameAt(const std::string& bytes, size_t at) {
    std::string name;
    for (; bytes.at(at) != 0 || bytes.at(at + 1) != 0; at += 2)
        name.push_back(bytes.at(at));
    return name;
}
// Striped, and in drop-frame if the command or the address says so.
uint32_t StripedFlags(const std::string& body) {
    return 2 | (U32(body, 1052) & 1) | (U32(body, 1048) >> 6 & 1);
}
const uint32_t kReplyCode[27] = {0,  2,  2,  3,  4,  5,  6,  6,  7,  7,  8,  9,  9, 10,
                                 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23};

}  // namespace

ScriptAnswer CFakeMedia::operator()(const ScriptRequest& request) {
    if (request.method == "POST") return {Post(request), false};
    if (request.target == "/media/status")
        return {PageReplyBytes(200, "OK", "0 1099511627776 4398046511104"), false};
    if (request.target == "/media/clients") {
        std::string text;
        for (const std::string& client : clients)
            text += client + "\r\n";
        return {PageReplyBytes(200, "OK", text.empty() ? "No Clients\r\n" : text), false};
    }
    const auto found = files.find(request.target.substr(1));
    if (found == files.end() || found->second.isDirectory || noGet.count(found->first) != 0)
        return {PageReplyBytes(400, "Bad Request", ""), false};
    if (request.method == "DELETE") {
        files.erase(found);
        return {PageReplyBytes(200, "OK", ""), false};
    }
    std::string text;
    for (const auto& [position, data] : found->second.frames)
        text += data;
    return {PageReplyBytes(200, "OK", text), false};
}

std::string CFakeMedia::Post(const ScriptRequest& request) {
    const uint32_t trans_id = U32(request.body, 0);
    const uint32_t code = U32(request.body, 4);
    const std::string body = request.body.substr(12, U32(request.body, 8));
    const std::string client = request.Header("Zem-Id");
    log.push_back(std::to_string(code));
    if (notImplemented.count(code) != 0)
        return CommandReply(500, "Failed ZEM request", trans_id, code, Le32(0x80004001));
    if (ignored.count(code) != 0)
        return CommandReply(200, "OK", trans_id, kReplyCode[code], Body(0, body));
    if (code == 15 && U32(body, 0) != 255) clients.insert(client);
    if (code == 16) clients.erase(client);
    if (code == 3) return ReadFrame(trans_id, body);
    if (code == 4) WriteFrame(body, request.body.substr(12 + body.size()));
    return CommandReply(200, "OK", trans_id, kReplyCode[code], Body(code, body));
}

CFakeMedia::File* CFakeMedia::OfToken(const std::string& body, size_t at) {
    const auto token = m_tokens.find(U64(body, at));
    if (token == m_tokens.end()) return nullptr;
    const auto file = files.find(token->second);
    return file == files.end() ? nullptr : &file->second;
}

uint64_t CFakeMedia::OpenToken(const std::string& name) {
    const uint64_t token = 0x0123456701000000u + m_next++;
    m_tokens[token] = name;
    return token;
}

// Everything behind the reply header, the status in front.
std::string CFakeMedia::Body(uint32_t code, const std::string& body) {
    const std::string ok = Le32(0);
    switch (code) {
        case 1: {
            const std::string name = NameAt(body, 0);
            const uint32_t flags = U32(body, 1096);
            const auto there = files.find(name);
            if (noCreate.count(name) != 0 ||
                (there != files.end() && ((flags & 0x10) == 0 || there->second.isDirectory))) {
                return ok + Le32(0) + Le64(0);
            }
            files[name] = File{body.substr(1040, 56), {}, false};
            return ok + Le32(0) + Le64(OpenToken(name));
        }
        case 2: {
            const std::string name = NameAt(body, 0);
            const auto there = files.find(name);
            const bool opens = there != files.end() && !there->second.isDirectory &&
                               (noWrite.count(name) == 0 || (U32(body, 1044) & 2) == 0);
            return ok + Le32(0) + Le64(opens ? OpenToken(name) : 0);
        }
        case 5:
            m_tokens.erase(U64(body, 0));
            return ok;
        case 19:
            return ok + Le32(0) + Le64(totalSpace_bytes) + Le64(freeSpace_bytes);
        default:
            return FileBody(code, body);
    }
}

std::string CFakeMedia::FileBody(uint32_t code, const std::string& body) {
    const std::string ok = Le32(0);
    const bool by_name =
        code == 7 || code == 9 || code == 12 || code == 13 || (code > 19 && code < 25);
    const std::string name = by_name ? NameAt(body, 0) : std::string();
    const auto found = files.find(name);
    File* const file = by_name ? (found == files.end() ? nullptr : &found->second)
                       : (code == 6 || code == 8 || code == 25) ? OfToken(body, 0)
                                                                : nullptr;
    switch (code) {
        case 6:
        case 7: {
            if (file == nullptr || file->isDirectory) return ok + std::string(56, '\0');
            const uint32_t count = file->frames.empty() ? 0 : file->frames.rbegin()->first + 1;
            std::string desc = file->desc;
            return ok + desc.replace(36, 4, Le32(count));
        }
        case 8:
            return FrameDescs(file, U32(body, 8), U32(body, 12));
        case 9: {
            std::string reply = FrameDescs(file, U32(body, 1048), U32(body, 1052));
            reply.resize(24 * U32(body, 1052) - 4);
            return reply;
        }
        case 12:  // of names that are no file's the request's own bytes come back
            if (file == nullptr || file->isDirectory) return ok + body.substr(0, 8);
            [[fallthrough]];
        case 11:
            return ok + Le32(3) + Le32(7);
        case 13:
            if (file != nullptr && noWrite.count(name) == 0)
                file->desc.replace(40, 8, body.substr(1048, 4) + Le32(StripedFlags(body)));
            return ok;
        case 20:
            return ok + Le32(file == nullptr ? 0xFFFFFFFF : file->isDirectory ? 0x10 : 0x80);
        case 21:
            if (file != nullptr && !file->isDirectory) files.erase(name);
            return ok;
        case 22: {
            uint64_t size = 0;
            if (file != nullptr) {
                for (const auto& [position, data] : file->frames)
                    size += data.size();
            }
            return ok + Le32(0) + Le64(size);
        }
        case 23:
            files[name].isDirectory = true;
            return ok;
        case 24:
            if (file != nullptr) {
                files[NameAt(body, 520)] = *file;
                files.erase(name);
            }
            return ok;
        case 25:
            for (uint32_t i = U32(body, 8); file != nullptr && i < U32(body, 12); ++i)
                if (noErase.count(i) == 0) file->frames.erase(i);
            return ok;
        default:
            return ok;
    }
}

std::string CFakeMedia::FrameDescs(const File* file, uint32_t position, uint32_t count) const {
    std::string reply = Le32(0) + Le32(count);
    for (uint32_t i = 0; i < count; ++i) {
        const bool there = !noDescs && file != nullptr && file->frames.count(position + i) != 0;
        if (!there) {
            reply.append(12, '\0');
            continue;
        }
        const bool key = file->notKeys.count(position + i) == 0;
        reply += Le32(static_cast<uint32_t>(file->frames.at(position + i).size())) +
                 Le32(key ? 3 : 2) + Le32(0x01000000);
    }
    return reply;
}

std::string CFakeMedia::ReadFrame(uint32_t trans_id, const std::string& body) {
    const uint32_t count = U32(body, 4);
    std::string table = Le32(0) + Le32(count);
    std::string payload;
    uint32_t result = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const size_t at = 16 + size_t{96} * i;
        const File* const file = OfToken(body, at + 8);
        const uint32_t position = U32(body, at + 16);
        uint32_t status = 0;
        std::string data;
        if (shortOfMemory > 0) {
            --shortOfMemory;
            status = kNoResources;
        } else if (file == nullptr) {
            status = 0x80070006;
        } else if (file->frames.count(position) == 0) {
            const bool past = file->frames.empty() || position > file->frames.rbegin()->first;
            status = past ? kEndOfMedia : 0x80040201;
        } else {
            data = file->frames.at(position);
        }
        if (status != 0) result = status;
        table += Le32(status) + Le32(0) + body.substr(at + 8, 16);
        table += Le32(1) + Le32(0xDEADBEEF) + Le32(static_cast<uint32_t>(data.size()));
        table += std::string(44, '\0') + body.substr(at + 80, 8) + Le64(0);
        payload += data;
    }
    table.resize(144 * (count - 1) + 104);
    return CommandReply(result == 0 ? 200 : 500, result == 0 ? "OK" : "Failed 0x8007044c", trans_id,
                        3, table, payload);
}

void CFakeMedia::WriteFrame(const std::string& body, const std::string& payload) {
    size_t used = 0;
    for (uint32_t i = 0; i < U32(body, 4); ++i) {
        const size_t at = 16 + size_t{96} * i;
        const uint32_t position = U32(body, at + 16);
        size_t length = 0;
        for (uint32_t k = 0; k < U32(body, at + 24); ++k)
            length += U32(body, at + 32 + size_t{8} * k);
        std::string data = payload.substr(used, length);
        used += length;
        File* const file = OfToken(body, at + 8);
        if (file == nullptr) continue;
        const std::string& name = m_tokens.at(U64(body, at + 8));
        if (dropEvery != 0 && ++m_writes % dropEvery == 0) continue;
        if (dropWrites.count({name, position}) != 0) continue;
        if (corruptWrites.count({name, position}) != 0) data.at(data.size() / 2) ^= 1;
        file->frames[position] = data;
        if ((U32(body, at + 20) & 1) != 0)
            file->notKeys.erase(position);
        else
            file->notKeys.insert(position);
    }
}
