// Process names and the parent field from arbitrary cmdline and stat text.
#include "proc.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Exact-size heap copies, so any read or write past the buffer is caught.
    char *buf = static_cast<char *>(malloc(size ? size : 1));
    if (!buf)
        return 0;

    memcpy(buf, data, size);
    if (proc_parse_cmdline_name(buf, size) && strlen(buf) >= size)
        abort();

    memcpy(buf, data, size);
    if (proc_parse_stat_name(buf, size) && strlen(buf) >= size)
        abort();

    memcpy(buf, data, size);
    (void)proc_parse_stat_ppid(buf, size);

    free(buf);
    return 0;
}
