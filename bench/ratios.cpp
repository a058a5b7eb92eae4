// ratios.cpp - what a report costs, as ratios that no loaded machine changes.
//
//   bench-ratios                    prints the table
//   bench-ratios --check FILE       and fails when a ratio is worse than the file's by more than 15 %
//   bench-ratios --store FILE       and writes the ratios there
//   bench-ratios --scene NAME       times one scene, a block for each line on standard input (for itself)
//
//   row ──┬─► process of scene A ──┐  block by block in turn, in several pairs of processes;
//         └─► process of scene B ──┴► the ratio of the two minima
//
// Repetitions go on until the minima of two halves agree, at least 15 and at most 120.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "scenes.h"

namespace
{
struct Row {
    const char* Name;
    const char* A; // scene; the ratio is A / B
    const char* B; // null: A alone
    bool AtLeast;  // the ratio shall be so much at least, else at most
    double Goal;   // of the ratio; with a unit, of A in that unit
    const char* Unit;
    double NsInUnit;
};

const Row Rows[] = {
    {"engine, typing, 511 / 1 hotkeys of 1 key", "typing-engine-511", "typing-engine-1", false, 1.05, nullptr,
     1},
    {"engine, typing, 511 / 1 hotkeys of 3 keys", "typing3-engine-511", "typing3-engine-1", false, 1.05,
     nullptr, 1},
    {"engine, typing, 511 / 1 hotkeys of 32 keys", "typing32-engine-511", "typing32-engine-1", false, 1.05,
     nullptr, 1},
    {"reference / engine at 511: typing", "typing-reference-511", "typing-engine-511", true, 200, nullptr, 1},
    {"reference / engine at 511: six held", "six-reference-511", "six-engine-511", true, 600, nullptr, 1},
    {"reference / engine at 511: press", "press-reference-511", "press-engine-511", true, 15, nullptr, 1},
    {"reference / engine at 511: chord", "chord-reference-511", "chord-engine-511", true, 10, nullptr, 1},
    {"reference / engine at 511: media", "media-reference-511", "media-engine-511", true, 25, nullptr, 1},
    {"reference / engine at 511: all hold the typed key", "worst-reference-511", "worst-engine-511", true, 3,
     nullptr, 1},
    {"reference / engine at 511: Jaalaa", "jaalaa-reference-511", "jaalaa-engine-511", true, 10, nullptr, 1},
    {"reference / engine at 511: Chic", "chic-reference-511", "chic-engine-511", true, 10, nullptr, 1},
    {"trip, 511 / no engine: typing", "typing-trip-511", "typing-trip-0", false, 1.05, nullptr, 1},
    {"trip, 511 / no engine: press", "press-trip-511", "press-trip-0", false, 1.6, nullptr, 1},
    {"trip, 511 / no engine: chord", "chord-trip-511", "chord-trip-0", false, 2.3, nullptr, 1},
    {"trip, the oldest of 127 / the only keyboard: typing", "typing-oldest-10", "typing-only-10", false, 1.1,
     nullptr, 1},
    {"trip, the oldest of 127 / the only keyboard: press", "press-oldest-10", "press-only-10", false, 1.1,
     nullptr, 1},
    {"511 adds of 1 key / a reference report", "adds-1", "typing-reference-511", false, 1, "ms", 1e6},
    {"511 adds of 16 keys / a reference report", "adds-16", "typing-reference-511", false, 2, "ms", 1e6},
    {"one add at 511 / one at 8", "add-511", "add-8", false, 2, nullptr, 1},
    {"log off / compiled out, press at 511", "press-engine-511", "press-engine_nolog-511", false, 1.05,
     nullptr, 1},
    {"log on, 511, drained / a reference report", "log-drained", "typing-reference-511", false, 25, "us",
     1e3},
    {"log on, 511, full / a reference report", "log-full", "typing-reference-511", false, 200, "us", 1e3},
    {"an application's request / getppid", "request-whole", "request-getppid", false, 1, nullptr, 1},
    {"the driver's part of a request / getppid", "request-driver", "request-getppid", false, 0.2, nullptr, 1},
    {"a report replayed as JSON / getppid", "replay-json", "request-getppid", false, 667, "ns", 1},
    {"the extension", "memory-0", nullptr, false, 40000, "bytes", 1},
    {"a keyboard with ten hotkeys", "memory-10", nullptr, false, 44000, "bytes", 1},
};

// One scene in a process of its own, which times a block for each line that it gets.
class Scene
{
public:
    Scene(const std::string& program, const std::string& name)
    {
        int in[2], out[2];
        if (pipe(in) != 0 || pipe(out) != 0 || (m_Process = fork()) < 0) {
            perror("bench-ratios");
            exit(2);
        }
        if (m_Process == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            for (int end : {in[0], in[1], out[0], out[1]}) {
                close(end);
            }
            execl(program.c_str(), program.c_str(), "--scene", name.c_str(), nullptr);
            perror(program.c_str());
            _exit(2);
        }
        close(in[0]);
        close(out[1]);
        m_In = fdopen(in[1], "w");
        m_Out = fdopen(out[0], "r");
    }
    ~Scene()
    {
        fclose(m_In);
        fclose(m_Out);
        waitpid(m_Process, nullptr, 0);
    }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    double Time()
    {
        double ns = 0;
        fputs("\n", m_In);
        fflush(m_In);
        if (fscanf(m_Out, "%lf", &ns) != 1) {
            fprintf(stderr, "bench-ratios: a scene ended early\n");
            exit(2);
        }
        return ns;
    }

private:
    pid_t m_Process = -1;
    FILE *m_In, *m_Out;
};

struct Result {
    double A, B;
};

std::string ProgramOf(const std::string& self, const char* scene)
{
    return strstr(scene, "_nolog") == nullptr ? self : self + "-nolog";
}

// Five pairs of processes with three blocks of each scene, until two halves agree within 2 %.
Result Measure(const std::string& self, const Row& row)
{
    enum { PAIRS = 5, BLOCKS = 3, MOST = 8 };
    double least[2][2] = {{1e300, 1e300}, {1e300, 1e300}}; // scene, half
    const char* names[2] = {row.A, row.B};
    const int scenes = row.B == nullptr ? 1 : 2;
    for (int round = 0; round < MOST; round++) {
        for (int pair = 0; pair < PAIRS; pair++) {
            Scene a(ProgramOf(self, row.A), row.A);
            Scene b(ProgramOf(self, names[scenes - 1]), names[scenes - 1]);
            for (int block = 0; block < BLOCKS; block++) {
                double& leastA = least[0][(pair + block) % 2];
                leastA = std::min(leastA, a.Time());
                if (scenes == 2) {
                    double& leastB = least[1][(pair + block) % 2];
                    leastB = std::min(leastB, b.Time());
                }
            }
        }
        bool bAgree = true;
        for (int scene = 0; scene < scenes; scene++) {
            bAgree = bAgree && std::fabs(least[scene][0] / least[scene][1] - 1) < 0.02;
        }
        if (bAgree) {
            break;
        }
    }
    const double a = std::min(least[0][0], least[0][1]);
    return {a, scenes == 2 ? std::min(least[1][0], least[1][1]) : 1};
}

std::map<std::string, double> Load(const char* path)
{
    std::map<std::string, double> stored;
    FILE* file = fopen(path, "r");
    if (file == nullptr) {
        perror(path);
        exit(2);
    }
    double ratio;
    char name[128];
    while (fscanf(file, "%lf %127[^\n]\n", &ratio, name) == 2) {
        stored[name] = ratio;
    }
    fclose(file);
    return stored;
}

int TimeScene(const char* name)
{
    const Block block = MakeScene(name);
    if (!block) {
        fprintf(stderr, "bench-ratios: there is no scene %s\n", name);
        return 2;
    }
    for (char line[8]; fgets(line, sizeof(line), stdin) != nullptr;) {
        printf("%.17g\n", block());
        fflush(stdout);
    }
    _exit(0); // the machine stays as it is
}

bool IsWorse(const Row& row, double ratio, double stored)
{
    return row.AtLeast ? ratio < stored / 1.15 : ratio > stored * 1.15;
}
} // namespace

