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

constexpr size_t BufferBytes = 1 << 16;

[[noreturn]] void FailToWrite(const std::string& file, int iError)
{
    throw InputError(fmt::format("{}: cannot be written: {}", file, strerror(iError)));
}

// Writes everything to the open file; 0 or the error.
int WriteAll(int iFile, const uint8_t* pBytes, size_t cBytes)
{
    for (size_t cDone = 0; cDone < cBytes;) {
        auto cNow = write(iFile, pBytes + cDone, cBytes - cDone);
        if (cNow >= 0)
            cDone += static_cast<size_t>(cNow);
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

// What lies aside, into what is there and no ordinary file. 0 or the error.
int CopyInto(const std::string& file, const std::string& from)
{
    std::unique_ptr<FILE, int (*)(FILE*)> source(fopen(from.c_str(), "rb"), &fclose);
    std::unique_ptr<FILE, int (*)(FILE*)> stream(fopen(file.c_str(), "wb"), &fclose);
    std::vector<uint8_t> buffer(BufferBytes);
    while (source && stream) {
        size_t cNow = fread(buffer.data(), 1, buffer.size(), source.get());
        if (cNow == 0)
            return ferror(source.get()) || fflush(stream.get()) != 0 ? errno : 0;
        if (fwrite(buffer.data(), 1, cNow, stream.get()) != cNow)
            return errno;
    }
    return errno;
}

fs::path TemporaryFolder()
{
    std::error_code error;
    fs::path folder = fs::temp_directory_path(error);
    return fs::absolute(error ? fs::path("/tmp") : folder);
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

OutputFile::OutputFile(const std::string& file) : m_file(file), m_target(file)
{
    std::error_code error;
    fs::file_status status = fs::status(file, error);
    m_bOrdinary = !fs::exists(status) || fs::is_regular_file(status);
    if (fs::is_symlink(fs::symlink_status(file, error)) && fs::is_regular_file(status))
        m_target = fs::canonical(file, error).string();
    if (fs::is_directory(status) || m_target.empty())
        FailToWrite(file, fs::is_directory(status) ? EISDIR : error.value());
    m_aside = (m_bOrdinary ? m_target : (TemporaryFolder() / "tvusb").string()) + ".XXXXXX";
    m_iFile = mkstemp(m_aside.data());
    if (m_iFile < 0)
        FailToWrite(file, errno);
    if (m_bOrdinary)
        TakePermissions(m_iFile, m_target);
}

OutputFile::~OutputFile()
{
    if (m_iFile < 0)
        return; // it is in its place, or never was
    close(m_iFile);
    unlink(m_aside.c_str());
}

void OutputFile::Write(const std::vector<uint8_t>& bytes)
{
    m_buffer.insert(m_buffer.end(), bytes.begin(), bytes.end());
    if (m_buffer.size() >= BufferBytes)
        Flush();
}

void OutputFile::Write(std::string_view text)
{
    m_buffer.insert(m_buffer.end(), text.begin(), text.end());
    if (m_buffer.size() >= BufferBytes)
        Flush();
}

void OutputFile::Flush()
{
    int iError = WriteAll(m_iFile, m_buffer.data(), m_buffer.size());
    m_buffer.clear();
    if (iError != 0)
        FailToWrite(m_file, iError);
}

void OutputFile::Finish()
{
    Flush();
    int iError = close(m_iFile) == 0 ? 0 : errno;
    m_iFile = -1;
    if (iError == 0)
        iError = m_bOrdinary ? Move(m_aside, m_target) : CopyInto(m_file, m_aside);
    if (iError != 0 || !m_bOrdinary)
        unlink(m_aside.c_str());
    if (iError != 0)
        FailToWrite(m_file, iError);
}

void WriteWholeFile(const std::string& file, const std::vector<uint8_t>& content)
{
    OutputFile output(file);
    output.Write(content);
    output.Finish();
}

TemporaryFile::TemporaryFile(const std::vector<uint8_t>& content)
    : m_path((TemporaryFolder() / "tvusb.XXXXXX").string())
{
    int iFile = mkstemp(m_path.data());
    int iError = iFile < 0 ? errno : WriteAll(iFile, content.data(), content.size());
    if (iFile >= 0 && close(iFile) != 0 && iError == 0)
        iError = errno;
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
