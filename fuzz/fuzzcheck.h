#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

// An invariant of the code under test. A broken one aborts, so libFuzzer keeps
// the input as a crash and the replay test fails on it.
#define FUZZ_CHECK(condition) ((condition) ? void(0) : fuzzFailure(#condition, __FILE__, __LINE__, {}))
// The same, with what the reader needs to see why.
#define FUZZ_CHECK_SAY(condition, detail)                                                                              \
    ((condition) ? void(0) : fuzzFailure(#condition, __FILE__, __LINE__, (detail)))

[[noreturn]] inline void fuzzFailure(const char *condition, const char *file, int line, const std::string &detail)
{
    std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, condition);
    if (!detail.empty()) {
        std::fprintf(stderr, "  %s\n", detail.c_str());
    }
    std::abort();
}
