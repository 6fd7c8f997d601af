// The dumper's report line is untrusted text: random lines through the parser
// must never touch memory outside the line or the process list.
#include <stdint.h>
#include <string.h>

#include <vector>

#include "coredump.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 256)
        size = 256;
    std::vector<char> line(data, data + size);
    line.push_back('\0');
    int32_t pids[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    int index = size ? data[0] % 8 : 0;
    dump_parse_report(line.data(), static_cast<int>(size), pids, index, 8);
    return 0;
}
