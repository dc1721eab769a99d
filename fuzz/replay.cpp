// Runs inputs through a target without libFuzzer, so that every build of the tree can:
// fuzz_NAME PACK-OR-FILE... A pack (pack.py) holds many inputs, any other file is one. Names the
// input that is run when the process ends before its time.
#include <csignal>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/fuzz.h"

namespace {

constexpr std::string_view kMagic = "zemfuzz1";

char g_running[512] = "nothing";

void NameInput(int) {
    std::fprintf(stderr, "replay: while running %s\n", g_running);
    std::signal(SIGABRT, SIG_DFL);
    std::abort();
}

std::string Load(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "replay: cannot read %s\n", path);
        std::exit(2);
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

// The inputs of a pack, or the whole as the only one.
std::vector<std::string> Inputs(const std::string& content) {
    if (!std::string_view(content).starts_with(kMagic)) return {content};
    std::vector<std::string> inputs;
    fuzz::CReader reader(reinterpret_cast<const uint8_t*>(content.data()) + kMagic.size(),
                         content.size() - kMagic.size());
    while (!reader.AtEnd()) {
        const auto size = reader.Take<uint32_t>();
        fuzz::Require(size <= reader.Left(), "the pack holds what it says");
        inputs.emplace_back(reader.TakeBytes(size));
    }
    return inputs;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGABRT, NameInput);
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::vector<std::string> inputs = Inputs(Load(argv[i]));
        for (size_t k = 0; k < inputs.size(); ++k) {
            std::snprintf(g_running, sizeof g_running, "%s, input %zu", argv[i], k);
            // A copy of exactly its size: what reads behind it is seen.
            const std::vector<uint8_t> input(inputs[k].begin(), inputs[k].end());
            LLVMFuzzerTestOneInput(input.data(), input.size());
            ++count;
        }
    }
    std::printf("%zu inputs\n", count);
    return count == 0;
}
