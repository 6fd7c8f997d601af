// Fuzzes the formatter table with arbitrary registers, memory and buffer
// sizes: output must stay within size and be counted as snprintf counts.
#include "fake_tracee.h"

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t head = sizeof(unsigned long) * SA_WORDS + 2;
    if (size < head)
        return 0;
    unsigned long block[SA_WORDS];
    memcpy(block, data, sizeof block);
    int bufsize = data[sizeof block] + 1;
    int entry = data[sizeof block + 1] & 1;
    // Most numbers should hit a named call of the table.
    block[SA_NR] = static_cast<unsigned long>(syscall_names_base) +
                   block[SA_NR] % static_cast<unsigned long>(syscall_names_count);

    fake_tracee t;
    t.mem.assign(data + head, data + size);
    t.bulk_partial = data[sizeof block + 1] & 2;
    t.fds[static_cast<int>(block[SA_A1] & 7)] = "socket:[1][127.0.0.1:1 -> 127.0.0.1:2][TCP_LISTEN]";
    // Point some arguments into the memory window.
    for (int k = SA_A1; k <= SA_A6; k++)
        if (block[k] & 1)
            block[k] = t.base + (block[k] >> 1) % (t.mem.size() + 16);
    trace_reader rd = t.reader();

    char *buf = static_cast<char *>(malloc(static_cast<size_t>(bufsize)));
    const strace_call call = arch_call(block[SA_NR]);
    int n = entry ? arch_print_syscall(nullptr, call, 7, "fuzz", buf, bufsize, block, &rd)
                  : arch_print_syscall_ret(nullptr, call, 7, "fuzz", buf, bufsize, block, &rd);
    if (n < 0 || (n < bufsize && strlen(buf) != static_cast<size_t>(n)))
        abort();
    free(buf);
    return 0;
}
