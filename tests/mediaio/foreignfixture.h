// foreignfixture.h: clips of foreign formats on a test's volume, made by ffmpeg.
#pragma once

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
    HRESULT TryOpen(const char* name, DWORD flags, const WCHAR* aux, ULONGLONG& token) {
        return m_channel->OpenFile(Wide(name).c_str(), aux, kMediaFileAny, flags, false, token);
    }
    ZemEsDesc Info(ULONGLONG token) {
        ZemEsDesc desc{};
        EXPECT_EQ(m_channel->GetFileInfo(token, desc), S_OK);
        return desc;
    }
};

}  // namespace mediatest
