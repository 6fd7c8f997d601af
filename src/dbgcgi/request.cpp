// Requests of the debug-info daemon: the control message is decoded and
// checked here in the main thread, and each kind of download is produced by a
// detached thread of its own.
#include "dbgcgi.h"

#include <assert.h>
#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "archive.h"
#include "common.h"
#include "coredump.h"
#include "monitor.h"
#include "proc.h"
#include "querykit.h"
#include "tar.h"
#include "trace.h"

int push_listener_fd = -1;
int archive_in_progress;

const rtrace_option rtrace_options[] = {
    {"smaps", 0x1},      {"status", 0x2},       {"smapstot", 0x4}, {"filenr", 0x8},
    {"meminfo", 0x10},   {"diskinfo", 0x20},    {"iostat", 0x40},  {"pagetypeinfo", 0x80},
    {"hearth", 0x100},   {"event", 0x200},      {"pidstat", 0x400}, {"all", 0x67B},
    {"fast", 0x67C},     {nullptr, 0},
};

namespace {

const char bad_request[] =
    "HTTP/1.0 400 Bad Request\r\nContent-Type: text/plain\r\n\r\n"
    "The request has bad syntax or was inherently impossible to satisfy\n";
const char internal_error[] =
    "HTTP/1.0 500 Internal Server Error\r\nContent-Type: text/plain\r\n\r\n"
    "The server encountered an internal error and could not complete the request\n";
static_assert(sizeof bad_request - 1 == 121);
static_assert(sizeof internal_error - 1 == 140);

const uint32_t rtrace_default_mask = 0x67C;  // "fast"
const int rtrace_default_interval = 10;
// Pieces of the "pid" and "trace" lists must be shorter than this.
const size_t max_piece = 32;

int load(const int *flag)
{
    return __atomic_load_n(flag, __ATOMIC_SEQ_CST);
}

void store(int *flag, int value)
{
    __atomic_store_n(flag, value, __ATOMIC_SEQ_CST);
}

void reply_bad_request(int fd)
{
    safe_write(fd, bad_request, sizeof bad_request - 1);
}

// strtol base 10; parsed when at least one digit was taken and the value
// fits the device's 32-bit long.
bool parse_number(const char *s, int *value)
{
    if (!s)
        return false;
    errno = 0;
    char *end;
    long v = strtol(s, &end, 10);
    if (end == s || errno == ERANGE || v < INT32_MIN || v > INT32_MAX)
        return false;
    *value = static_cast<int>(v);
    return true;
}

// Leading and trailing white space off, in place; an all-blank text becomes
// empty at its own start.
char *strip(char *s)
{
    while (*s && isspace(static_cast<unsigned char>(*s)))
        s++;
    size_t n = strlen(s);
    while (n > 0 && isspace(static_cast<unsigned char>(s[n - 1])))
        s[--n] = '\0';
    return s;
}

// Calls f(piece) for every comma-separated piece of list shorter than
// max_piece bytes, copied and stripped; the text after the last comma only
// when it is not empty.  more() is asked before each piece.
template <typename More, typename F>
void for_each_piece(const char *list, More more, F f)
{
    const char *p = list;
    for (;;) {
        const char *comma = strchr(p, ',');
        size_t len = comma ? static_cast<size_t>(comma - p) : strlen(p);
        if (!comma && len == 0)
            break;
        if (!more())
            break;
        if (len < max_piece) {
            char piece[max_piece];
            memcpy(piece, p, len);
            piece[len] = '\0';
            f(strip(piece));
        }
        if (!comma)
            break;
        p = comma + 1;
    }
}

// The dumper stops every thread of the process it dumps, this one too,
// which reads its output: a core of the daemon itself can never be made.
bool own_thread(int pid)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%d", pid);
    return pid == getpid() || access(path, F_OK) == 0;
}

// Takes over conn as the connection waiting for the next pushed dump.
void register_listener(unique_fd conn)
{
    if (push_listener_fd != -1)
        close(push_listener_fd);
    push_listener_fd = conn.release();
}

