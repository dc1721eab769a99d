// zem doctor: what a person would try one after another when something does not work, with what to
// do about each finding. It leaves nothing behind, no folder either.
#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "apps/generated/version.h"
#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/latency.h"
#include "apps/zem/nearestfolder.h"
#include "apps/zem/output.h"
#include "apps/zem/reasons.h"
#include "apps/zem/serverpages.h"
#include "apps/zem/session.h"
#include "apps/zem/terminal.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

enum class Finding { kOk, kWarn, kFail, kSkip };

struct FindingWords {
    const char* word;
    Colour colour;
};
constexpr std::array<FindingWords, 4> kFindings = {{{"ok", Colour::kGreen},
                                                    {"warn", Colour::kYellow},
                                                    {"fail", Colour::kRed},
                                                    {"skip", Colour::kDim}}};

constexpr const char* kMakeRoom = "delete what is not needed: zem rm, or on the server";
constexpr const char* kOtherFolder = "name a folder that the server may have, with --folder FOLDER";
constexpr const char* kInLog = "the server's log has the reason";

// What to do where the reason is certain.
struct ReasonAdvice {
    std::string_view reason;
    const char* advice;
};
constexpr std::array<ReasonAdvice, 4> kReasonAdvice = {{{kReasonFull, kMakeRoom},
                                                        {kReasonNoFolder, kOtherFolder},
                                                        {kReasonFolder, kOtherFolder},
                                                        {kReasonBadName, kOtherFolder}}};

// `otherwise`: where nobody knows.
const char* AdviceFor(const char* reason, const char* otherwise) {
    if (reason == nullptr) return otherwise;
    for (const ReasonAdvice& one : kReasonAdvice)
        if (one.reason == reason) return one.advice;
    return "";
}

// What a request took, for people.
std::string TextOf(std::chrono::steady_clock::duration took) {
    return LatencyText(std::chrono::duration<double, std::micro>(took).count());
}

// GET reaches what lies below the two prefixes that the server registers, in any case.
bool ReachedByGet(std::string_view name) {
    std::string first(name.substr(0, name.find('/')));
    for (char& letter : first)
        if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter + 32);
    return first == "media" || first == "zem";
}

struct DoctorOptions {
    std::string folder = "media";
    bool readOnly = false;
};

class CDoctor {
public:
    CDoctor(const CommandLine& line, const DoctorOptions& options)
        : m_line(line), m_options(options), m_connection(line.Connection()) {}
    int Run();

private:
    void Say(Finding finding, const char* check, const std::string& text,
             const std::string& advice = {});
    // Runs one check; what it throws is its finding. False when it failed. `toStranger` is the
    // advice where what answers does not keep to the protocol; without it, it is the same.
    template <typename Check>
    bool Try(const char* check, const char* advice, Check run, const char* toStranger = nullptr);
    void Reach();
    std::string Software() const;
    void Versions();
    void Clock();
    void Join();
    void Volume(bool joined);
    void Frames();
    void WriteAndRead(const NearestFolder& folder);
    void Download();
    void Delete();

    const CommandLine& m_line;
    const DoctorOptions& m_options;
    const ConnectionOptions m_connection;
    std::unique_ptr<CZemClient> m_client;
    PageReply m_status;  // the status page with its headers
    std::time_t m_askedAt = 0;
    std::time_t m_answeredAt = 0;
    std::string m_name;  // of the file that it writes
    std::array<uint64_t, kFindings.size()> m_count{};
    int m_exit = kExitOk;
    CJson m_json;
};

void CDoctor::Say(Finding finding, const char* check, const std::string& text,
                  const std::string& advice) {
    const FindingWords& words = kFindings[static_cast<size_t>(finding)];
    ++m_count[static_cast<size_t>(finding)];
    if (finding == Finding::kFail && m_exit == kExitOk) m_exit = kExitFailed;
    if (m_line.json) {
        m_json.Open('{').Text("check", check).Text("result", words.word).Text("text", text);
        if (advice.empty())
            m_json.Null("advice").Close();
        else
            m_json.Text("advice", advice).Close();
        return;
    }
    std::string word = words.word;
    word.resize(4, ' ');
    std::printf("%s  %-11s %s\n", Painted(Stream::kOut, words.colour, word).c_str(), check,
                text.c_str());
    if (!advice.empty()) std::printf("                  -> %s\n", advice.c_str());
    std::fflush(stdout);
}

