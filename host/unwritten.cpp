// unwritten.cpp - memory that nobody wrote, and how it is known again in what leaves a driver.
//
// At once, in every run:
//   pool memory       one pattern of four bytes; four in a row of it, wherever they went
//   a request's       bytes that a key of this request makes: one unwritten byte is known by its place. By chance
//   system buffer     any byte looks so once in 256 times, so each place of each request's output collects points,
//                     as many as unwritten bytes stand together there, until a written one ends it; five stop the
//                     run: five such bytes at once, or one of them five times running
//
// By comparing two runs (scripts/check-unwritten), to the single byte: the environment's TV64USB_PAINT, a byte in
// hexadecimal, fills all memory that nobody wrote, and TV64USB_OUTPUTS names a file that gets a line for each piece
// of data that a driver gives to others. A byte that is another under another paint was never written. Unwritten
// variables of the stack differ by the builds that run.
#include "core.h"

#include <cstdlib>

#define FOUR 0xC5, 0x3A, 0x96, 0xE1
#define SIXTEEN FOUR, FOUR, FOUR, FOUR
const UCHAR HostUnwritten[64] = {SIXTEEN, SIXTEEN, SIXTEEN, SIXTEEN};

enum : unsigned { ENOUGH_POINTS = 5 };

static int ReadPaint()
{
    const char* pText = getenv("TV64USB_PAINT");
    return pText == nullptr ? -1 : static_cast<int>(strtoul(pText, nullptr, 16) & 0xFF);
}

static const int Paint = ReadPaint(); // -1: none

static void FillPattern(UCHAR* pData, size_t bytes)
{
    size_t written = 0;
    for (; bytes - written >= sizeof HostUnwritten; written += sizeof HostUnwritten) {
        memcpy(pData + written, HostUnwritten, sizeof HostUnwritten);
    }
    memcpy(pData + written, HostUnwritten, bytes - written);
}

void HostFillUnwritten(UCHAR* pData, size_t bytes)
{
    if (Paint >= 0) {
        memset(pData, Paint, bytes);
    } else {
        FillPattern(pData, bytes);
    }
}

// Looks for four bytes in a row of the pattern, wherever it begins: one of them is its first byte.
bool HostFindUnwritten(const UCHAR* pData, size_t bytes, size_t* pOffset)
{
    const UCHAR* const pEnd = pData + bytes;
    const UCHAR* pFirst = Paint < 0 ? pData : pEnd;
    for (; (pFirst = static_cast<const UCHAR*>(
                memchr(pFirst, HostUnwritten[0], static_cast<size_t>(pEnd - pFirst)))) != nullptr;
         pFirst++) {
        for (size_t before = 4; before-- != 0;) {
            if (static_cast<size_t>(pFirst - pData) >= before &&
                static_cast<size_t>(pEnd - pFirst) >= 4 - before &&
                memcmp(pFirst - before, HostUnwritten + 4 - before, 4) == 0) {
                *pOffset = static_cast<size_t>(pFirst - pData) - before;
                return true;
            }
        }
    }
    return false;
}

static UCHAR KeyByte(ULONGLONG ullKey, size_t i)
{
    return static_cast<UCHAR>((ullKey >> (i % 8 * 8)) + i * 167);
}

// Fills a system buffer behind its input. Result: the key by which its bytes are known again.
ULONGLONG HostFillOutput(UCHAR* pData, size_t begin, size_t end)
{
    static ULONGLONG ullRequests;
    ULONGLONG ullKey = __atomic_add_fetch(&ullRequests, 1, __ATOMIC_RELAXED) * 0x9e3779b97f4a7c15;
    ullKey = (ullKey ^ (ullKey >> 30)) * 0xbf58476d1ce4e5b9;
    ullKey ^= ullKey >> 27;
    for (size_t i = begin; i < end; i++) {
        pData[i] = Paint >= 0 ? static_cast<UCHAR>(Paint) : KeyByte(ullKey, i);
    }
    return ullKey;
}

// The points of all places of a request's output, by its code; those of the latest codes are at hand.
using Points = std::vector<UCHAR>;
struct RecentPoints {
    ULONG ulCode;
    Points* pPoints;
};
static std::mutex PointsLock;
static std::map<ULONG, Points> PointsByCode;
static RecentPoints Recent[64];

// Lock: held.
static Points& PointsOf(ULONG ulCode, size_t places)
{
    RecentPoints& recent = Recent[(ulCode >> 2) % ARRAYSIZE(Recent)];
    if (recent.pPoints == nullptr || recent.ulCode != ulCode) {
        recent = {ulCode, &PointsByCode[ulCode]};
    }
    if (recent.pPoints->size() < places) {
        recent.pPoints->resize(places);
    }
    return *recent.pPoints;
}

// Looks at an output of the request with this code; what lies before `begin` was input.
bool HostFindUnwrittenOutput(ULONG ulCode, ULONGLONG ullKey, const UCHAR* pData, size_t begin, size_t end,
                             size_t* pOffset)
{
    if (Paint >= 0) {
        return false;
    }
    HostLock lock(PointsLock);
    Points& points = PointsOf(ulCode, end);
    for (size_t i = begin; i < end;) {
        size_t after = i;
        while (after < end && pData[after] == KeyByte(ullKey, after)) {
            after++;
        }
        if (after == i) {
            points[i++] = 0;
            continue;
        }
        for (size_t together = after - i; i < after; i++) {
            if (points[i] + together >= ENOUGH_POINTS) {
                *pOffset = i;
                points.clear();
                return true;
            }
            points[i] = static_cast<UCHAR>(points[i] + together);
        }
    }
    return false;
}

static FILE* OpenOutputs()
{
    const char* pPath = getenv("TV64USB_OUTPUTS");
    FILE* pFile = pPath == nullptr ? nullptr : fopen(pPath, "w");
    if (pPath != nullptr && pFile == nullptr) {
        HostBug("NO_SUCH_FILE", "TV64USB_OUTPUTS: %s cannot be written", pPath);
    }
    return pFile;
}

// Real threads have no order that two runs could be compared by: what they give is not told.
void HostTellOutput(const char* pWhat, const void* pData, size_t bytes)
{
    static FILE* const pOutputs = OpenOutputs();
    if (pOutputs == nullptr || (g != nullptr && g->bThreaded)) {
        return;
    }
    fprintf(pOutputs, "%s:", pWhat);
    for (size_t i = 0; i < bytes; i++) {
        fprintf(pOutputs, "%02x", static_cast<const UCHAR*>(pData)[i]);
    }
    fputc('\n', pOutputs);
}
