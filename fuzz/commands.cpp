// Commands through the real dispatcher: a session of several requests by a few clients. The input
// says what each request is made of, field by field, so that a name or a token costs a byte; then
// any of the body's bytes may be changed, its declared size may lie, and it may arrive in pieces or
// not at all. What is checked is in commandserver.cpp: each request is answered once, an answer is
// as long as it says, and when everybody has left all is back.
#include "fuzz/commandserver.h"
#include "fuzz/fuzz.h"
#include "zemhttpd/commands/commandtable.h"

using fuzz::CReader;

namespace {

constexpr size_t kMostRequests = 40;
constexpr size_t kMostBody = 1 << 20;

// The fields of each command's body. N: a name, E: a stream's description, Q: a token, d: 32 bits,
// b: a byte, R and W: a frame request (W with the frames' data), X: text that fills the rest.
constexpr const char* kBodies[] = {
    "",        // none
    "NNEd",    // CREATE_FILE
    "NNddbb",  // OPEN_FILE
    "R",       // READ_FRAME
    "W",       // WRITE_FRAME
    "Q",       // CLOSE_FILE
    "Q",       // GET_FILE_INFO
    "NNdd",    // GET_FILE_INFO2
    "Qddd",    // GET_FRAME_DESC
    "NNdddd",  // GET_FRAME_DESC2
    "Q",       // FLUSH_BUFFERS
    "Q",       // GET_FILE_MARKS
    "NNdd",    // GET_FILE_MARKS2
    "NNdddd",  // STRIPE_TIMECODE
    "X",       // UPDATE_CFG
    "d",       // JOIN
    "",        // LEAVE
    "",        // KEEP_ALIVE
    "d",       // SET_IO_REAL_TIME
    "N",       // QUERY_FILESYSTEM_SPACE
    "N",       // GET_FILE_ATTRIBS
    "N",       // DELETE_FILE
    "N",       // GET_FILESIZE
    "N",       // CREATE_DIRECTORY
    "NN",      // MOVE_FILE
    "Qddd",    // ERASE_SEGMENT
    "NX",      // UPDATE_CFG_ATTR_STR
};
static_assert(std::size(kBodies) == kCommandCount + 1);
constexpr uint8_t kOpenFile = 2;

constexpr const char16_t* kNames[] = {
    u"",     u"a",         u"b",      u"dir",       u"dir/a", u"dir\\deep\\a", u"../a",
    u"..",   u"/a",        u"v0",     u"a0",        u"tc",    u"mk",           u"d0",
    u".tmp", u"frameRate", u"a/../b", u"readAhead", u"C:\\a", u"a:b",          u"%s%n%9999x",
};
constexpr const char* kClients[] = {"a", "b", "%s%n%x", "client with a rather longer name"};
constexpr uint32_t kNumbers[] = {0xFFFFFFFF, 0xFFFFFFFE, 0x7FFFFFFF, 0x80000000, 0xFFFF,
                                 0x10000,    0x100000,   341,        22,         23};
constexpr const char* kVerbs[] = {"GET", "DELETE", "HEAD", "PUT", "OPTIONS", "POST"};

enum Flag : uint8_t {
    kChunked = 1,
    kGone = 2,
    kRefused = 4,
    kLies = 8,     // declares another size
    kPieces = 16,  // arrives in pieces
    kPatched = 32,
    kCut = 64,
    kNoClient = 128,
};

class CSession {
public:
    explicit CSession(CReader& input) : m_input(input) {}
    void Run();

private:
    void Command(uint8_t code);
    void Plain();
    void Field(char kind);
    void Name();
    uint32_t Number();
    uint64_t Token();
    void FrameRequest(bool write);
    void Put(const void* bytes, size_t size) {
        m_body.append(static_cast<const char*>(bytes), size);
    }
    template <class T>
    void PutNumber(T number) {
        Put(&number, sizeof number);
    }
    void Patch();

