// inputfile.cpp - the bytes of an input, wherever they come from.
#include "inputfile.h"
#include "tools/common/failure.h"

#include <fmt/format.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr unsigned BufferBytes = 1 << 17;
constexpr unsigned PollUs = 100000; // how often a file that grows is looked at

constexpr int RestMs = 100, GatherMs = 500;

// A copy of the process has the same open files, with one place for all: who reads on in a copy opens his own.
unsigned s_uCopies;
const int s_iCounts = pthread_atfork(nullptr, nullptr, [] { ++s_uCopies; });

std::atomic<bool> s_bStop;
std::function<void()> s_beforeWait;

[[noreturn]] void Fail(const std::string& file, uint64_t ullAt, const char* pWhat)
{
    throw InputError(fmt::format("{}: byte {}: cannot be read: {}", file, ullAt, pWhat));
}

void BeforeWait()
{
    if (s_beforeWait)
        s_beforeWait();
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
    m_iPipe = iFile;
    struct stat about = {};
    if (fstat(iFile, &about) != 0 || S_ISDIR(about.st_mode)) {
        int iError = S_ISDIR(about.st_mode) ? EISDIR : errno;
        close(std::exchange(m_iPipe, -1));
        Fail(m_file, 0, strerror(iError));
    }
    m_ullBytes = static_cast<uint64_t>(about.st_size);
    if (S_ISREG(about.st_mode) && file != "-") {
        close(std::exchange(m_iPipe, -1));
        return;
    }
    m_ullBytes = 0;
    std::unique_ptr<FILE, int (*)(FILE*)> aside(tmpfile(), &fclose);
    m_iAside = aside ? dup(fileno(aside.get())) : -1;
    if (m_iAside < 0) {
        int iError = errno;
        close(std::exchange(m_iPipe, -1));
        Fail(m_file, 0, strerror(iError));
    }
}

InputFile::~InputFile()
{
    for (int iFile : {m_iPipe, m_iAside})
        if (iFile >= 0)
            close(iFile);
}

bool InputFile::Comes(int iMs) const
{
    pollfd pipe{m_iPipe, POLLIN, 0};
    return poll(&pipe, 1, iMs) > 0;
}

void InputFile::Gather()
{
    const auto start = std::chrono::steady_clock::now();
    while (IsOpen() && Comes(RestMs) && TakeMore())
        if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(GatherMs))
            return;
}

bool InputFile::TakeMore()
{
    if (!IsOpen())
        return false;
    if (!Comes(0))
        BeforeWait();
    while (!Comes(RestMs))
        if (s_bStop)
            return false;
    std::vector<uint8_t> buffer(BufferBytes);
    ssize_t cNow;
    do
        cNow = read(m_iPipe, buffer.data(), buffer.size());
    while (cNow < 0 && errno == EINTR);
    if (cNow < 0)
        Fail(m_file, m_ullBytes, strerror(errno));
    for (ssize_t cDone = 0, cPart; cDone < cNow; cDone += cPart)
        if ((cPart = write(m_iAside, buffer.data() + cDone, static_cast<size_t>(cNow - cDone))) <= 0)
            Fail(m_file, m_ullBytes, strerror(errno));
    m_ullBytes += static_cast<uint64_t>(cNow);
    if (cNow == 0)
        close(std::exchange(m_iPipe, -1));
    return cNow > 0;
}

int InputFile::Open() const
{
    std::string path = m_iAside >= 0 ? fmt::format("/proc/self/fd/{}", m_iAside) : m_file;
    int iFile = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (iFile < 0)
        Fail(m_file, 0, strerror(errno));
    return iFile;
}

InputReader::InputReader(SharedInput pInput, Reading reading)
    : m_pInput(std::move(pInput)), m_pUnpacker(new Unpacker{}), m_reading(reading)
{
    Open();
}

void InputReader::Open()
{
    m_uCopies = s_uCopies;
    m_pUnpacker->file = gzdopen(m_pInput->Open(), "rb");
    if (!m_pUnpacker->file)
        Fail(m_pInput->Name(), 0, "out of memory");
    gzbuffer(m_pUnpacker->file, BufferBytes / 2); // so that what is not compressed comes without a copy
    m_held.clear();
    m_cTaken = 0;
}

InputReader::~InputReader() = default;

size_t InputReader::Read(uint8_t* pBytes, size_t cBytes)
{
    return ReadAtLeast(pBytes, cBytes, cBytes);
}

size_t InputReader::ReadSome(uint8_t* pBytes, size_t cBytes)
{
    return ReadAtLeast(pBytes, cBytes, 1);
}

// Reads ahead what is not compressed: of broken compressed data what is whole could be lost so. False when nothing is
// there now.
bool InputReader::Hold()
{
    if (m_ullAt < 2 || !gzdirect(m_pUnpacker->file))
        return false;
    m_held.resize(BufferBytes);
    int iNow = gzread(m_pUnpacker->file, m_held.data(), BufferBytes);
    m_held.resize(iNow > 0 ? static_cast<size_t>(iNow) : 0);
    m_cTaken = 0;
    return iNow > 0;
}

size_t InputReader::TakeHeld(uint8_t* pBytes, size_t cBytes)
{
    size_t cNow = std::min(cBytes, m_held.size() - m_cTaken);
    std::copy_n(m_held.data() + m_cTaken, cNow, pBytes);
    m_cTaken += cNow;
    m_ullAt += cNow;
    return cNow;
}

size_t InputReader::ReadAtLeast(uint8_t* pBytes, size_t cBytes, size_t cLeast)
{
    if (m_uCopies != s_uCopies) {
        gzclose(m_pUnpacker->file);
        Open();
        gzseek(m_pUnpacker->file, static_cast<z_off_t>(m_ullAt), SEEK_SET);
    }
    size_t cDone = TakeHeld(pBytes, cBytes);
    while (cDone < cLeast) {
        if (Hold()) {
            cDone += TakeHeld(pBytes + cDone, cBytes - cDone);
            continue;
        }
        int iNow = gzread(m_pUnpacker->file, pBytes + cDone, static_cast<unsigned>(cBytes - cDone));
        int iError = Z_OK;
        const char* pError = iNow < 0 ? gzerror(m_pUnpacker->file, &iError) : "";
        if (iNow < 0)
            Fail(m_pInput->Name(), m_ullAt, iError == Z_ERRNO ? strerror(errno) : pError);
        cDone += static_cast<size_t>(iNow);
        m_ullAt += static_cast<uint64_t>(iNow);
        if (cDone >= cLeast)
            break;
        gzerror(m_pUnpacker->file, &iError);
        bool bMore = m_reading != Reading::Present && m_pInput->TakeMore();
        if (!bMore && m_reading == Reading::Following && !m_pInput->IsPipe())
            bMore = WaitToFollow();
        if (!bMore && iError == Z_BUF_ERROR && m_reading == Reading::Whole)
            Fail(m_pInput->Name(), m_ullAt, "the compressed data is truncated");
        if (!bMore)
            break;
        gzclearerr(m_pUnpacker->file);
    }
    return cDone;
}

bool WaitToFollow()
{
    if (s_bStop)
        return false;
    BeforeWait();
    usleep(PollUs);
    return !s_bStop;
}

void SetBeforeWait(std::function<void()> before)
{
    s_beforeWait = std::move(before);
}

void StopFollowing()
{
    s_bStop = true;
}
