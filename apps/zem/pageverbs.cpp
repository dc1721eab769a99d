// Verbs on the server's plain pages and files: status, clients, get. They need no join.
#include <CLI/CLI.hpp>

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/output.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

PageReply GetPage(const CommandLine& line, const char* path) {
    CHttpConnection http(line.Connection());
    http.SetStopCheck(&StopRequested);
    PageReply reply = http.Get(path);
    if (reply.status != 200) {
        throw CZemError(ErrorKind::kBadReply, std::string(path) + ": HTTP " +
                                                  std::to_string(reply.status) + " " +
                                                  Printable(reply.reason));
    }
    return reply;
}

// The next number of a blank-separated list; false when there is none that fills its word.
bool TakeNumber(std::string_view& text, int base, uint64_t& value) {
    const size_t end = text.find(' ');
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    const auto [last, error] = std::from_chars(word.data(), word.data() + word.size(), value, base);
    return !word.empty() && error == std::errc() && last == word.data() + word.size();
}

int Status(const CommandLine& line, bool as_json) {
    const PageReply page = GetPage(line, "/media/status");
    std::string_view rest = page.text;
    uint64_t failure = 0;
    uint64_t free_bytes = 0;
    uint64_t total_bytes = 0;
    if (!TakeNumber(rest, 16, failure) || !TakeNumber(rest, 10, free_bytes) ||
        !TakeNumber(rest, 10, total_bytes) || !rest.empty() || failure > 0xFFFFFFFFu) {
        throw CZemError(ErrorKind::kBadReply,
                        "this is no status page: '" + Printable(page.text.substr(0, 60)) + "'");
    }
    const auto hr = static_cast<int32_t>(static_cast<uint32_t>(failure));
    if (as_json) {
        CJson json;
        json.Open('{').Text("server", page.serverName).Unsigned("error", failure);
        json.Unsigned("free_bytes", free_bytes).Unsigned("total_bytes", total_bytes);
        PrintLine(json.Close().Str());
    } else if (hr == 0) {
        const double part = total_bytes == 0 ? 0
                                             : 100.0 * static_cast<double>(free_bytes) /
                                                   static_cast<double>(total_bytes);
        std::printf("server  %s (%s)\nfree    %s of %s (%.0f %%)\n", line.server.c_str(),
                    Printable(page.serverName).c_str(), HumanBytes(free_bytes).c_str(),
                    HumanBytes(total_bytes).c_str(), part);
    }
    if (hr == 0) return kExitOk;
    throw CZemError(ErrorKind::kRefused,
                    "the server cannot tell the space of its volume: " + HresultText(hr), hr);
}

std::vector<std::string> ClientsOf(const std::string& text) {
    std::vector<std::string> clients;
    if (text == "No Clients\r\n") return clients;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find("\r\n", at);
        if (end == std::string::npos) {
            throw CZemError(ErrorKind::kBadReply, "the client list ends inside a line");
        }
        clients.push_back(text.substr(at, end - at));
        at = end + 2;
    }
    return clients;
}

int Clients(const CommandLine& line, bool as_json) {
    const PageReply page = GetPage(line, "/media/clients");
    const std::vector<std::string> clients = ClientsOf(page.text);
    if (as_json) {
        CJson json;
        json.Open('{').Text("server", page.serverName).Open('[', "clients");
        for (const std::string& client : clients)
            json.Text({}, client);
        PrintLine(json.Close().Close().Str());
        return kExitOk;
    }
    for (const std::string& client : clients)
        PrintLine(Printable(client));
    if (clients.empty()) PrintLine("No clients");
    return kExitOk;
}

struct GetOptions {
    std::string name;
    std::string output;
    bool force = false;
    bool json = false;
};

int Get(const CommandLine& line, const GetOptions& options) {
    std::string target = options.output;
    if (target.empty()) target = std::filesystem::path(options.name).filename().string();
    if (target.empty()) throw CZemError(ErrorKind::kUsage, "say with -o where the file goes");
    if (options.json && target == "-") {
        throw CZemError(ErrorKind::kUsage, "--json needs -o FILE: the file goes to stdout");
    }
    CHttpConnection http(line.Connection());
    http.SetStopCheck(&StopRequested);
    COutputFile output(target, options.force);
    CProgress progress("get " + Printable(options.name), !line.quiet);
    uint64_t done_bytes = 0;
    int64_t total_bytes = -1;
    const PageReply reply =
        http.Download(UrlPathOf(options.name), [&](std::span<const uint8_t> piece, int64_t total) {
            output.Write(piece);
            done_bytes += piece.size();
            total_bytes = total;
            progress.Show(done_bytes, total > 0 ? static_cast<uint64_t>(total) : 0,
                          HumanBytes(done_bytes));
            return !StopRequested();
        });
    if (reply.status != 200) {
        throw CZemError(ErrorKind::kRefused,
                        Printable(options.name) + ": HTTP " + std::to_string(reply.status) + " " +
                            Printable(reply.reason) +
                            " (there is no such file below a path that the server offers, or it "
                            "cannot be read)");
    }
    if (total_bytes >= 0 && static_cast<uint64_t>(total_bytes) != done_bytes) {
        throw CZemError(ErrorKind::kBadReply, "the download is incomplete");
    }
    output.Finish();
    if (options.json) {
        CJson json;
        json.Open('{').Text("name", options.name).Text("output", target);
        json.Unsigned("bytes", done_bytes).Text("content_type", reply.contentType);
        PrintLine(json.Close().Str());
    }
    return kExitOk;
}

void AddPage(CLI::App& app, CommandLine& line, const char* name, const char* help,
             int (*run)(const CommandLine&, bool)) {
    auto as_json = std::make_shared<bool>(false);
    CLI::App* verb = app.add_subcommand(name, help);
    verb->add_flag("--json", *as_json, "Output as JSON");
    verb->callback([as_json, &line, run] {
        line.verb = [as_json, &line, run] { return run(line, *as_json); };
    });
}

}  // namespace

void AddPageVerbs(CLI::App& app, CommandLine& line) {
    AddPage(app, line, "status", "Space of the server's volume", &Status);
    AddPage(app, line, "clients", "Who is joined", &Clients);

    auto get = std::make_shared<GetOptions>();
    CLI::App* verb = app.add_subcommand(
        "get",
        "Download a whole file as it lies on the volume. An interrupted download leaves "
        "nothing behind and is never resumed");
    verb->add_option("NAME", get->name, "File on the server, below media/ or zem/")->required();
    verb->add_option("-o,--output", get->output,
                     "File here; - is stdout (default: the last part "
                     "of NAME)");
    verb->add_flag("--force", get->force, "Replace the file if it exists");
    verb->add_flag("--json", get->json, "Output as JSON");
    verb->callback([get, &line] { line.verb = [get, &line] { return Get(line, *get); }; });
}

}  // namespace zem
