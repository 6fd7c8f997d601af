// The CGI front end as a program of its own: the web server runs it per request.
#include "cgifront.h"

int main(int argc, char **argv)
{
    return run_cgifront(argc, argv);
}
