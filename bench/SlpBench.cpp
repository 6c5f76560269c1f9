// How quickly slp64.dll finds service agents, and how long it listens when there are none. Runs in
// a network of its own with the agents that script/bench puts there, who answer at once.
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "slp/Slp.h"

namespace {

constexpr int kRounds = 5;

using Clock = std::chrono::steady_clock;

struct Run {
    Clock::time_point begin = Clock::now();
    std::set<std::string> agents;
    int answers = 0;
    double lastAnswer = 0;  // milliseconds after the request
    double end = 0;

    double Elapsed() const {
        return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    }
};

SLPBoolean TakeAnswer(SLPHandle, const char* list, SLPError code, void* cookie) {
    auto& run = *static_cast<Run*>(cookie);
    if (code == SLP_OK) {
        run.lastAnswer = run.Elapsed();
        ++run.answers;
        run.agents.insert(list);
    }
    return SLP_TRUE;
}

Run Ask(const std::string& service) {
    SLPHandle handle = nullptr;
    SLPError error = SLPOpen("en", SLP_FALSE, &handle);
    Run run;
    if (error == SLP_OK) {
        error =
            SLPFindAttrs(handle, service.c_str(), nullptr, nullptr, TakeAnswer, &run, nullptr, 2);
    }
    run.end = run.Elapsed();
    SLPClose(handle);
    if (error != SLP_OK) {
        printf("bench: the request failed (SLP error %d)\n", error);
        ExitProcess(1);
    }
    return run;
}

// The aim is for the last answer, or where nobody answers for the end of the request.
void Measure(size_t agents, double aim) {
    std::vector<double> times;
    std::vector<double> ends;
    size_t found = agents;
    int twice = 0;
    for (int i = 0; i < kRounds; ++i) {
        const Run run = Ask("service:bench" + std::to_string(agents));
        found = std::min(found, run.agents.size());
        twice = std::max(twice, run.answers - static_cast<int>(run.agents.size()));
        times.push_back(agents > 0 ? run.lastAnswer : run.end);
        ends.push_back(run.end);
    }
    std::sort(times.begin(), times.end());
    std::sort(ends.begin(), ends.end());
    printf("%8zu %8zu %8d %10.0f %10.0f %10.0f %8.2f\n", agents, found, twice, times[kRounds / 2],
           times.back(), ends[kRounds / 2], times.back() / aim);
}

}  // namespace

int main() {
    printf("SLP version 2 by multicast, %d requests each; milliseconds after the request.\n",
           kRounds);
    printf("time: of the last answer, without agents of the end; aim 1000, without agents 3600.\n");
    printf("%8s %8s %8s %10s %10s %10s %8s\n", "agents", "found", "twice", "time", "worst", "end",
           "of aim");
    constexpr double kAnswerAim = 1000;
    constexpr double kSilenceAim = 3600;
    for (const size_t agents : {1, 100, 500}) {
        Measure(agents, kAnswerAim);
    }
    Measure(0, kSilenceAim);
}
