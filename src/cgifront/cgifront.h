// The web server's CGI front end of the debug service.  The web server starts
// it once per request with the client connection as standard output (it must
// be a non-parsed-header CGI, so that the connection is the socket itself and
// not a pipe through the server).  It passes that connection, with the request
// path and query string, to the running debug service and exits; the service
// answers straight into the connection.
#pragma once

#include <stddef.h>

// Where the debug service takes its requests.
#define CGIFRONT_SOCKET "/var/run/dbg-cgi/ctrl-cgi-socket"

// Largest control message the service accepts (path, NUL, query, NUL).
enum { CGIFRONT_MSG_MAX = 4095 };

// Builds the control message from the request path and the query string
// (either may be null, meaning empty) into buf.  Returns its length, or -1
// when it does not fit into size bytes.
int cgifront_message(char *buf, size_t size, const char *path, const char *query);

// Entry: reads SCRIPT_NAME, PATH_INFO and QUERY_STRING from the environment
// (arguments are ignored: a server may pass a query without "=" as words),
// hands descriptor 1 over to the service at CGIFRONT_SOCKET, and returns the
// exit status.  When the service does not take the request, it answers the
// client itself: 503 when no service is running, 400 for a request too long.
int run_cgifront(int argc, char **argv);
