// inputfile.cpp - the bytes of an input, wherever they come from.
#include "inputfile.h"
#include "tools/common/failure.h"

#include <fmt/format.h>
#include <zlib.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr unsigned BufferBytes = 1 << 18;
constexpr unsigned PollUs = 100000; // how often a file that grows is looked at

std::atomic<bool> s_bStop;

[[noreturn]] void Fail(const std::string& file, uint64_t ullAt, const char* pWhat)
{
    throw InputError(fmt::format("{}: byte {}: cannot be read: {}", file, ullAt, pWhat));
}

// Copies everything that is left in one open file into another.
uint64_t CopyAside(const std::string& file, int iFrom, int iTo)
{
    std::vector<uint8_t> buffer(BufferBytes);
    uint64_t ullBytes = 0;
    while (true) {
        ssize_t cNow = read(iFrom, buffer.data(), buffer.size());
        if (cNow < 0 && errno == EINTR)
            continue;
        if (cNow < 0)
            Fail(file, ullBytes, strerror(errno));
        if (cNow == 0)
            return ullBytes;
        for (ssize_t cDone = 0, cPart; cDone < cNow; cDone += cPart)
            if ((cPart = write(iTo, buffer.data() + cDone, static_cast<size_t>(cNow - cDone))) <= 0)
                Fail(file, ullBytes, strerror(errno));
        ullBytes += static_cast<uint64_t>(cNow);
    }
}

} // namespace

struct InputReader::Unpacker {
    gzFile file;
    ~Unpacker() { gzclose(file); }
};

InputFile::InputFile(const std::string& file) : m_file(file == "-" ? "standard input" : file)
{
    int iFile = file == "-" ? dup(STDIN_FILENO) : open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (iFile < 0)
        Fail(m_file, 0, strerror(errno));
    struct Closer {
        int iFile;
        ~Closer() { close(iFile); }
    } closer{iFile};
    struct stat about = {};
    if (fstat(iFile, &about) != 0 || S_ISDIR(about.st_mode))
        Fail(m_file, 0, strerror(S_ISDIR(about.st_mode) ? EISDIR : errno));
    m_ullBytes = static_cast<uint64_t>(about.st_size);
    if (S_ISREG(about.st_mode) && file != "-")
        return;
    std::unique_ptr<FILE, int (*)(FILE*)> aside(tmpfile(), &fclose);
    m_iAside = aside ? dup(fileno(aside.get())) : -1;
    if (m_iAside < 0)
        Fail(m_file, 0, strerror(errno));
    m_ullBytes = CopyAside(m_file, iFile, m_iAside);
}

InputFile::~InputFile()
{
    if (m_iAside >= 0)
        close(m_iAside);
}

int InputFile::Open() const
{
    std::string path = m_iAside >= 0 ? fmt::format("/proc/self/fd/{}", m_iAside) : m_file;
    int iFile = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (iFile < 0)
        Fail(m_file, 0, strerror(errno));
    return iFile;
}

InputReader::InputReader(SharedInput pInput, bool bGrows)
    : m_pInput(std::move(pInput)), m_pUnpacker(new Unpacker{}), m_bGrows(bGrows)
{
    m_pUnpacker->file = gzdopen(m_pInput->Open(), "rb");
    if (!m_pUnpacker->file)
        Fail(m_pInput->Name(), 0, "out of memory");
    gzbuffer(m_pUnpacker->file, BufferBytes);
}

InputReader::~InputReader() = default;

size_t InputReader::Read(uint8_t* pBytes, size_t cBytes)
{
    size_t cDone = 0;
    while (cDone < cBytes) {
        int iNow = gzread(m_pUnpacker->file, pBytes + cDone, static_cast<unsigned>(cBytes - cDone));
        int iError = Z_OK;
        const char* pError = iNow < 0 ? gzerror(m_pUnpacker->file, &iError) : "";
        if (iNow < 0)
            Fail(m_pInput->Name(), m_ullAt, iError == Z_ERRNO ? strerror(errno) : pError);
        cDone += static_cast<size_t>(iNow);
        m_ullAt += static_cast<uint64_t>(iNow);
        if (cDone == cBytes)
            break;
        gzerror(m_pUnpacker->file, &iError);
        if (iError == Z_BUF_ERROR && !m_bGrows)
            Fail(m_pInput->Name(), m_ullAt, "the compressed data is truncated");
        if (!m_bGrows || s_bStop)
            break;
        gzclearerr(m_pUnpacker->file);
        usleep(PollUs);
    }
    return cDone;
}

uint64_t InputReader::PackedAt() const
{
    auto at = gzoffset(m_pUnpacker->file);
    return at < 0 ? 0 : static_cast<uint64_t>(at);
}

void StopFollowing()
{
    s_bStop = true;
}
