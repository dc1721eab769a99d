// Verbs on a client's own place in the server: join, leave, keepalive, realtime, config. What they
// set lives as long as the client stays joined, so they want an ID and do not leave.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/output.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

struct ClientOptions {
    std::string file;
    std::string name;
    std::string value;
    bool json = false;
};

using OptionsPtr = std::shared_ptr<ClientOptions>;

void PrintDone(const CommandLine& line, const ClientOptions& options, const char* what) {
    if (!options.json) return;
    CJson json;
    PrintLine(json.Open('{').Text("client", line.clientId).Text("done", what).Close().Str());
}

int Join(const CommandLine& line, const ClientOptions& options) {
    line.RequireId("join");
    const CSession session(line, true);
    PrintDone(line, options, "join");
    return kExitOk;
}

int Leave(const CommandLine& line, const ClientOptions& options) {
    line.RequireId("leave");
    CZemClient client(line.Connection());
    client.Leave();
    PrintDone(line, options, "leave");
    return kExitOk;
}

int KeepAlive(const CommandLine& line, const ClientOptions& options) {
    line.RequireId("keepalive");
    CZemClient client(line.Connection());
    client.KeepAlive();
    PrintDone(line, options, "keepalive");
    return kExitOk;
}

int RealTime(const CommandLine& line, const ClientOptions& options) {
    line.RequireId("realtime");
    CSession session(line, true);
    session->SetIoRealTime();
    PrintDone(line, options, "realtime");
    return kExitOk;
}

// The document as UTF-16, from UTF-8 or from UTF-16 with a byte-order mark. A declaration at its
// head is dropped: the encoding that it names is that of the file, no longer that of the text which
// is sent.
std::u16string DocumentOf(const std::string& path) {
    constexpr size_t kMax_bytes = 16u << 20;
    std::ifstream in(path, std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (!in.good() && !in.eof()) throw CZemError(ErrorKind::kLocalFile, path + " cannot be read");
    if (bytes.empty())
        throw CZemError(ErrorKind::kLocalFile, path + " cannot be read, or is empty");
    if (bytes.size() > kMax_bytes) throw CZemError(ErrorKind::kLocalFile, path + " is too large");
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
    session->UpdateConfig(text);
    PrintDone(line, options, "config push");
    return kExitOk;
}

int ConfigSet(const CommandLine& line, const ClientOptions& options) {
    line.RequireId("config set");
    const std::u16string name = ToUtf16(options.name, "the attribute's name");
    const std::u16string value = ToUtf16(options.value, "the attribute's value");
    CSession session(line, true);
    session->SetConfigAttribute(name, value);
    PrintDone(line, options, "config set");
    return kExitOk;
}

OptionsPtr AddVerb(CLI::App& app, CommandLine& line, const char* name, const char* help,
                   int (*run)(const CommandLine&, const ClientOptions&),
                   CLI::App** added = nullptr) {
    auto options = std::make_shared<ClientOptions>();
    CLI::App* verb = app.add_subcommand(name, help);
    verb->add_flag("--json", options->json, "Output as JSON");
    verb->callback([options, &line, run] {
        line.verb = [options, &line, run] { return run(line, *options); };
    });
    if (added != nullptr) *added = verb;
    return options;
}

}  // namespace

void AddClientVerbs(CLI::App& app, CommandLine& line) {
    AddVerb(app, line, "join", "Join as --id and stay", &Join);
    AddVerb(app, line, "leave", "End what --id has on the server: its open files are closed",
            &Leave);
    AddVerb(app, line, "keepalive", "Tell the server that --id is alive", &KeepAlive);
    AddVerb(app, line, "realtime", "Make --id the client whose frames go first", &RealTime);

    CLI::App* config = app.add_subcommand(
        "config", "Configuration of the channel of --id. It holds until the client leaves");
    config->require_subcommand(0, 1);
    CLI::App* verb = nullptr;
    OptionsPtr options =
        AddVerb(*config, line, "push", "Send a whole configuration", &ConfigPush, &verb);
    verb->add_option("FILE", options->file, "XML document, UTF-8 or UTF-16")->required();
    options = AddVerb(*config, line, "set",
                      "Set one attribute. The protocol does not tell whether the server took it: "
                      "a refusal is in its log only",
                      &ConfigSet, &verb);
    verb->add_option("NAME", options->name, "Attribute")->required();
    verb->add_option("VALUE", options->value, "Its new value")->required();
}

}  // namespace zem
