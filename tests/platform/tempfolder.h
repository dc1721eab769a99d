// A folder that exists as long as the object. One thread.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/platform.h"

class CTempFolder {
public:
    CTempFolder() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "zem-platform-XXXXXX").string();
        if (!mkdtemp(pattern.data())) std::abort();
        m_path = pattern;
    }
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;
    ~CTempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    const std::filesystem::path& Path() const { return m_path; }
    std::string File(const char* name) const { return (m_path / name).string(); }
    WString Wide() const { return m_path.u16string(); }

private:
    std::filesystem::path m_path;
};
