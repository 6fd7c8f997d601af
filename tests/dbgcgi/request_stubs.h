// Link-level stand-ins for what the request handlers call (archives,
// captures, ps, core dumps, the tracer, the runtime trace), so that the
// request module runs for real in unit tests and the fuzzer without touching
// the system.  Each records its call.
#pragma once

#include <stdint.h>

#include <atomic>
#include <string>
#include <vector>

struct stub_call {
    std::string fn;
    int fd = -1;
    long a = 0, b = 0, c = 0;
    std::vector<int32_t> pids;
};

// What the stand-in tracer does: return at once after one line of text, or
// wait like the real one (waitpid(-1) on a child of its own, asking its
// output callback after every wake-up) until the callback says stop.
enum stub_trace_mode { STUB_TRACE_RETURN, STUB_TRACE_WAIT };
extern std::atomic<stub_trace_mode> stub_trace;

void stub_reset();
std::vector<stub_call> stub_calls();
