// Any query string through the query decoder: it must not crash or read out
// of bounds, and no decoded value is longer than the query it came from.
#include "querykit.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string q(reinterpret_cast<const char *>(data), size);
    q = q.c_str();  // a C string ends at its first NUL
    CGI_set_query(q.c_str());
    int n = CGI_save_env();
    if (n < 0 || static_cast<size_t>(n) > q.size())
        abort();
    // The first name of the query, decoded or not, and the usual ones.
    std::string first = q.substr(0, q.find_first_of("=&"));
    for (const char *name : {"cmd", "pid", "trace", "interval", "", first.c_str()}) {
        char *v = CGI_get_value(name);
        if (v && strlen(v) > q.size())
            abort();
        if (v && *v)
            v[0] = 'x';  // values are the caller's to edit
    }
    // A first name without escapes is found as it stands.
    if (!first.empty() && first.find_first_of("%+") == std::string::npos &&
        !CGI_get_value(first.c_str()))
        abort();
    // Replaced without a cleanup, as the request parser may leave it.
    CGI_set_query("cmd=ps");
    if (CGI_save_env() != 1)
        abort();
    CGI_cleanup();
    return 0;
}