int main(int argc, char** argv)
{
    const std::string option = argc == 3 ? argv[1] : "";
    if (option == "--scene") {
        return TimeScene(argv[2]);
    }
    if (argc != 1 && option != "--check" && option != "--store") {
        fprintf(stderr, "usage: bench-ratios [--check FILE | --store FILE]\n");
        return 2;
    }
    const std::map<std::string, double> stored =
        option == "--check" ? Load(argv[2]) : std::map<std::string, double>();
    FILE* store = option == "--store" ? fopen(argv[2], "w") : nullptr;
    int worse = 0;
    printf("%-52s %10s %10s %10s  %s\n", "", "A", "B", "A / B", "to reach");
    for (const Row& row : Rows) {
        Result result = Measure(argv[0], row);
        const auto before = stored.find(row.Name);
        bool bWorse = before != stored.end() && IsWorse(row, result.A / result.B, before->second);
        if (bWorse) { // once more, before it is believed
            result = Measure(argv[0], row);
            bWorse = IsWorse(row, result.A / result.B, before->second);
        }
        const double ratio = result.A / result.B;
        const double reached = row.Unit == nullptr ? ratio : result.A / row.NsInUnit;
        const bool bGoal = row.AtLeast ? reached >= row.Goal : reached <= row.Goal;
        printf("%-52s %10.1f %10.1f %10.2f  %s %g %s%s%s\n", row.Name, result.A, result.B, ratio,
               row.AtLeast ? ">=" : "<=", row.Goal, row.Unit == nullptr ? "" : row.Unit,
               bGoal ? "" : "  not reached", bWorse ? "  WORSE than stored" : "");
        fflush(stdout);
        if (store != nullptr) {
            fprintf(store, "%.4g %s\n", ratio, row.Name);
        }
        worse += bWorse;
    }
    return (store == nullptr || fclose(store) == 0) && worse == 0 ? 0 : 1;
}
