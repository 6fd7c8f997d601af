#include "cgifront.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include "tar.h"
#include "handoff.h"

int cgifront_message(char *buf, size_t size, const char *path, const char *query)
{
    if (!path)
        path = "";
    if (!query)
        query = "";
    size_t lp = strlen(path);
    size_t lq = strlen(query);
    if (lp + 1 + lq + 1 > size)
        return -1;
    memcpy(buf, path, lp);
    buf[lp] = '\0';
    memcpy(buf + lp + 1, query, lq);
    buf[lp + 1 + lq] = '\0';
    return static_cast<int>(lp + 1 + lq + 1);
}

int run_cgifront(int argc, char **argv)
{
    (void)argc;
    (void)argv;
    // A client that is already gone must not kill us before we report.
    signal(SIGPIPE, SIG_IGN);

    // The request path as the service sees it: the script's own path followed
    // by the extra path, whose last component names the download.
    const char *script = getenv("SCRIPT_NAME");
    const char *extra = getenv("PATH_INFO");
    char path[CGIFRONT_MSG_MAX + 1];
    size_t ls = script ? strlen(script) : 0;
    size_t le = extra ? strlen(extra) : 0;
    char msg[CGIFRONT_MSG_MAX];
    int len = -1;
    if (ls + le < sizeof path) {
        memcpy(path, script ? script : "", ls);
        memcpy(path + ls, extra ? extra : "", le);
        path[ls + le] = '\0';
        len = cgifront_message(msg, sizeof msg, path, getenv("QUERY_STRING"));
    }
    if (len < 0) {
        stream_http_message(1, "400 Bad Request",
                            "The request is too long for the debug service.");
        return 0;
    }

    int r = handoff_send(CGIFRONT_SOCKET, 1, msg, static_cast<size_t>(len));
    if (r == 0)
        return 0; // the service owns the connection now
    openlog("dbg-cgi-front", LOG_PID, LOG_DAEMON);
    syslog(LOG_ERR, "cannot reach %s: %s", CGIFRONT_SOCKET, strerror(-r));
    closelog();
    stream_http_message(1, "503 Service Unavailable",
                        "The debug service is not running on this device. "
                        "Start debugar.cgi and try again.");
    return 0;
}
