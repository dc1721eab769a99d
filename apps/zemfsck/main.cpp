// The program zemfsck: checks native media files and never changes them.
#include "apps/generated/version.h"
#include "apps/zemfsck/print.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr char kUsage[] =
    "Usage: zemfsck [--json] FILE...\n"
    "Checks native media files: header, index, log, the checksum of every frame, and that no two\n"
    "of them lie in one place. Only reads.\n"
    "  --json     one JSON object for each file, on a line of its own\n"
    "  --version  the version\n"
    "  --help     this text\n"
    "Exit codes:\n"
    "  0  all files are clean\n"
    "  1  damage was found\n"
    "  2  a file could not be checked, or the command line is wrong\n";

constexpr int kClean = 0;
constexpr int kDamaged = 1;
constexpr int kUnchecked = 2;

struct Options {
    bool json = false;
    bool help = false;
    bool version = false;
    std::vector<std::string> files;
};

// False for an option that does not exist.
bool Parse(int argc, char** argv, Options& options) {
    bool only_files = false;
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        if (only_files || argument[0] != '-') {
            options.files.emplace_back(argument);
        } else if (strcmp(argument, "--") == 0) {
            only_files = true;
        } else if (strcmp(argument, "--json") == 0) {
            options.json = true;
        } else if (strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0) {
            options.help = true;
        } else if (strcmp(argument, "--version") == 0) {
            options.version = true;
        } else {
            fprintf(stderr, "zemfsck: there is no option '%s'; see zemfsck --help\n", argument);
            return false;
        }
    }
    return true;
}

std::filesystem::path PathOf(const std::string& name) {
    return std::u8string(name.begin(), name.end());
}
std::string Utf8(const std::filesystem::path& path) {
    const std::u8string text = path.generic_u8string();
    return {text.begin(), text.end()};
}

// The volume is the directory that the file really lies in, so that links may lead anywhere.
HRESULT Open(const std::string& name, std::unique_ptr<zemstore::IStoreFile>& file) {
    std::error_code error;
    const std::filesystem::path path = std::filesystem::canonical(PathOf(name), error);
    if (error == std::errc::permission_denied) return E_ACCESSDENIED;
    if (error) return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    if (std::filesystem::is_directory(path, error)) return HRESULT_FROM_WIN32(ERROR_DIRECTORY);
    std::shared_ptr<zemstore::IVolume> volume;
    const HRESULT hr = zemstore::OpenVolume(Utf8(path.parent_path()), volume);
    if (FAILED(hr)) return hr;
    return volume->Open(Utf8(path.filename()), zemstore::OpenFor::kRead, file);
}

int CheckOne(const std::string& name, bool json) {
    using namespace zemfsck;
    std::unique_ptr<zemstore::IStoreFile> file;
    Report report;
    HRESULT hr = Open(name, file);
    if (SUCCEEDED(hr)) hr = Check(std::move(file), report);
    std::string text;
    if (FAILED(hr))
        text = json ? FailureAsJson(name, hr) : FailureAsText(name, hr);
    else
        text = json ? AsJson(name, report) : AsText(name, report);
    fputs(text.c_str(), FAILED(hr) && !json ? stderr : stdout);
    if (FAILED(hr)) return kUnchecked;
    return report.damages == 0 ? kClean : kDamaged;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!Parse(argc, argv, options)) return kUnchecked;
    if (options.help || options.version) {
        if (options.help) fputs(kUsage, stdout);
        if (options.version) printf("zemfsck %s\n", kZemVersion);
        return kClean;
    }
    if (options.files.empty()) {
        fputs(kUsage, stderr);
        return kUnchecked;
    }
    int code = kClean;
    for (const std::string& name : options.files)
        code = std::max(code, CheckOne(name, options.json));
    // A report that nobody got is none.
    return fflush(stdout) == 0 && ferror(stdout) == 0 ? code : kUnchecked;
}
