// files.cpp - whole files in, whole files out.
#include "files.h"
#include "failure.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

[[noreturn]] void FailToWrite(const std::string& file, int iError)
{
    throw InputError(fmt::format("{}: cannot be written: {}", file, strerror(iError)));
}

// Writes everything to the open file and closes it; 0 or the error.
int WriteAndClose(int iFile, const std::vector<uint8_t>& content)
{
    int iError = 0;
    for (size_t cDone = 0; cDone < content.size() && iError == 0;) {
        ssize_t cNow = write(iFile, content.data() + cDone, content.size() - cDone);
        if (cNow >= 0)
            cDone += static_cast<size_t>(cNow);
        else if (errno != EINTR)
            iError = errno;
    }
    if (close(iFile) != 0 && iError == 0)
        iError = errno;
    return iError;
}

void WriteAsItIs(const std::string& file, const std::vector<uint8_t>& content)
{
    std::unique_ptr<FILE, int (*)(FILE*)> stream(fopen(file.c_str(), "wb"), &fclose);
    if (!stream || fwrite(content.data(), 1, content.size(), stream.get()) != content.size() ||
        fflush(stream.get()) != 0)
        FailToWrite(file, errno);
}

#ifdef _WIN32
// Permissions come from the folder there.
void TakePermissions(int, const fs::path&) {}
#else
// The permissions of the file that is there, or those that a new file gets here.
void TakePermissions(int iFile, const fs::path& target)
{
    mode_t mask = umask(0);
    umask(mask);
    struct stat before = {};
    fchmod(iFile, stat(target.c_str(), &before) == 0 ? before.st_mode & 07777 : 0666 & ~mask);
}
#endif

// In the place of what is there. 0 or the error.
int Move(const std::string& file, const fs::path& target)
{
    std::error_code error;
    fs::rename(file, target, error);
    return error.value();
}

} // namespace

std::vector<uint8_t> ReadWholeFile(const std::string& file)
{
    std::unique_ptr<FILE, int (*)(FILE*)> stream(fopen(file.c_str(), "rb"), &fclose);
    std::vector<uint8_t> content;
    while (stream && !ferror(stream.get()) && !feof(stream.get())) {
        size_t cBefore = content.size();
        content.resize(cBefore + 65536);
        content.resize(cBefore + fread(&content[cBefore], 1, 65536, stream.get()));
    }
    if (!stream || ferror(stream.get()))
        throw InputError(fmt::format("{}:1: cannot be read: {}", file, strerror(errno)));
    return content;
}

std::string ReadWholeText(const std::string& file)
{
    std::vector<uint8_t> content = ReadWholeFile(file);
    return std::string(content.begin(), content.end());
}

void WriteWholeFile(const std::string& file, const std::vector<uint8_t>& content)
{
    std::error_code error;
    fs::file_status status = fs::status(file, error);
    if (fs::exists(status) && !fs::is_regular_file(status) && !fs::is_directory(status)) {
        WriteAsItIs(file, content);
        return;
    }
    fs::path target = file;
    if (fs::is_symlink(fs::symlink_status(file, error)) && fs::exists(status))
        target = fs::canonical(file, error);
    if (fs::is_directory(status) || target.empty())
        FailToWrite(file, fs::is_directory(status) ? EISDIR : error.value());
    std::string aside = target.string() + ".XXXXXX";
    int iFile = mkstemp(aside.data());
    if (iFile < 0)
        FailToWrite(file, errno);
    TakePermissions(iFile, target);
    int iError = WriteAndClose(iFile, content);
    if (iError == 0)
        iError = Move(aside, target);
    if (iError != 0) {
        unlink(aside.c_str());
        FailToWrite(file, iError);
    }
}

TemporaryFile::TemporaryFile(const std::vector<uint8_t>& content)
{
    std::error_code error;
    fs::path folder = fs::temp_directory_path(error);
    m_path = (fs::absolute(error ? fs::path("/tmp") : folder) / "tvusb.XXXXXX").string();
    int iFile = mkstemp(m_path.data());
    int iError = iFile < 0 ? errno : WriteAndClose(iFile, content);
    if (iError != 0) {
        if (iFile >= 0)
            unlink(m_path.c_str());
        FailToWrite(m_path, iError);
    }
}

TemporaryFile::~TemporaryFile()
{
    unlink(m_path.c_str());
}

std::string DriverFileName(const std::string& path)
{
    std::string name = fs::path(path).lexically_normal().relative_path().string();
    std::replace(name.begin(), name.end(), '/', '\\');
    return "\\??\\C:\\" + name;
}
