// A folder for a test's files that goes with the object, whatever is in it then. One thread.
#pragma once

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

class CTempFolder {
public:
    CTempFolder() {
        std::random_device random;
        do {
            m_path =
                std::filesystem::temp_directory_path() / ("zem-test-" + std::to_string(random()));
        } while (!std::filesystem::create_directory(m_path));
    }
    CTempFolder(const CTempFolder&) = delete;
    CTempFolder& operator=(const CTempFolder&) = delete;
    ~CTempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    const std::filesystem::path& Path() const { return m_path; }
    std::string File(const std::string& name) const { return (m_path / name).string(); }
    // Writes a file; its path.
    std::string Write(const std::string& name, const std::string& data) const {
        std::ofstream(m_path / name, std::ios::binary) << data;
        return File(name);
    }

private:
    std::filesystem::path m_path;
};
