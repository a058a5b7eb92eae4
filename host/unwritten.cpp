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

#include <algorithm>
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

enum : size_t { EIGHT = sizeof(ULONGLONG) }; // bytes at once

// The bytes of this place and the next ones, up to the next multiple of eight.
static ULONGLONG KeyFrom(ULONGLONG ullKey, size_t place)
{
    return (ullKey + place / EIGHT * 0x9e3779b97f4a7c15) >> (place % EIGHT * 8);
}

static UCHAR KeyByte(ULONGLONG ullKey, size_t place)
{
    return static_cast<UCHAR>(KeyFrom(ullKey, place));
}

// Up to eight bytes; a copy of so many by way of a whole word would wait for memory.
static ULONGLONG LoadFew(const UCHAR* pData, size_t bytes)
{
    ULONGLONG ullWord = 0;
    if (bytes == EIGHT) {
        memcpy(&ullWord, pData, EIGHT);
        return ullWord;
    }
    while (bytes-- != 0) {
        ullWord = ullWord << 8 | pData[bytes];
    }
    return ullWord;
}

static void StoreFew(UCHAR* pData, size_t bytes, ULONGLONG ullWord)
{
    if (bytes == EIGHT) {
        memcpy(pData, &ullWord, EIGHT);
        return;
    }
    for (; bytes-- != 0; ullWord >>= 8) {
        *pData++ = static_cast<UCHAR>(ullWord);
    }
}

// Fills a system buffer behind its input. Result: the key by which its bytes are known again.
ULONGLONG HostFillOutput(UCHAR* pData, size_t begin, size_t end)
{
    static ULONGLONG ullRequests;
    ULONGLONG ullKey = HostAdd(&ullRequests, 1ull) * 0x9e3779b97f4a7c15;
    ullKey = (ullKey ^ (ullKey >> 30)) * 0xbf58476d1ce4e5b9;
    ullKey ^= ullKey >> 27;
    if (Paint >= 0) {
        memset(pData + begin, Paint, end - begin);
        return ullKey;
    }
    for (size_t now; begin < end; begin += now) {
        now = std::min(EIGHT - begin % EIGHT, end - begin);
        StoreFew(pData + begin, now, KeyFrom(ullKey, begin));
    }
    return ullKey;
}

// Whether any byte could be an unwritten one.
static bool AreAnyUnwritten(ULONGLONG ullKey, const UCHAR* pData, size_t begin, size_t end)
{
    for (size_t now; begin < end; begin += now) {
        now = std::min(EIGHT - begin % EIGHT, end - begin);
        const ULONGLONG ullKeys = KeyFrom(ullKey, begin);
        const ULONGLONG ullBehind = now == EIGHT ? 0 : ~0ull << (now * 8);
        const ULONGLONG ullWord = (LoadFew(pData + begin, now) ^ ullKeys) | ullBehind; // 0: the key's
        if ((ullWord - 0x0101010101010101) & ~ullWord & 0x8080808080808080) {
            return true;
        }
    }
    return false;
}

// The points of all places of a request's output, by its code; those of the latest codes are at hand.
struct Points {
    std::vector<UCHAR> Places;
    bool bSome; // not all of them are 0
};
struct RecentPoints {
    ULONG ulCode;
    Points* pPoints;
};
static std::mutex PointsLock;
static std::map<ULONG, Points> PointsByCode;
static RecentPoints Recent[64];

// Lock: held.
static Points& PointsOf(ULONG ulCode)
{
    RecentPoints& recent = Recent[(ulCode >> 2) % ARRAYSIZE(Recent)];
    if (recent.pPoints == nullptr || recent.ulCode != ulCode) {
        recent = {ulCode, &PointsByCode[ulCode]};
    }
    return *recent.pPoints;
}

// Gives points to the unwritten places and takes those of the others. True when one has enough.
// Lock: held.
static bool CountPoints(std::vector<UCHAR>& places, ULONGLONG ullKey, const UCHAR* pData, size_t begin,
                        size_t end, size_t* pOffset)
{
    for (size_t i = begin; i < end;) {
        size_t after = i;
        while (after < end && pData[after] == KeyByte(ullKey, after)) {
            after++;
        }
        if (after == i) {
            places[i++] = 0;
            continue;
        }
        for (size_t together = after - i; i < after; i++) {
            if (places[i] + together >= ENOUGH_POINTS) {
                *pOffset = i;
                return true;
            }
            places[i] = static_cast<UCHAR>(places[i] + together);
        }
    }
    return false;
}

// Looks at an output of the request with this code; what lies before `begin` was input.
bool HostFindUnwrittenOutput(ULONG ulCode, ULONGLONG ullKey, const UCHAR* pData, size_t begin, size_t end,
                             size_t* pOffset)
{
    if (Paint >= 0) {
        return false;
    }
    HostLock lock(PointsLock);
    Points& points = PointsOf(ulCode);
    if (!points.bSome && !AreAnyUnwritten(ullKey, pData, begin, end)) {
        return false;
    }
    points.Places.resize(std::max(points.Places.size(), end));
    const bool bFound = CountPoints(points.Places, ullKey, pData, begin, end, pOffset);
    if (bFound) {
        points.Places.clear();
    }
    points.bSome = std::any_of(points.Places.begin(), points.Places.end(), [](UCHAR uc) { return uc != 0; });
    return bFound;
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

static FILE* const pOutputs = OpenOutputs();

// Real threads have no order that two runs could be compared by: what they give is not told.
void HostTellOutput(const char* pWhat, const void* pData, size_t bytes)
{
    if (pOutputs == nullptr || (g != nullptr && g->bThreaded)) {
        return;
    }
    fprintf(pOutputs, "%s:", pWhat);
    for (size_t i = 0; i < bytes; i++) {
        fprintf(pOutputs, "%02x", static_cast<const UCHAR*>(pData)[i]);
    }
    fputc('\n', pOutputs);
}
