// main.cpp - test-schedules: one life of the driver after another, each in the order that its seed chooses.
//
//   test-schedules [--seeds FROM COUNT]   that many, on two processes; 1 to 200 when nothing is said
//   test-schedules --first FROM COUNT     the same, up to the first that goes wrong
//   test-schedules --seed N               one, twice; tells whether both runs were the same
//
// A seed whose life goes wrong is told with what went wrong; a rule of the host that breaks ends its process,
// which starts anew behind that seed. Exit status 0: nothing went wrong.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "scenario.h"
#include "tests/macro_file.h"

namespace
{
enum { PROCESSES = 2, MOST_WRONG = 20, TWICE_EVERY = 64, MOST_SECONDS = 60 };
using Seed = unsigned long long;

// What a worker tells the parent, in memory that both see.
struct Progress {
    volatile Seed ullSeed; // under way
    volatile unsigned long long ullDone, ullReceived;
    volatile unsigned uWrong;
};

// One seed, some of them twice. True when nothing went wrong.
bool RunSeed(Seed ullSeed, const std::string& folder, bool bTwice, ScheduleOutcome* pOutcome)
{
    *pOutcome = LiveThroughSchedule(ullSeed, folder);
    if (!pOutcome->Wrong.empty()) {
        fprintf(stderr, "seed %llu: %s\n", ullSeed, pOutcome->Wrong.c_str());
        return false;
    }
    if (bTwice && LiveThroughSchedule(ullSeed, folder).ullDigest != pOutcome->ullDigest) {
        fprintf(stderr, "seed %llu: two runs differ\n", ullSeed);
        return false;
    }
    return true;
}

struct Range {
    Seed ullFrom, ullEnd;
    unsigned uMostWrong; // then it is enough
};

// How many went wrong in all processes so far. A process whose run was stopped counts once more in the parent.
unsigned CountWrong(const Progress* pAll)
{
    unsigned uWrong = 0;
    for (int i = 0; i < PROCESSES; i++) {
        uWrong += pAll[i].uWrong;
    }
    return uWrong;
}

void Work(Progress* pAll, int iProcess, const Range& range)
{
    Progress* pProgress = &pAll[iProcess];
    DriveFolder folder;
    folder.Write("macros.bin", TwoMacros());
    for (Seed ullSeed = range.ullFrom; ullSeed < range.ullEnd && CountWrong(pAll) < range.uMostWrong;
         ullSeed += PROCESSES) {
        pProgress->ullSeed = ullSeed;
        alarm(MOST_SECONDS); // a life that never ends is stopped, too
        ScheduleOutcome outcome;
        if (!RunSeed(ullSeed, folder.Path(), ullSeed % TWICE_EVERY == 0, &outcome)) {
            pProgress->uWrong = pProgress->uWrong + 1;
        }
        pProgress->ullDone = pProgress->ullDone + 1;
        pProgress->ullReceived = pProgress->ullReceived + outcome.uReceived;
    }
    alarm(0);
}

pid_t Start(Progress* pAll, int iProcess, const Range& range)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        Work(pAll, iProcess, range);
        exit(0);
    }
    return pid;
}

int RunSeeds(Seed ullFrom, Seed ullCount, unsigned uMostWrong)
{
    auto begin = std::chrono::steady_clock::now();
    Progress* pProgress = static_cast<Progress*>(mmap(
        nullptr, PROCESSES * sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    pid_t pids[PROCESSES];
    for (int i = 0; i < PROCESSES; i++) {
        pids[i] = Start(pProgress, i, {ullFrom + i, ullFrom + ullCount, uMostWrong});
    }
    for (int running = PROCESSES; running > 0;) {
        int status;
        pid_t pid = wait(&status);
        int i = pid == pids[0] ? 0 : 1;
        if (status == 0) {
            running--;
            continue;
        }
        fprintf(stderr, "seed %llu: the run was stopped\n", pProgress[i].ullSeed);
        pProgress[i].uWrong = pProgress[i].uWrong + 1;
        pids[i] = Start(pProgress, i, {pProgress[i].ullSeed + PROCESSES, ullFrom + ullCount, uMostWrong});
    }
    unsigned long long ullDone = 0, ullReceived = 0;
    for (int i = 0; i < PROCESSES; i++) {
        ullDone += pProgress[i].ullDone;
        ullReceived += pProgress[i].ullReceived;
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    printf("%llu seeds from %llu in %.1f s, %.0f a second; %llu reports received; %u went wrong\n", ullDone,
           ullFrom, seconds, static_cast<double>(ullDone) / seconds, ullReceived, CountWrong(pProgress));
    return CountWrong(pProgress) == 0 && ullDone == ullCount ? 0 : 1;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && strcmp(argv[1], "--seed") == 0) {
        DriveFolder folder;
        folder.Write("macros.bin", TwoMacros());
        ScheduleOutcome outcome;
        Seed ullSeed = strtoull(argv[2], nullptr, 0);
        bool bRight = RunSeed(ullSeed, folder.Path(), true, &outcome);
        printf("seed %llu: %u reports received, digest %016llx\n", ullSeed, outcome.uReceived,
               outcome.ullDigest);
        return bRight ? 0 : 1;
    }
    if (argc == 4 && strcmp(argv[1], "--seeds") == 0) {
        return RunSeeds(strtoull(argv[2], nullptr, 0), strtoull(argv[3], nullptr, 0), MOST_WRONG);
    }
    if (argc == 4 && strcmp(argv[1], "--first") == 0) {
        return RunSeeds(strtoull(argv[2], nullptr, 0), strtoull(argv[3], nullptr, 0), 1);
    }
    if (argc == 1) {
        return RunSeeds(1, 200, MOST_WRONG);
    }
    fprintf(stderr, "usage: test-schedules [--seed N | --seeds FROM COUNT | --first FROM COUNT]\n");
    return 2;
}