bool start_thread(void *(*body)(void *), void *arg)
{
    pthread_t t;
    return pthread_create(&t, nullptr, body, arg) == 0;
}

// Hands the record and its connection to a new handler thread, which owns
// both from then on; when no thread starts, the client gets the 500 response
// and both are released here.
template <typename Req>
bool hand_to_thread(void *(*body)(void *), unique_heap<Req> &req, unique_fd &conn)
{
    if (start_thread(body, req.get())) {
        req.release();
        conn.release();
        return true;
    }
    req.reset();
    reply_internal_error(conn.get());
    conn.reset();
    return false;
}

void start_archive(unique_fd conn, int gzip)
{
    if (load(&archive_in_progress)) {
        stream_http_message(conn.get(), "503 Service Unavailable",
                            "Another Crash Report generation is in progress. "
                            "Please try again later ... ");
        return;
    }
    store(&archive_in_progress, 1);
    unique_heap<archive_req> req(static_cast<archive_req *>(malloc(sizeof(archive_req))));
    if (!req) {
        store(&archive_in_progress, 0);
        reply_internal_error(conn.get());
        return;
    }
    req->fd = conn.get();
    req->gzip = gzip;
    if (!hand_to_thread(run_archive_request, req, conn))
        store(&archive_in_progress, 0);
}

void coredump_request(unique_fd conn)
{
    char *pid_text = CGI_get_value("pid");
    if (!pid_text) {
        register_listener(std::move(conn));
        CGI_cleanup();
        return;
    }
    int pid;
    if (!parse_number(pid_text, &pid) || pid == -1) {
        char *name = strip(pid_text);
        int32_t found[1];
        int count = 0;
        if (*name)
            proc_find_pid_by_name("/proc", name, found, &count, 1);
        if (count == 0) {
            reply_bad_request(conn.get());
            CGI_cleanup();
            return;
        }
        pid = found[0];
    }
    if (pid < 0 || kill(pid, 0) != 0 || own_thread(pid)) {
        reply_bad_request(conn.get());
    } else if (stream_http_header(conn.get(), "application/octet-stream", "core") == 0) {
        coredump(conn.get(), pid);
    }
    CGI_cleanup();
}

void pcap_request(unique_fd conn)
{
    unique_heap<pcap_req> req(static_cast<pcap_req *>(malloc(sizeof(pcap_req))));
    if (!req) {
        CGI_cleanup();
        reply_internal_error(conn.get());
        return;
    }
    req->fd = conn.get();
    int v;
    req->duration = parse_number(CGI_get_value("duration"), &v) && v >= 0 ? v : 0;
    req->totalsize = parse_number(CGI_get_value("totalsize"), &v) && v >= 0 ? v : 0;
    CGI_cleanup();
    hand_to_thread(run_pcap_request, req, conn);
}

void ps_request(unique_fd conn)
{
    CGI_cleanup();
    // The descriptor itself is the thread's argument.
    if (start_thread(run_ps_request, reinterpret_cast<void *>(static_cast<intptr_t>(conn.get()))))
        conn.release();
    else
        reply_internal_error(conn.get());
}

void rtrace_request(unique_fd conn)
{
    unique_heap<rtrace_req> req(static_cast<rtrace_req *>(malloc(sizeof(rtrace_req))));
    if (!req) {
        CGI_cleanup();
        reply_internal_error(conn.get());
        return;
    }
    req->fd = conn.get();

    const char *interval = CGI_get_value("interval");
    if (!interval)
        req->interval = rtrace_default_interval;
    else if (!parse_number(interval, &req->interval))
        req->interval = -1;

    const char *trace = CGI_get_value("trace");
    uint32_t mask = 0;
    if (trace)
        for_each_piece(
            trace, [] { return true; },
            [&mask](const char *name) { mask |= rtrace_option_lookup(name); });
    req->mask = mask ? mask : rtrace_default_mask;

    CGI_cleanup();
    hand_to_thread(run_rtrace_request, req, conn);
}

