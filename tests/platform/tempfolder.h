// A folder that exists as long as the object. One thread.
#pragma once

#include <filesystem>
#include <random>
#include <string>

#include "platform/platform.h"

class CTempFolder {
public:
    CTempFolder() {
        std::random_device random;
        do {
            m_path = std::filesystem::temp_directory_path() /
                     ("zem-platform-" + std::to_string(random()));
        } while (!std::filesystem::create_directory(m_path));
    }
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;
    ~CTempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    const std::filesystem::path& Path() const { return m_path; }
    std::string File(const char* name) const { return (m_path / name).string(); }
    WString Wide() const { return m_path.string<WCHAR>(); }

private:
    std::filesystem::path m_path;
};
