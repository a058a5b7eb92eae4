// macro_file.h - macro configuration files for tests: their bytes, and a folder to put them into.
#pragma once

#ifndef _WIN32
#include <unistd.h>
#endif

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using FileBytes = std::vector<unsigned char>;

inline FileBytes MacroFileHead(const std::string& text = "Korvex Configuration File V1.0.0.0")
{
    FileBytes bytes(text.begin(), text.end());
    bytes.resize(50, 0xEE); // 16 bytes that nobody reads
    return bytes;
}

inline void AppendWord(FileBytes& bytes, unsigned uWord)
{
    bytes.push_back(static_cast<unsigned char>(uWord));
    bytes.push_back(static_cast<unsigned char>(uWord >> 8));
}

inline void AppendMacro(FileBytes& bytes, unsigned uKey, const std::vector<FileBytes>& reports)
{
    AppendWord(bytes, uKey);
    AppendWord(bytes, static_cast<unsigned>(reports.size() * 10));
    for (const FileBytes& report : reports) {
        bytes.push_back(1);
        bytes.push_back(8);
        for (size_t i = 0; i < 8; i++) {
            bytes.push_back(i < report.size() ? report[i] : 0);
        }
    }
}

// Two macros: F1 plays three reports, F2 plays twenty, which is more than fit at once.
inline FileBytes TwoMacros()
{
    FileBytes file = MacroFileHead();
    for (auto [uKey, uCount] : {std::pair{0x3A, 3}, std::pair{0x3B, 20}}) {
        std::vector<FileBytes> reports;
        for (int i = 0; i < uCount; i++) {
            reports.push_back({0, 0, static_cast<unsigned char>(i % 2 ? 0 : 4 + i)});
        }
        AppendMacro(file, uKey, reports);
    }
    return file;
}

// A folder of its own that holds C:\ for a machine; it goes with the object. On Windows that is C:\ itself, from
// which what was written goes.
class DriveFolder
{
public:
#ifdef _WIN32
    DriveFolder() : m_Path("C:\\") {}
    ~DriveFolder()
    {
        for (const auto& name : m_Written) {
            std::error_code ignored;
            std::filesystem::remove(m_Path / name, ignored);
        }
    }
#else
    DriveFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "tv64usb-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            perror("mkdtemp");
            abort();
        }
        m_Path = name;
    }
    ~DriveFolder()
    {
        std::error_code ignored; // a folder left over is no test's failure
        std::filesystem::remove_all(m_Path, ignored);
    }
#endif
    DriveFolder(const DriveFolder&) = delete;
    DriveFolder& operator=(const DriveFolder&) = delete;

    std::string Path() const
    {
        return m_Path.string();
    }
    void Write(const std::string& name, const FileBytes& bytes) const
    {
        m_Written.push_back(name);
        FILE* pFile = fopen((m_Path / name).string().c_str(), "wb");
        if (pFile == nullptr || fwrite(bytes.data(), 1, bytes.size(), pFile) != bytes.size()) {
            perror("macro file");
            abort();
        }
        fclose(pFile);
    }

private:
    std::filesystem::path m_Path;
    mutable std::vector<std::string> m_Written;
};
