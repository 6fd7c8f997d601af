// Runs the archive's gzip filter alone: standard input to a gzip stream on
// standard output, as the archive's filter child does.
#include <signal.h>

#include "archive.h"

int main()
{
    signal(SIGPIPE, SIG_IGN);
    return gzip_filter();
}
