// zem stripe. A server refuses a start that the file's rate cannot count without telling anybody
// but its log, and a file that has that start already looks as if it had worked: so it is found out
// before.
#include <array>
#include <cstdio>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/demux.h"
#include "apps/zem/output.h"
#include "apps/zem/reasons.h"
#include "apps/zem/session.h"
#include "apps/zem/valuecheck.h"
#include "apps/zem/verbs.h"
#include "mediaio/foreign/avdesc.h"

namespace zem {
namespace {

struct StripeOptions {
    std::string name;
    std::string aux;
    std::string start;
    uint32_t flags = 0;
};

constexpr uint32_t kMostFramesASecond = 60;
constexpr uint32_t kMostNumbersASecond = 30;  // above it two frames share a number

vdrTimecode_s Parsed(const std::string& text, bool pairs) {
    vdrTimecode_s timecode{};
    if (zemav::ParseTimecode(text, pairs, timecode)) return timecode;
    throw CZemError(ErrorKind::kUsage, "'" + Printable(text) +
                                           "' is no timecode: HH:MM:SS:FF, or HH:MM:SS;FF for "
                                           "drop-frame");
}

bool CanDropFrame(const ZemEsDesc& desc) {
    const uint64_t over = uint64_t{desc.rateNumerator} * 1001;
    return over == uint64_t{desc.rateDenominator} * 30000 ||
           over == uint64_t{desc.rateDenominator} * 60000;
}

// Why no frame of this file can have the address that `text` spells; empty if one can.
std::string WhyNoAddress(const ZemEsDesc& desc, const std::string& text, bool dropFrame) {
    if (desc.rateNumerator == 0 || desc.rateDenominator == 0)
        return "a file without a frame rate has no timecodes";
    const uint64_t nominal =
        (uint64_t{desc.rateNumerator} + desc.rateDenominator / 2) / desc.rateDenominator;
    const std::string rate = RateText(desc.rateNumerator, desc.rateDenominator);
    if (nominal == 0 || nominal > kMostFramesASecond)
        return "at " + rate + " frames a second there are no timecodes";
    if (dropFrame && !CanDropFrame(desc))
        return "drop-frame counts 30000/1001 or 60000/1001 frames a second, the file has " + rate;
    const bool pairs = nominal > kMostNumbersASecond;
    const uint64_t frames = pairs ? nominal / 2 * 2 : nominal;
    const uint32_t dropped = pairs ? 4 : 2;
    uint32_t minutes = 0, seconds = 0, frame = 0;
    std::sscanf(text.c_str(), "%*2d:%2u:%2u%*c%2u", &minutes, &seconds, &frame);
    if (frame >= frames) {
        return "at " + rate + " frames a second the last one of a second is " +
               std::to_string(frames - 1);
    }
    if (!dropFrame || minutes % 10 == 0 || seconds != 0 || frame >= dropped) return {};
    std::array<char, 80> told{};
    std::snprintf(told.data(), told.size(),
                  "drop-frame leaves it out: this minute begins with %02u", dropped);
    return told.data();
}

int Stripe(const CommandLine& line, const StripeOptions& options) {
    Parsed(options.start, true);  // what is no timecode at any rate needs no server
    CSession session(line);
    FileRef ref = FileNamed(options.name, options.aux);
    vdrTimecode_s start{};
    bool dropFrame = false;
    {
        COpenFile file(*session, OpenNamed(*session, ref));
        const ZemEsDesc before = session->FileInfo(file.Token());
        dropFrame =
            (options.flags & kStripeDropFrame) != 0 || IsDropFrame(Parsed(options.start, true));
        const std::string why = WhyNoAddress(before, options.start, dropFrame);
        if (!why.empty()) {
            throw CZemError(ErrorKind::kRefused,
                            Printable(options.name) + ": no frame of it can have the timecode " +
                                Printable(options.start) + ": " + why,
                            0, kReasonNoTimecode);
        }
        start = Parsed(options.start, zemav::CountsPairs(before));
        file.Close();
    }
    ref.openFlags = kFileRead | kFileWrite;
    session->StripeTimecode(ref, start, options.flags);
    COpenFile file(*session, OpenNamed(*session, FileNamed(options.name, options.aux)));
    const ZemEsDesc after = session->FileInfo(file.Token());
    ZemEsDesc wanted{};
    wanted.startTimecode = start;
    wanted.flags = kEsFlagStriped | (dropFrame ? kEsFlagDropFrame : 0);
    if ((after.flags & (kEsFlagStriped | kEsFlagDropFrame)) != wanted.flags ||
        TimecodeText(StartTimecode(after)) != TimecodeText(StartTimecode(wanted))) {
        throw Refused(Printable(options.name) + " was not striped", WhyNotStriped(*session, after));
    }
    file.Close();
    PrintDone(line, "stripe", {{"name", options.name}});
    return kExitOk;
}

}  // namespace

void AddStripeVerb(CVerb program, CommandLine& line) {
    auto options = std::make_shared<StripeOptions>();
    const CVerb verb = VerbGroup{program, line, "Files"}.Add(
        "stripe", "Write a running timecode into a media file",
        [options, &line] { return Stripe(line, *options); });
    AddFileName(verb, options->name, &options->aux);
    verb.Place("TIMECODE", options->start,
               "Of the first frame: HH:MM:SS:FF; HH:MM:SS;FF counts in drop-frame")
        .Required();
    verb.Option("--flags", "N", options->flags, "1: count in drop-frame with HH:MM:SS:FF, too")
        .Check(WholeNumber(0, 1))
        .ShowDefault();
}

}  // namespace zem