template <typename Check>
bool CDoctor::Try(const char* check, const char* advice, Check run, const char* toStranger) {
    try {
        run();
        return true;
    } catch (const CZemError& error) {
        if (error.Kind() == ErrorKind::kInterrupted) throw;
        // Without an answer, or with one of another kind of server, nothing else can be found out.
        if (error.Kind() == ErrorKind::kUnreachable) m_exit = kExitUnreachable;
        if (error.Kind() == ErrorKind::kBadReply && m_exit == kExitOk) m_exit = kExitBadReply;
        const bool stranger = error.Kind() == ErrorKind::kBadReply && toStranger != nullptr;
        const char* const todo = stranger ? toStranger : advice;
        Say(Finding::kFail, check, error.what(), AdviceFor(error.Reason(), todo));
        return false;
    }
}

void CDoctor::Reach() {
    CHttpConnection& http = m_client->Http();
    m_askedAt = std::time(nullptr);
    m_status = http.Get("/media/status");
    m_answeredAt = std::time(nullptr);
    if (m_status.status != 200) {
        throw CZemError(ErrorKind::kBadReply,
                        m_line.server + Software() + " answers /media/status with " +
                            std::to_string(m_status.status) + " " + Printable(m_status.reason));
    }
    // Once more on the connection that now stands: what a request takes without connecting.
    const auto start = std::chrono::steady_clock::now();
    try {
        GetStatus(http);
    } catch (const CZemError& error) {
        if (error.Kind() != ErrorKind::kBadReply) throw;
        throw CZemError(error.Kind(),
                        m_line.server + Software() + " answers /media/status, but " + error.what());
    }
    const auto took = std::chrono::steady_clock::now() - start;
    const std::string text =
        m_line.server + " (" + Printable(m_status.serverName) + ") answers in " + TextOf(took);
    if (took > std::chrono::milliseconds(100)) {
        Say(Finding::kWarn, "reach", text,
            "that is slow for a command a frame: look at the network between, or at its load");
    } else {
        Say(Finding::kOk, "reach", text);
    }
}

// Who answered, in the words of its Server header.
std::string CDoctor::Software() const {
    return m_status.software.empty() ? "" : " (" + Printable(m_status.software) + ")";
}

// "Quorvane ZEM /0.1.0": what stands behind the slash. Windows adds its own name to it, and a proxy
// puts its own there.
void CDoctor::Versions() {
    constexpr std::string_view kProduct = "Quorvane ZEM /";
    const std::string& software = m_status.software;
    const bool ours = software.compare(0, kProduct.size(), kProduct) == 0;
    if (!ours && !software.empty()) {
        Say(Finding::kWarn, "versions",
            "server unknown, behind " + Printable(software) + ", zem " + kZemVersion,
            "let the proxy between pass the header Server on");
        return;
    }
    const std::string version =
        ours ? software.substr(kProduct.size(),
                               software.find(' ', kProduct.size()) - kProduct.size())
             : "";
    const std::string text =
        "server " + (version.empty() ? "unknown" : Printable(version)) + ", zem " + kZemVersion;
    if (version == kZemVersion) {
        Say(Finding::kOk, "versions", text);
    } else if (version.empty() || version == "x.x.x.x") {
        Say(Finding::kWarn, "versions", text,
            "the server does not know its version: set the registry value \"version\"");
    } else {
        Say(Finding::kWarn, "versions", text,
            "install the same release on both, unless all works: the server only logs it");
    }
}

void CDoctor::Clock() {
    const std::time_t theirs = curl_getdate(m_status.date.c_str(), nullptr);
    if (theirs == -1) {
        Say(Finding::kWarn, "clock", "the server does not tell its time",
            "is there a proxy between?");
        return;
    }
    // It told its time somewhere between question and answer.
    const double apart = std::difftime(theirs, std::clamp(theirs, m_askedAt, m_answeredAt));
    const std::string text = apart == 0
                                 ? "the server's is this machine's"
                                 : "the server's is " + DurationText(std::fabs(apart)) +
                                       (apart > 0 ? " ahead of" : " behind") + " this machine's";
    // The header tells whole seconds.
    if (std::fabs(apart) <= 2) {
        Say(Finding::kOk, "clock", text);
    } else {
        Say(Finding::kWarn, "clock", text,
            "let both follow a time server (timedatectl): else times in logs do not match");
    }
}

