// Clips of foreign formats on a test's volume, made by ffmpeg.
#pragma once

#include "mediaio/foreign/foreign.h"
#include "mediaio/store/crc32c.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "tests/mediaio/channelfixture.h"

namespace mediatest {

inline const std::string kPicture = "-f lavfi -i testsrc2=size=96x64:rate=";
inline const std::string kSound = " -f lavfi -i sine=frequency=440:sample_rate=48000 ";

inline std::vector<uint8_t> LoadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void StoreFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

// A file that is only read, for tests that look at how.
class CSourceFile : public zemstore::IStoreFile {
public:
    explicit CSourceFile(std::unique_ptr<IStoreFile> file) : m_file(std::move(file)) {}
    HRESULT ReadAt(void* to, size_t size, uint64_t offset, size_t& done) override {
        return m_file->ReadAt(to, size, offset, done);
    }
    HRESULT WriteAt(const zemstore::IoSpan*, size_t, uint64_t, size_t&) override {
        return E_ACCESSDENIED;
    }
    HRESULT Sync() override { return S_OK; }
    HRESULT Size(uint64_t& size) override { return m_file->Size(size); }
    HRESULT ModifiedTime(uint64_t& time) override { return m_file->ModifiedTime(time); }
    HRESULT SetSize(uint64_t) override { return E_ACCESSDENIED; }
    HRESULT PunchHole(uint64_t, uint64_t) override { return E_ACCESSDENIED; }
    HRESULT LockForWriting() override { return E_ACCESSDENIED; }
    void UnlockForWriting() override {}
    bool Writable() const override { return false; }
    zemstore::FileIdentity Identity() const override { return m_file->Identity(); }
    bool Cached(uint64_t, size_t) override { return true; }
    void* MapView(uint64_t offset, size_t size) override { return m_file->MapView(offset, size); }
    void UnmapView(void* view) override { m_file->UnmapView(view); }

private:
    std::unique_ptr<IStoreFile> m_file;
};

class CForeignTest : public CVolumeTest {
protected:
    // Runs ffmpeg with these arguments and the file's path.
    void Make(const std::string& name, const std::string& arguments) {
        const std::string command =
            "ffmpeg -v error -nostdin -y " + arguments + " " + Path(name) + " >&2";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
    }
    void MakeMov(const std::string& name) {
        Make(name,
             kPicture + "30000/1001" + kSound +
                 "-t 1 -c:v mjpeg -c:a pcm_s16le -timecode '00:00:59;20' -movflags faststart");
    }
    void MakeMkv(const std::string& name, int seconds = 1) {
        Make(name, kPicture + "25" + kSound + "-t " + std::to_string(seconds) +
                       " -c:v mjpeg -c:a pcm_s16le");
    }
    void MakeTs(const std::string& name) {
        Make(name, kPicture + "25" + kSound + "-t 2 -c:v mpeg2video -g 6 -threads 1 -c:a mp2");
    }
    HRESULT OpenOnce(const char* name, DWORD flags, const WCHAR* aux, ULONGLONG& token) {
        return m_channel->OpenFile(Wide(name).c_str(), aux, kMediaFileAny, flags, false, token);
    }
    // However long it takes.
    HRESULT TryOpen(const char* name, DWORD flags, const WCHAR* aux, ULONGLONG& token) {
        HRESULT hr;
        do {
            hr = OpenOnce(name, flags, aux, token);
        } while (hr == HRESULT_FROM_WIN32(ERROR_BUSY));
        return hr;
    }
    // As the store gives it to the readers.
    zemstore::ForeignSource Source(const std::string& name) {
        zemstore::ForeignSource source;
        EXPECT_EQ(zemstore::OpenVolume(Path(""), source.volume), S_OK);
        EXPECT_EQ(source.volume->Open(name, zemstore::OpenFor::kRead, source.file), S_OK);
        source.path = name;
        return source;
    }
    ZemEsDesc Info(ULONGLONG token) {
        ZemEsDesc desc{};
        EXPECT_EQ(m_channel->GetFileInfo(token, desc), S_OK);
        return desc;
    }
};

}  // namespace mediatest