// ---- handler threads ----

// Detaches the calling handler thread; on failure the connection gets the
// 500 response instead of its content.
bool detach_self(int fd)
{
    if (pthread_detach(pthread_self()) == 0)
        return true;
    reply_internal_error(fd);
    return false;
}

// The strace request's output callback (the archive has its own of that
// name): the text goes to the client, and the trace goes on while the running
// flag is set.
namespace request_module {
int cb_strace(void *arg, const char *buf, int len)
{
    strace_req *req = static_cast<strace_req *>(arg);
    // A client that takes nothing for the stall limit (or has gone) ends the
    // trace: every traced process waits while the tracer writes.
    if (len > 0 && load(&req->running) &&
        safe_write_within(req->fd, buf, static_cast<unsigned>(len), stall_limit_ms) < 0)
        store(&req->running, 0);
    int running = load(&req->running);
    if (!running && len == 0) {
        // The tracer leaves its loop on this answer and detaches its
        // processes; from now on nothing may interrupt its waits.
        sigset_t usr1;
        sigemptyset(&usr1);
        sigaddset(&usr1, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
        store(&req->stopping, 1);
    }
    return running;
}
}  // namespace request_module

// Wakes the tracer's waitpid(-1): a child of this process that exits at once
// ends any wait for children of the process, which the tracer answers by
// asking cb_strace whether to go on.  (A signal could instead break the waits
// inside an attach or a detach and leave a process stopped.)  The child is
// reaped by the tracer or by reap_wakeup.
pid_t wake_tracer()
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    return pid;
}

void reap_wakeup(pid_t pid)
{
    if (pid > 0)
        waitpid(pid, nullptr, 0);
}

}  // namespace

void reply_internal_error(int fd)
{
    safe_write(fd, internal_error, sizeof internal_error - 1);
}

uint32_t rtrace_option_lookup(const char *name)
{
    for (const rtrace_option *o = rtrace_options; o->name; o++)
        if (strcmp(o->name, name) == 0)
            return o->bits;
    return 0;
}

void strace_add_target(char *token, int32_t *pids, int *count, proc_name_index *names)
{
    int pid;
    if (parse_number(token, &pid) && pid != -1) {
        if (kill(pid, 0) == 0)
            pids[(*count)++] = pid;
        return;
    }
    if (!*token)
        return;
    int32_t found[max_piece];
    int n = 0;
    // One look at /proc serves every name of the list.
    if (!names->pids && proc_name_index_build("/proc", names) != 0)
        return;
    proc_name_index_find(names, token, found, &n, max_piece);
    for (int i = 0; i < n && *count < STRACE_REQ_MAX_PIDS; i++)
        pids[(*count)++] = found[i];
}

void prepare_strace_request(int fd)
{
    unique_fd conn(fd);
    int32_t pids[STRACE_REQ_MAX_PIDS];
    int count = 0;
    const char *list = CGI_get_value("pid");
    if (!list) {
        count = proc_list(pids, STRACE_REQ_MAX_PIDS, getpid());
    } else {
        proc_name_index names = {0, nullptr, nullptr};
        for_each_piece(
            list, [&count] { return count < STRACE_REQ_MAX_PIDS; },
            [&](char *token) { strace_add_target(token, pids, &count, &names); });
        proc_name_index_free(&names);
    }
    CGI_cleanup();
    if (count == 0) {
        reply_bad_request(conn.get());
        return;
    }
    unique_heap<strace_req> req(static_cast<strace_req *>(calloc(1, sizeof(strace_req))));
    if (!req) {
        reply_internal_error(conn.get());
        return;
    }
    memcpy(req->pids, pids, sizeof(int32_t) * static_cast<size_t>(count));
    req->npids = count;
    req->fd = conn.get();
    req->running = 1;
    hand_to_thread(run_strace_request, req, conn);
}