// The page's numbers are some seconds old, and a server without them may have them by now: who has
// joined asks anew.
void CDoctor::Volume(bool joined) {
    VolumeStatus status = GetStatus(m_client->Http());
    const VolumeSpace now = joined ? m_client->Space(u"") : VolumeSpace{};
    if (now.total_bytes != 0) {
        status.hr = 0;
        status.free_bytes = now.free_bytes;
        status.total_bytes = now.total_bytes;
    }
    if (!status.Known()) {
        Say(Finding::kFail, "volume", StatusFailureText(status),
            "look at the volume root: zemhost --settings tells which it is");
        return;
    }
    const double part =
        static_cast<double>(status.free_bytes) / static_cast<double>(status.total_bytes);
    std::array<char, 16> percent{};
    std::snprintf(percent.data(), percent.size(), " (%.0f %%)", part * 100);
    const std::string text = HumanBytes(status.free_bytes) + " free of " +
                             HumanBytes(status.total_bytes) + percent.data();
    if (part < 0.01) {
        Say(Finding::kFail, "volume", text, kMakeRoom);
    } else {
        Say(part < 0.1 ? Finding::kWarn : Finding::kOk, "volume", text,
            part < 0.1 ? kMakeRoom : "");
    }
}

void CDoctor::Join() {
    m_client->Join(m_line.channel);
    m_client->KeepAlive();
    const ClientList list = GetClients(m_client->Http());
    const bool listed =
        std::find(list.ids.begin(), list.ids.end(), m_connection.clientId) != list.ids.end();
    if (listed || list.perhapsMore) {
        Say(Finding::kOk, "join",
            "joined; " + std::string(list.perhapsMore ? "at least " : "") +
                Counted(list.ids.size(), "client") + " with this one");
        return;
    }
    Say(Finding::kFail, "join", "the server answered the join, but does not list this client",
        "the server's log has the reason; 65,536 clients are its limit");
}

void CDoctor::Frames() {
    const NearestFolder folder = FindNearestFolder(*m_client, m_options.folder);
    try {
        WriteAndRead(folder);
    } catch (const CZemError& error) {
        if (error.Kind() != ErrorKind::kRefused) throw;
        Why why = WhyNotNamed(*m_client, PathIn(folder.path, "file"));
        if (why.text.empty()) why = IfVolumeIsFull(*m_client);
        throw Explained(error, why);
    }
}

void CDoctor::WriteAndRead(const NearestFolder& folder) {
    m_name = PathIn(folder.path, "zem-doctor" + DefaultClientId().substr(3));
    ZemEsDesc desc{};
    desc.sizeVersion = kEsDescVersion1;
    desc.mediaType = kMediaFileVideo;  // frames of data travel in another way
    desc.codec = 0x74736574;           // test
    desc.rateNumerator = 25;
    desc.rateDenominator = 1;
    uint64_t token = 0;
    try {
        token = m_client->Create(FileNamed(m_name).name, u"", desc,
                                 kFileRead | kFileWrite | kFileCreateNew);
    } catch (...) {
        m_name.clear();
        throw;
    }
    COpenFile file(*m_client, token);
    std::vector<uint8_t> data(65536);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 31 >> 3);
    WriteEntry write;
    write.token = token;
    write.bufferLengths_bytes = {static_cast<uint32_t>(data.size())};
    const auto start = std::chrono::steady_clock::now();
    m_client->WriteFrames({&write, 1}, data);
    m_client->Flush(token);
    const auto took = std::chrono::steady_clock::now() - start;
    const StreamFrame& frame = ReadOneFrame(*m_client, token, 0);
    if (frame.status < 0) {
        throw CZemError(ErrorKind::kRefused,
                        "a frame that was written cannot be read: " + HresultText(frame.status),
                        frame.status);
    }
    if (!std::equal(frame.data.begin(), frame.data.end(), data.begin(), data.end()))
        throw CZemError(ErrorKind::kRefused, "a frame reads back with other contents");
    file.Close();
    Say(Finding::kOk, "frames",
        "a frame was written, on the device after " + TextOf(took) + ", and read back" +
            folder.note);
}

