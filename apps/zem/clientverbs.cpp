// Verbs on a client's own place in the server: join, leave, keepalive, realtime, config. What they
// set lives as long as the client stays joined, so they want an ID and do not leave.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/output.h"
#include "apps/zem/session.h"
#include "apps/zem/terminal.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

struct ClientOptions {
    std::string file;
    std::string name;
    std::string value;
    bool force = false;
};

int Join(const CommandLine& line, const ClientOptions&) {
    line.RequireId("join");
    const CSession session(line, true);
    PrintDone(line, "join", {{"client", line.clientId}});
    return kExitOk;
}

int Leave(const CommandLine& line, const ClientOptions&) {
    line.RequireId("leave");
    CZemClient client(line.Connection());
    client.Leave();
    PrintDone(line, "leave", {{"client", line.clientId}});
    return kExitOk;
}

int KeepAlive(const CommandLine& line, const ClientOptions&) {
    line.RequireId("keepalive");
    CZemClient client(line.Connection());
    client.KeepAlive();
    PrintDone(line, "keepalive", {{"client", line.clientId}});
    return kExitOk;
}

int RealTime(const CommandLine& line, const ClientOptions&) {
    line.RequireId("realtime");
    CSession session(line, true);
    session->SetIoRealTime();
    PrintDone(line, "realtime", {{"client", line.clientId}});
    return kExitOk;
}

[[noreturn]] void ThrowUnread(const std::string& path, const std::string& why) {
    throw CZemError(ErrorKind::kLocalFile, Printable(path) + ": cannot be read: " + why);
}

// At most `max_bytes` of a file, a pipe, or stdin for "-". A pipe is opened without waiting for its
// writer: the wait for its data is the one that a signal ends.
std::string ReadUpTo(const std::string& path, size_t max_bytes) {
    const int fd =
        path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) ThrowUnread(path, std::strerror(errno));
    const std::unique_ptr<const int, void (*)(const int*)> closed(
        &fd, [](const int* of) { close(*of); });
    std::string bytes(max_bytes, '\0');
    size_t size = 0;
    while (size < bytes.size()) {
        if (!WaitForInput(fd)) throw CZemError(ErrorKind::kInterrupted, "stopped");
        const ssize_t got = read(fd, bytes.data() + size, bytes.size() - size);
        if (got == 0) break;
        if (got > 0)
            size += static_cast<size_t>(got);
        else if (errno != EINTR && errno != EAGAIN)
            ThrowUnread(path, std::strerror(errno));
    }
    bytes.resize(size);
    return bytes;
}

// The document as UTF-16, from UTF-8 or from UTF-16 with a byte-order mark. A declaration at its
// head is dropped: the encoding that it names is that of the file, no longer that of the text which
// is sent.
std::u16string DocumentOf(const std::string& path) {
    constexpr size_t kMax_bytes = 16u << 20;
    std::string bytes = ReadUpTo(path, kMax_bytes + 1);
    if (bytes.empty()) throw CZemError(ErrorKind::kLocalFile, Printable(path) + ": is empty");
    if (bytes.size() > kMax_bytes)
        throw CZemError(ErrorKind::kLocalFile, Printable(path) + ": is larger than 16 MiB");
    std::u16string text;
    const bool little = bytes.starts_with("\xFF\xFE");
    if (little || bytes.starts_with("\xFE\xFF")) {
        for (size_t at = 2; at + 1 < bytes.size(); at += 2) {
            const auto first = static_cast<uint8_t>(bytes[at]);
            const auto second = static_cast<uint8_t>(bytes[at + 1]);
            text.push_back(
                static_cast<char16_t>(little ? first | second << 8 : first << 8 | second));
        }
    } else {
        if (bytes.starts_with("\xEF\xBB\xBF")) bytes.erase(0, 3);
        text = ToUtf16(bytes, path.c_str());
    }
    if (text.starts_with(u"<?xml ")) {
        const size_t end = text.find(u"?>");
        if (end != std::u16string::npos) text.erase(0, end + 2);
    }
    return text;
}

