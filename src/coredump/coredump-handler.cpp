// coredump-handler: the kernel's core-pattern pipe program.  The core arrives
// on standard input; it goes to an FTP server when the configuration says so,
// else over the crash socket to the running debug service.  There is no
// terminal: everything is logged through syslog.
#include "coredump.h"

// The page-size check stays in release builds too.
#undef NDEBUG
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <memory>

#include <curl/curl.h>

#include "common.h"
#include "kvconf.h"

namespace {

const char CONFIG_PATH[] = "/etc/conf.d/debugar.cgi";
const char SEGF_SOCKET_PATH[] = "/var/run/dbg-cgi/ctrl-segf-socket";

// The kernel starts a pipe program with nothing but standard input open.
// Keep descriptors 1 and 2 taken, so that no socket opened later becomes
// "standard error" and receives a message meant for the console.
void hold_std_descriptors()
{
    for (int fd = STDOUT_FILENO; fd <= STDERR_FILENO; fd++) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            int null = open("/dev/null", O_RDWR);
            if (null >= 0 && null != fd) {
                dup2(null, fd);
                close(null);
            }
        }
    }
}

// Argument checks; they apply only when the size argument is there.
// Returns 0, or 1 after logging what is wrong.
int check_arguments(int argc, char **argv, unsigned long long *limit)
{
    if (argc < 5) {
        syslog(LOG_ERR, "wrong number of arguments");
        return 1;
    }
    if (argv[4][0] == '\0') {
        syslog(LOG_ERR, "executable name argument missing");
        return 1;
    }
    if (argv[3][0] == '\0') {
        syslog(LOG_ERR, "executable path argument missing");
        return 1;
    }
    if (argv[2][0] == '\0') {
        syslog(LOG_ERR, "core file size argument missing");
        return 1;
    }
    char *end = nullptr;
    errno = 0;
    *limit = strtoull(argv[2], &end, 10);
    if (errno != 0 || *end != '\0') {
        syslog(LOG_ERR, "core file size limit parsing error");
        return 1;
    }
    return 0;
}

// The FTP settings: TargetURL, TargetPath and Timeout from the entries that
// follow the "CoreHandler" entry, later values replacing earlier ones.
struct ftp_settings {
    const char *url = nullptr;
    const char *path = nullptr;
    long timeout = 0;
};

void collect_ftp_settings(kvconf *cfg, ftp_settings *ftp)
{
    while (const kvconf_entry *e = kvconf_getcfg(cfg)) {
        if (strncmp(e->section, "CoreHandlerFtp", 14) != 0)
            continue;
        if (strncmp(e->key, "TargetURL", 9) == 0)
            ftp->url = e->value;
        else if (strncmp(e->key, "TargetPath", 10) == 0)
            ftp->path = e->value;
        else if (strncmp(e->key, "Timeout", 7) == 0)
            ftp->timeout = strtol(e->value, nullptr, 10);
    }
}

using curl_handle = unique_with<CURL, curl_easy_cleanup>;
using curl_list = unique_with<curl_slist, curl_slist_free_all>;

// One transfer of standard input to url, the rename sent after it.  The exit
// code.
int transfer_core(const ftp_settings &ftp, const char *url, const char *rnfr)
{
    curl_handle curl(curl_easy_init());
    if (!curl)
        return 1;
    curl_list postquote(curl_slist_append(nullptr, rnfr));
    if (!postquote)
        return 1;

    CURL *h = curl.get();
    if (curl_easy_setopt(h, CURLOPT_READFUNCTION, coredump_read_cb) != CURLE_OK ||
        curl_easy_setopt(h, CURLOPT_UPLOAD, 1L) != CURLE_OK ||
        curl_easy_setopt(h, CURLOPT_URL, url) != CURLE_OK ||
        curl_easy_setopt(h, CURLOPT_POSTQUOTE, postquote.get()) != CURLE_OK ||
        curl_easy_setopt(h, CURLOPT_TIMEOUT, ftp.timeout) != CURLE_OK)
        return 1;

    CURLcode rc = curl_easy_perform(h);
    if (rc == CURLE_OK)
        return 0;
    if (rc == CURLE_OPERATION_TIMEDOUT)
        syslog(LOG_WARNING, "coredump truncated.");
    return 1;
}