void CDoctor::Download() {
    if (!ReachedByGet(m_name)) {
        Say(Finding::kSkip, "download",
            "not tried: by design GET reaches only what lies in media and zem");
        return;
    }
    if (PageHidesFile(m_name)) {
        Say(Finding::kSkip, "download", "not tried: a page of the server hides files of this name");
        return;
    }
    const PageReply reply = m_client->Http().Get(UrlPathOf(m_name));
    if (reply.status == 200) {
        Say(Finding::kOk, "download", "files are served by plain GET");
        return;
    }
    Say(Finding::kFail, "download",
        "GET of a file answers " + std::to_string(reply.status) + " " + Printable(reply.reason),
        "is the volume root set in the registry (zemhost --settings), and may the service read "
        "there?");
}

void CDoctor::Delete() {
    const std::u16string name = FileNamed(m_name).name;
    m_client->Remove(name);
    if (m_client->Attributes(name) != kNoAttributes)
        throw CZemError(ErrorKind::kRefused, Printable(m_name) + " was not deleted");
    m_name.clear();
    Say(Finding::kOk, "delete", "the file is gone again");
}

int CDoctor::Run() {
    constexpr const char* kNoRights =
        "may the service's user write there? The server's log has the reason";
    m_client = std::make_unique<CZemClient>(m_connection);
    m_client->Http().SetStopCheck(&StopRequested);
    if (m_line.json) m_json.Open('{').Text("server", m_line.server).Open('[', "checks");
    const auto reached = [this] { return m_exit != kExitUnreachable && m_exit != kExitBadReply; };
    Try(
        "reach",
        "is zemhost running there (systemctl status zemhttpd), is the port right (--server "
        "http://HOST:PORT), does it listen on that address (--listen), is a firewall between?",
        [this] { Reach(); },
        "another program has that port, or a proxy stands before it: name the right one with "
        "--server http://HOST:PORT (on the server, zemhost --settings tells its port, and ss -ltnp "
        "who listens where); 503 comes from a server with too much to do, too");
    if (reached()) {
        Versions();
        Clock();
        if (StopRequested()) throw CZemError(ErrorKind::kInterrupted, "stopped");
        m_client->Http().SetStopCheck({});  // what comes now it also puts away
        const bool joined = Try("join", kInLog, [this] { Join(); });
        Try("volume", kInLog, [&] { Volume(joined); });
        const bool writes = joined && !m_options.readOnly && !StopRequested();
        if (writes && Try("frames", kNoRights, [this] { Frames(); }))
            Try("download", kInLog, [this] { Download(); });
        if (!m_name.empty()) Try("delete", kNoRights, [this] { Delete(); });
        Try("leave", "the server drops a silent client by itself", [this] { m_client->Leave(); });
        if (StopRequested()) throw CZemError(ErrorKind::kInterrupted, "stopped");
    }
    if (m_line.json) {
        m_json.Close().Unsigned("warnings", m_count[1]).Unsigned("failures", m_count[2]);
        PrintLine(m_json.Number("exit_code", m_exit).Close().Str());
    } else if (!m_line.quiet) {
        std::printf("%llu ok, %s, %s\n", static_cast<unsigned long long>(m_count[0]),
                    Counted(m_count[1], "warning").c_str(), Counted(m_count[2], "failure").c_str());
    }
    return m_exit;
}

}  // namespace

void AddDoctorVerb(CVerb program, CommandLine& line) {
    auto options = std::make_shared<DoctorOptions>();
    const CVerb verb = VerbGroup{program, line, "The server"}.Add(
        "doctor",
        "Find out what is wrong: reachability, versions, clock, volume, permissions. A line a "
        "check: ok, warn, fail or skip, and what to do. Warnings do not change the exit code",
        [options, &line] { return CDoctor(line, *options).Run(); });
    verb.Option("--folder", "FOLDER", options->folder,
                "Where it writes a file and deletes it again; where there is none, above it")
        .ShowDefault();
    verb.Flag("--read-only", options->readOnly, "Write nothing");
}

}  // namespace zem