    CReader& m_input;
    std::string m_body;
    std::string m_data;  // of the frames
    std::vector<uint64_t> m_tokens;
};

uint32_t CSession::Number() {
    const auto choice = m_input.Take<uint8_t>();
    if (choice < 0xF0) return choice;
    if (choice == 0xFF) return m_input.Take<uint32_t>();
    return kNumbers[(choice - 0xF0) % std::size(kNumbers)];
}

uint64_t CSession::Token() {
    const auto choice = m_input.Take<uint8_t>();
    if (choice >= 0xF0) return m_input.Take<uint64_t>();
    return m_tokens.empty() ? choice : m_tokens[choice % m_tokens.size()];
}

void CSession::Name() {
    const auto choice = m_input.Take<uint8_t>();
    std::u16string name;
    if (choice < std::size(kNames)) {
        name = kNames[choice];
    } else if (choice == 0xFF) {
        name = fuzz::CCommandServer::Instance().Root() + u"/a";
    } else {
        for (const char c : m_input.TakeBytes(choice - std::size(kNames))) {
            name += static_cast<unsigned char>(c) < 0x80
                        ? static_cast<char16_t>(c)
                        : static_cast<char16_t>(static_cast<unsigned char>(c) * 0x101);
        }
    }
    name.resize(size_t{kNameUnits}, u'\0');
    Put(name.data(), kNameUnits * sizeof(char16_t));
}

void CSession::FrameRequest(bool write) {
    PutNumber(Number());
    const uint32_t count = Number();
    PutNumber(count);
    PutNumber(uint64_t{0});
    for (uint32_t i = 0; i < std::min(count, 24u); ++i) {
        PutNumber(uint64_t{0});
        PutNumber(Token());
        PutNumber(Number());  // position
        PutNumber(Number());  // flags
        const uint32_t buffers = Number();
        PutNumber(uint64_t{buffers});
        for (uint32_t k = 0; k < 6; ++k) {
            const uint32_t length = k < buffers ? Number() : 0;
            PutNumber(uint64_t{length});
            if (write && length <= 0x10000) m_data.append(length, static_cast<char>('A' + i));
        }
        PutNumber(uint64_t{i});
        PutNumber(uint64_t{i});
    }
}

void CSession::Field(char kind) {
    switch (kind) {
        case 'N':
            return Name();
        case 'Q':
            return PutNumber(Token());
        case 'd':
            return PutNumber(Number());
        case 'b':
            return PutNumber(m_input.Take<uint8_t>());
        case 'E': {
            PutNumber(uint32_t{(1u << 16) | 56u});
            PutNumber(uint32_t{m_input.Take<uint8_t>()});  // media type
            for (int i = 0; i < 12; ++i)
                PutNumber(i == 1 ? 25u : i == 2 ? 1u : 0u);
            break;
        }
        case 'X':
            for (const char c : m_input.TakeBytes(m_input.Take<uint8_t>()))
                PutNumber(static_cast<char16_t>(static_cast<unsigned char>(c)));
            PutNumber(char16_t{0});
            break;
        default:
            FrameRequest(kind == 'W');
    }
}

// Changes bytes wherever they are.
void CSession::Patch() {
    for (int count = m_input.Take<uint8_t>() % 8; count > 0; --count) {
        const size_t at = m_input.Take<uint16_t>();
        const auto byte = m_input.Take<uint8_t>();
        if (at < m_body.size()) m_body[at] = static_cast<char>(byte);
    }
}

void CSession::Command(uint8_t code) {
    const char* const client = kClients[m_input.Take<uint8_t>() % std::size(kClients)];
    const auto flags = m_input.Take<uint8_t>();
    m_body.clear();
    m_data.clear();
    for (const char* field = code < std::size(kBodies) ? kBodies[code] : "X"; *field; ++field)
        Field(*field);
    if (flags & kPatched) Patch();
    if (flags & kCut) m_body.resize(std::min<size_t>(m_body.size(), m_input.Take<uint16_t>()));
    uint32_t declared = static_cast<uint32_t>(m_body.size());
    if (flags & kLies) declared = Number();

    fuzz::CCommandServer::Request request;
    const uint32_t header[] = {7, code, declared};
    request.body.assign(reinterpret_cast<const char*>(header), sizeof header);
    request.body += m_body + m_data;
    if (request.body.size() > kMostBody) return;
    request.gone = flags & kGone;
    request.refuse = flags & kRefused;
    if (flags & kPieces) request.received_bytes = m_input.Take<uint16_t>();
    request.head = "POST /zem/ HTTP/1.1\r\nHost: h\r\n";
    request.head += flags & kChunked
                        ? "Transfer-Encoding: chunked\r\n"
                        : "Content-Length: " + std::to_string(request.body.size()) + "\r\n";
    if (!(flags & kNoClient)) request.head += "Zem-Id: " + std::string(client) + "\r\n";
    request.head += "User-Agent: Fuzz (Suite/1.2.3.4)\r\n\r\n";

    fuzz::Answer answer;
    if (!fuzz::CCommandServer::Instance().Run(request, answer)) return;
    constexpr size_t kToken = 12 + 8;
    if ((code == 1 || code == kOpenFile) && answer.body.size() >= kToken + sizeof(uint64_t)) {
        uint64_t token = 0;
        std::memcpy(&token, answer.body.data() + kToken, sizeof token);
        if (token != 0) m_tokens.push_back(token);
    }
}

// A request that is no command: a page, a file.
void CSession::Plain() {
    fuzz::CCommandServer::Request request;
    request.head = kVerbs[m_input.Take<uint8_t>() % std::size(kVerbs)];
    request.head +=
        " /" + std::string(m_input.TakeBytes(m_input.Take<uint8_t>())) + " HTTP/1.1\r\nHost: h\r\n";
    request.head += std::string(m_input.TakeBytes(m_input.Take<uint8_t>())) + "\r\n\r\n";
    fuzz::Answer answer;
    fuzz::CCommandServer::Instance().Run(request, answer);
}

void CSession::Run() {
    for (size_t i = 0; i < kMostRequests && !m_input.AtEnd(); ++i) {
        const auto code = m_input.Take<uint8_t>();
        if (code == 0xFE)
            Plain();
        else
            Command(code);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CReader input(data, size);
    CSession(input).Run();
    fuzz::CCommandServer::Instance().Reset();
    return 0;
}
