// Verbs on the server's plain pages and files: status, clients, get. They need no join; only a get
// that is refused has a client ask why.
#include <cstdio>
#include <filesystem>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/localfile.h"
#include "apps/zem/output.h"
#include "apps/zem/reasons.h"
#include "apps/zem/serverpages.h"
#include "apps/zem/terminal.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

int Status(const CommandLine& line) {
    CHttpConnection http(line.Connection());
    http.SetStopCheck(&StopRequested);
    const VolumeStatus status = GetStatus(http);
    if (line.json) {
        CJson json;
        json.Open('{').Text("server", status.serverName);
        json.Unsigned("error", static_cast<uint32_t>(status.hr));
        json.Unsigned("free_bytes", status.free_bytes);
        PrintLine(json.Unsigned("total_bytes", status.total_bytes).Close().Str());
    }
    if (!status.Known()) {
        // With --json the object above tells it already.
        if (!line.json) throw CZemError(ErrorKind::kRefused, StatusFailureText(status), status.hr);
        return kExitFailed;
    }
    if (line.json) return kExitOk;
    const double part =
        100.0 * static_cast<double>(status.free_bytes) / static_cast<double>(status.total_bytes);
    std::printf("server  %s (%s)\nfree    %s of %s (%.0f %%)\n", line.server.c_str(),
                Printable(status.serverName).c_str(), HumanBytes(status.free_bytes).c_str(),
                HumanBytes(status.total_bytes).c_str(), part);
    return kExitOk;
}

int Clients(const CommandLine& line) {
    CHttpConnection http(line.Connection());
    http.SetStopCheck(&StopRequested);
    const ClientList list = GetClients(http);
    if (line.json) {
        CJson json;
        json.Open('{').Text("server", list.serverName).Open('[', "clients");
        for (const std::string& client : list.ids)
            json.Text({}, client);
        PrintLine(json.Close().Bool("perhaps_more", list.perhapsMore).Close().Str());
        return kExitOk;
    }
    for (const std::string& client : list.ids)
        PrintLine(Printable(client));
    if (list.ids.empty()) PrintLine("No clients");
    if (list.perhapsMore)
        std::fprintf(stderr, "zem: the server's page is full: there may be more clients\n");
    return kExitOk;
}

struct GetOptions {
    std::string name;
    std::string output;
    bool force = false;
};

int Get(const CommandLine& line, const GetOptions& options) {
    if (PageHidesFile(options.name)) {
        throw CZemError(ErrorKind::kUsage, "a page of the server hides the files of this name: '" +
                                               Printable(options.name) +
                                               "'; zem read takes its frames, zem mv another name");
    }
    std::string target = options.output;
    if (target.empty()) target = std::filesystem::path(options.name).filename().string();
    if (target.empty()) throw CZemError(ErrorKind::kUsage, "say with -o where the file goes");
    if (line.json && target == "-")
        throw CZemError(ErrorKind::kUsage, "--json needs -o FILE: the file goes to stdout");
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
            progress.Show(done_bytes, total > 0 ? static_cast<uint64_t>(total) : 0, 0, done_bytes);
            return !StopRequested();
        });
    if (reply.status != 200) {
        throw RefusedByHttp(Printable(options.name) + " was not sent", reply,
                            WhyNotServed(line, options.name, &WhyNotSent));
    }
    if (total_bytes >= 0 && static_cast<uint64_t>(total_bytes) != done_bytes)
        throw CZemError(ErrorKind::kBadReply, "the download is incomplete");
    output.Finish();
    if (line.json) {
        CJson json;
        json.Open('{').Text("name", options.name).Text("output", target);
        json.Unsigned("bytes", done_bytes).Text("content_type", reply.contentType);
        PrintLine(json.Close().Str());
    }
    return kExitOk;
}

}  // namespace

void AddPageVerbs(CVerb program, CommandLine& line) {
    const VerbGroup group{program, line, "The server"};
    group.Add("status", "Space of the server's volume", [&line] { return Status(line); });
    group.Add("clients", "Who is joined", [&line] { return Clients(line); });

    auto get = std::make_shared<GetOptions>();
    const CVerb verb = VerbGroup{program, line, "Files"}.Add(
        "get",
        "Download a whole file as it lies on the volume. An interrupted download leaves "
        "nothing behind and is never resumed. A file whose name begins with media/status or "
        "media/clients is hidden by a page of the server and refused",
        [get, &line] { return Get(line, *get); });
    verb.Place("NAME", get->name, "File on the server, below media/ or zem/").Required();
    verb.Option("-o,--output", kTypeFile, get->output,
                "File here; - is stdout (default: the last part of NAME)");
    verb.Flag("--force", get->force, "Replace the file if it exists");
}

}  // namespace zem