void pre_process_request(int fd, char *msg, int len)
{
    unique_fd conn(fd);
    size_t pathlen = strnlen(msg, static_cast<size_t>(len > 0 ? len : 0));
    if (len < 1 || pathlen >= static_cast<size_t>(len)) {
        reply_internal_error(fd);
        return;
    }
    // The query ends at its NUL or at the end of the message.
    const char *q = msg + pathlen + 1;
    size_t qlen = strnlen(q, static_cast<size_t>(len) - pathlen - 1);
    unique_heap<char> query(strndup(q, qlen));
    if (!query) {
        reply_internal_error(fd);
        return;
    }
    CGI_set_query(query.get());
    CGI_save_env();
    const char *cmd = CGI_get_value("cmd");

    if (!cmd) {
        const char *slash = strrchr(msg, '/');
        if (!slash) {
            CGI_cleanup();
            reply_internal_error(fd);
            return;
        }
        const char *last = slash + 1;
        int gzip = strncmp(last, "debug.tgz", 9) == 0 || strncmp(last, "coredumps.tgz", 13) == 0;
        bool listen = strncmp(query.get(), "listen", 6) == 0;
        query.reset();
        CGI_cleanup();
        if (listen)
            register_listener(std::move(conn));
        else
            start_archive(std::move(conn), gzip);
        return;
    }
    query.reset();

    if (strncmp(cmd, "coredump", 8) == 0) {
        coredump_request(std::move(conn));
    } else if (strncmp(cmd, "pcapdump", 8) == 0) {
        pcap_request(std::move(conn));
    } else if (strncmp(cmd, "ps", 2) == 0) {
        ps_request(std::move(conn));
    } else if (strncmp(cmd, "strace", 6) == 0) {
        prepare_strace_request(conn.release());
    } else if (strncmp(cmd, "rtrace", 6) == 0) {
        rtrace_request(std::move(conn));
    } else {
        // The decoded query stays until the next CGI_set_query replaces it.
        reply_bad_request(fd);
    }
}

// The handler threads own their record and its connection; the connection
// is closed before the record is freed.  They end by returning, so that the
// owners release what they hold (pthread_exit would skip that).
void *run_archive_request(void *data)
{
    assert(data && "req");
    unique_heap<archive_req> req(static_cast<archive_req *>(data));
    unique_fd conn(req->fd);
    if (detach_self(req->fd) &&
        stream_http_header(req->fd, "application/x-tar", req->gzip ? "debug.tgz" : "debug.tar") ==
            0) {
        if (req->gzip)
            stream_tgz(req->fd);
        else
            stream_tar(req->fd);
    }
    // The download has ended for the client before the next one may start.
    conn.reset();
    store(&archive_in_progress, 0);
    return nullptr;
}

void *run_pcap_request(void *data)
{
    assert(data && "req");
    unique_heap<pcap_req> req(static_cast<pcap_req *>(data));
    unique_fd conn(req->fd);
    if (detach_self(req->fd) &&
        stream_http_header(req->fd, "application/octet-stream", "pcapdump.cap") == 0)
        stream_pcap(req->fd, req->duration, req->totalsize);
    return nullptr;
}

void *run_ps_request(void *data)
{
    // The descriptor itself is the argument; 0 is a valid one.
    unique_fd conn(static_cast<int>(reinterpret_cast<intptr_t>(data)));
    int fd = conn.get();
    if (detach_self(fd) && stream_http_header(fd, "text/plain", "psdump.txt") == 0)
        stream_ps(fd);
    return nullptr;
}

void *run_rtrace_request(void *data)
{
    assert(data && "req");
    unique_heap<rtrace_req> req(static_cast<rtrace_req *>(data));
    unique_fd conn(req->fd);
    rtrace_config *config = nullptr;
    if (detach_self(req->fd)) {
        config = rtrace_create(req->fd, req->interval, req->mask);
        if (!config)
            reply_internal_error(req->fd);
        else if (stream_http_header(req->fd, "application/octet-stream", "rtrace") == 0)
            rtrace_run(config);
    }
    rtrace_destroy(config);
    return nullptr;
}

