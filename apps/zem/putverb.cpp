// zem put: a clip goes in packet by packet, one media file per stream. zem import: the same, but
// PCM is cut to the pictures, and what the frames do not say of the clip is kept for zem export.
#include <cstdio>

#include "apps/zem/client/text.h"
#include "apps/zem/demux.h"
#include "apps/zem/output.h"
#include "apps/zem/put.h"
#include "apps/zem/terminal.h"
#include "apps/zem/valuecheck.h"
#include "apps/zem/verbs.h"

namespace zem {

void CPut::Summary() const {
    if (m_line.json) {
        CJson json;
        json.Open('{').Text("clip", m_options.clip).Open('[', "files");
        for (const PutFile& file : m_files) {
            json.Open('{').Text("name", file.name);
            json.Text("type", MediaTypeText(file.desc.mediaType));
            TellCodec(json, file.desc);
            json.Unsigned("frames", file.frames.size()).Unsigned("bytes", file.total_bytes).Close();
        }
        json.Close().Number("skipped_streams", m_clip.SkippedStreams()).Close();
        PrintLine(json.Str());
        return;
    }
    if (m_line.quiet || !StdoutIsTerminal()) return;
    for (const PutFile& file : m_files) {
        std::printf("%s: %s %s, %zu frames, %s\n", Printable(file.name).c_str(),
                    MediaTypeText(file.desc.mediaType), file.codecName.c_str(), file.frames.size(),
                    HumanBytes(file.total_bytes).c_str());
    }
    if (m_clip.SkippedStreams() > 0) {
        std::printf("left out, neither video nor audio: %s\n",
                    Counted(static_cast<uint64_t>(m_clip.SkippedStreams()), "stream").c_str());
    }
}

void AddPutVerbs(CVerb program, CommandLine& line) {
    struct Verb {
        const char* name;
        const char* help;
        bool import;
    };
    const Verb verbs[] = {
        {"put",
         "Write every coded video and audio frame of a clip into files of the server: NAME.v0, "
         "NAME.v1, NAME.a0 ... Bring what is to leave as a clip again in by import. A MOV or MP4 "
         "comes through a pipe only with its index in front",
         false},
        {"import",
         "Bring a whole clip in: as put, with PCM cut to the pictures and a description, "
         "NAME.clip, from which export makes the clip again",
         true},
    };
    for (const Verb& each : verbs) {
        auto options = std::make_shared<PutOptions>();
        options->import = each.import;
        const CVerb verb =
            VerbGroup{program, line, "Clips"}.Add(each.name, each.help, [options, &line] {
                RequireClipName(options->name);
                return CPut(line, *options).Run();
            });
        verb.Place("CLIP", options->clip, "MOV, MP4, MXF or other clip of this machine; - is stdin")
            .File()
            .Required();
        verb.Place("NAME", options->name, "Name on the server, without the stream's ending")
            .Required();
        verb.Flag("--force", options->force, "Replace files that exist");
        verb.Option("--verify", "HOW", options->verify,
                    "quick: compare the size of every frame and the contents of the last; "
                    "all: read every frame back")
            .Check(OneOf({"quick", "all"}))
            .ShowDefault();
    }
}

}  // namespace zem
