#include "request_stubs.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>

#include "archive.h"
#include "coredump.h"
#include "monitor.h"
#include "trace.h"

std::atomic<stub_trace_mode> stub_trace{STUB_TRACE_RETURN};

namespace {
std::mutex mu;
std::vector<stub_call> calls;

stub_call make(const char *fn, int fd, long a = 0, long b = 0, long c = 0)
{
    stub_call call;
    call.fn = fn;
    call.fd = fd;
    call.a = a;
    call.b = b;
    call.c = c;
    return call;
}

void record(stub_call c)
{
    std::lock_guard<std::mutex> lock(mu);
    calls.push_back(std::move(c));
}

void body(int fd, const char *text)
{
    if (write(fd, text, strlen(text)) < 0) {
        // The client may have gone; nothing to do.
    }
}
}  // namespace

void stub_reset()
{
    std::lock_guard<std::mutex> lock(mu);
    calls.clear();
    stub_trace = STUB_TRACE_RETURN;
}

std::vector<stub_call> stub_calls()
{
    std::lock_guard<std::mutex> lock(mu);
    return calls;
}

void stream_tgz(int fd)
{
    record(make("stream_tgz", fd));
    body(fd, "tgz");
}

void stream_tar(int fd)
{
    record(make("stream_tar", fd));
    body(fd, "tar");
}

int stream_pcap(int fd, int seconds, int size)
{
    record(make("stream_pcap", fd, seconds, size));
    body(fd, "pcap");
    return 0;
}

void stream_ps(int fd)
{
    record(make("stream_ps", fd));
    body(fd, "ps");
}

int coredump(int fd, int32_t pid)
{
    record(make("coredump", fd, pid));
    body(fd, "core");
    return 0;
}

rtrace_config *rtrace_create(int fd, int interval, uint32_t items)
{
    record(make("rtrace_create", fd, interval, static_cast<long>(items)));
    auto *c = static_cast<rtrace_config *>(calloc(1, sizeof(rtrace_config)));
    c->fd = fd;
    c->interval = interval;
    c->items = items;
    return c;
}

int rtrace_run(rtrace_config *config)
{
    record(make("rtrace_run", config->fd));
    body(config->fd, "rtrace");
    return 0;
}

void rtrace_destroy(rtrace_config *config)
{
    free(config);
}

void do_strace(strace_ctx *ctx)
{
    stub_call c = make("do_strace", -1, ctx->flags, ctx->duration, ctx->children);
    c.pids.assign(ctx->pids, ctx->pids + ctx->npids);
    record(c);
    static const char line[] = "[1 stub] trace line\n";
    ctx->out(ctx->arg, line, sizeof line - 1);
    if (stub_trace == STUB_TRACE_WAIT) {
        // Like the tracer: one trace at a time, blocked in waitpid(-1) until
        // something of this process changes state, then asks whether to go on.
        static std::mutex trace_lock;
        std::lock_guard<std::mutex> lock(trace_lock);
        pid_t held = fork();
        if (held == 0) {
            // Holds none of the test's connections open.
            close_range(3, ~0U, 0);
            pause();
            _exit(0);
        }
        for (;;) {
            int status;
            int w = waitpid(-1, &status, 0);
            if (!ctx->out(ctx->arg, ctx->buf, 0))
                break;
            if (w == held || (w == -1 && errno == ECHILD))
                break;
        }
        kill(held, SIGKILL);
        waitpid(held, nullptr, 0);
    } else {
        ctx->out(ctx->arg, ctx->buf, 0);
    }
}