void strace_wakeup_handler(int) {}

void *run_strace_request(void *data)
{
    assert(data && "req");
    unique_heap<strace_req> req(static_cast<strace_req *>(data));
    unique_fd conn(req->fd);
    req->thread = pthread_self();
    if (!detach_self(req->fd))
        return nullptr;

    // Installed before the watcher exists: its first signal must find it.
    struct sigaction sa = {};
    sa.sa_handler = strace_wakeup_handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: the watcher's wait returns EINTR
    sigaction(SIGUSR1, &sa, nullptr);

    // The watcher starts with SIGUSR1 blocked and lets it in only inside its
    // wait, so a signal sent before it waits is not lost.
    sigset_t usr1, old;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &old);
    pthread_t watcher;
    int r = pthread_create(&watcher, nullptr, run_strace_watcher, req.get());
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (r != 0) {
        reply_internal_error(req->fd);
        return nullptr;
    }

    if (stream_http_header(req->fd, "text/plain", "stracedump.txt") == 0) {
        strace_ctx ctx = {};
        ctx.out = request_module::cb_strace;
        ctx.on_exit = nullptr;
        ctx.arg = req.get();
        ctx.flags = -1;
        ctx.pids = req->pids;
        ctx.npids = req->npids;
        ctx.duration = -1;
        ctx.children = 0;
        ctx.buf = nullptr;
        ctx.bufsize = 0;
        do_strace(&ctx);
    }

    store(&req->running, 0);
    store(&req->done, 1);
    pthread_kill(watcher, SIGUSR1);
    pthread_join(watcher, nullptr);
    return nullptr;
}

void *run_strace_watcher(void *data)
{
    assert(data && "data");
    strace_req *req = static_cast<strace_req *>(data);
    sigset_t waitmask;
    pthread_sigmask(SIG_BLOCK, nullptr, &waitmask);
    sigdelset(&waitmask, SIGUSR1);

    for (;;) {
        if (!load(&req->running))
            pthread_exit(nullptr);
        pollfd p = {req->fd, POLLIN, 0};
        int r = ppoll(&p, 1, nullptr, &waitmask);
        if (r > 0)
            break;
        // -1 (EINTR from the trace thread) or 0: look at the flag again.
    }

    // The client closed its side or sent something: the trace stops.
    if (load(&req->running)) {
        store(&req->running, 0);
        // Until the tracer says it is leaving (or is done), wake it now and
        // then: it may be attaching, or waiting behind another trace.
        for (;;) {
            pid_t wake = wake_tracer();
            timespec pause = {0, 200 * 1000 * 1000};
            ppoll(nullptr, 0, &pause, &waitmask);
            reap_wakeup(wake);
            if (load(&req->stopping) || load(&req->done))
                break;
        }
    }
    pthread_exit(nullptr);
}

int handle_request_push(int src_fd, const char *name)
{
    unique_fd src(src_fd);
    if (push_listener_fd == -1)
        return 1;
    // Served once: closed below, before the source.
    unique_fd listener_conn(push_listener_fd);
    push_listener_fd = -1;
    int listener = listener_conn.get();
    int result = stream_http_header(listener, "application/octet-stream", name);
    if (result == 0) {
        char buf[2048];
        for (;;) {
            int n = safe_read(src_fd, buf, sizeof buf);
            if (n < 0) {
                result = 1;
                break;
            }
            // The end of the dump: delivered.
            if (n == 0)
                break;
            // A listener that takes nothing must not hold the main thread.
            if (safe_write_within(listener, buf, static_cast<unsigned>(n), stall_limit_ms) < 0) {
                result = 1;
                break;
            }
        }
    }
    return result;
}