int ConfigPush(const CommandLine& line, const ClientOptions& options) {
    line.RequireId("config push");
    const std::u16string text = DocumentOf(options.file);
    CSession session(line, true);
    try {
        session->UpdateConfig(text);
    } catch (const CZemError& error) {
        // The same answer as to a client that has not joined, whose volume has no space either.
        if (error.Hr() != kHrInvalidArg || session->Space(u"").total_bytes == 0) throw;
        throw CZemError(error.Kind(),
                        Printable(options.file) +
                            ": the server refused it: it is no XML document, or has an element, "
                            "an attribute or a value that the server does not know; it is to be "
                            "<channelConfig> with what zem config set takes, such as "
                            "<channelConfig frameRate=\"25\" readAhead=\"auto\"/>",
                        error.Hr());
    }
    PrintDone(line, "config push", {{"client", line.clientId}});
    return kExitOk;
}

constexpr const char* kFrameRates[] = {"file", "23.976", "24",    "25", "29.97",
                                       "30",   "50",     "59.94", "60"};

bool IsReadAhead(const std::string& value) {
    if (value == "auto") return true;
    return !value.empty() && value.size() <= 2 &&
           value.find_first_not_of("0123456789") == std::string::npos && std::stoi(value) <= 64;
}

// The server does not say whether it took an attribute: so what the media library that comes with
// it would not take is told here. Empty: it takes it.
std::string WhyNotTaken(const ClientOptions& options) {
    const bool rate = options.name == "frameRate";
    if (!rate && options.name != "readAhead")
        return Printable(options.name) + " is not an attribute";
    const bool good = rate ? std::ranges::find(kFrameRates, options.value) != std::end(kFrameRates)
                           : IsReadAhead(options.value);
    return good ? "" : Printable(options.value) + " is not a " + options.name;
}

int ConfigSet(const CommandLine& line, const ClientOptions& options) {
    line.RequireId("config set");
    const std::u16string name = ToUtf16(options.name, "the attribute's name");
    const std::u16string value = ToUtf16(options.value, "the attribute's value");
    const std::string why = options.force ? "" : WhyNotTaken(options);
    if (!why.empty()) {
        throw CZemError(ErrorKind::kUsage,
                        why +
                            ": not sent, for zemhost would not take it; see zem config set "
                            "--help, and --force for a host of your own");
    }
    CSession session(line, true);
    session->SetConfigAttribute(name, value);
    PrintDone(line, "config set", {{"client", line.clientId}});
    return kExitOk;
}

}  // namespace

void AddClientVerbs(CVerb program, CommandLine& line) {
    const VerbGroup group{program, line, "Being a client"};
    const auto none = std::make_shared<ClientOptions>();
    group.Add("join", "Join as --id and stay", none, &Join);
    group.Add("leave", "End what --id has on the server: its open files are closed", none, &Leave);
    group.Add("keepalive", "Tell the server that --id is alive", none, &KeepAlive);
    group.Add("realtime", "Make --id the client whose frames go first", none, &RealTime);

    const CVerb config = program.AddParent(
        "config", "Configuration of the channel of --id. It holds until the client leaves",
        group.title);
    const VerbGroup below{config, line, "Configuration"};
    auto push = std::make_shared<ClientOptions>();
    CVerb verb =
        below.Add("push", "Send a whole configuration for the channel of --id", push, &ConfigPush);
    verb.Place("FILE", push->file,
               "XML document, UTF-8 or UTF-16, such as `<channelConfig frameRate=\"25\"/>`")
        .File()
        .Required();
    auto set = std::make_shared<ClientOptions>();
    verb = below.Add("set",
                     "Set one attribute of the channel of --id. The protocol does not tell whether "
                     "the server took it: a refusal is in its log only. `config push` does tell",
                     set, &ConfigSet);
    verb.Place("NAME", set->name, "Attribute: frameRate or readAhead").Required();
    verb.Place("VALUE", set->value,
               "Its new value. frameRate: file, 23.976, 24, 25, 29.97, 30, 50, 59.94 or 60; "
               "readAhead: auto or 0 to 64")
        .Required();
    verb.Flag("--force", set->force,
              "Send what zemhost does not take: a host with a media library of its own may");
}

}  // namespace zem