// Uploads standard input as name into TargetURL + TargetPath.  The exit code.
int upload_core(kvconf *cfg, const char *name)
{
    ftp_settings ftp;
    collect_ftp_settings(cfg, &ftp);
    if (!ftp.url)
        return 1;
    // No TargetPath: the file goes into the directory the URL names.
    const char *dir = ftp.path ? ftp.path : "";

    char *text = nullptr;
    if (asprintf(&text, "%s%s/%s", ftp.url, dir, name) < 0)
        return 1;
    unique_heap<char> url(text);
    // The rename is sent without its second half; the server's answer to it
    // decides the transfer's result.
    if (asprintf(&text, "RNFR %s/%s", dir, name) < 0)
        return 1;
    unique_heap<char> rnfr(text);

    // The global curl state lasts exactly one upload.
    if (curl_global_init(CURL_GLOBAL_ALL) != CURLE_OK)
        return 1;
    int result = transfer_core(ftp, url.get(), rnfr.get());
    curl_global_cleanup();
    return result;
}

// Streams standard input to the debug service.  The exit code.
int hand_over_core()
{
    int sock = cored_mgm_connect();
    if (sock == -1)
        return 1;
    // Whatever the service does with the core, the kernel's pipe is done.
    safe_copyfd(STDIN_FILENO, sock);
    cored_mgm_close(sock);
    return 0;
}

}  // namespace

size_t coredump_read_cb(char *buf, size_t size, size_t nmemb, void *)
{
    ssize_t n = read(STDIN_FILENO, buf, size * nmemb);
    if (n == -1)
        return CURL_READFUNC_ABORT;
    return static_cast<size_t>(n);
}

int cored_mgm_connect()
{
    int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock != -1) {
        sockaddr_un addr;
        memset(&addr, 0, sizeof addr);
        addr.sun_family = AF_UNIX;
        memcpy(addr.sun_path, SEGF_SOCKET_PATH, sizeof SEGF_SOCKET_PATH);
        // The whole structure is the address length, as the service binds it.
        if (connect(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0)
            return sock;
        close(sock);
    }
    fprintf(stderr, "connect to %s failed\n", SEGF_SOCKET_PATH);
    return -1;
}

void cored_mgm_close(int sock)
{
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(sock, &readable);
    timeval wait = {5, 0};
    int n = select(sock + 1, &readable, nullptr, nullptr, &wait);
    if (n > 0) {
        // The service's acknowledgement; what it says does not matter.
        char ack[8];
        ssize_t got = read(sock, ack, sizeof ack);
        (void)got;
    } else if (n == -1) {
        perror("select()");
    }
    close(sock);
}

int run_coredump_handler(int argc, char **argv)
{
    hold_std_descriptors();
    const char *name = argc > 1 ? argv[1] : "core.core";

    // Without the size argument there is no limit to honour.
    bool have_limit = argc >= 3;
    unsigned long long limit = 0;
    if (have_limit && check_arguments(argc, argv, &limit) != 0)
        return 1;

    long pagesize = sysconf(_SC_PAGESIZE);
    assert(pagesize > 0);
    if (have_limit && limit < static_cast<unsigned long long>(pagesize)) {
        unique_heap<char> path(strdup(argv[3]));
        if (path) {
            for (char *p = path.get(); *p; p++) {
                if (*p == '!')
                    *p = '/';
            }
        }
        syslog(LOG_INFO, "core dumps disabled for '%s/%s'", path ? path.get() : argv[3], argv[4]);
        return 0;
    }

    unique_with<kvconf, kvconf_closecfg> cfg(kvconf_opencfg(CONFIG_PATH));
    if (cfg) {
        const kvconf_entry *e;
        while ((e = kvconf_getcfg(cfg.get())) && strcmp(e->key, "CoreHandler") != 0) {
        }
        if (e && strncmp(e->value, "FTP", 3) == 0)
            return upload_core(cfg.get(), name);
    }
    return hand_over_core();
}
