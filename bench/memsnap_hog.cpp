// A process for the core-dump benchmark: N MiB of anonymous memory, every
// page written (so the dumper has real pages to copy), then it waits for its
// standard input to close.  Prints "ready PID\n" when the memory is in place.
// usage: bench_memsnap_hog [MIB]
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    size_t mib = argc > 1 ? strtoul(argv[1], nullptr, 10) : 256;
    size_t len = mib << 20;
    unsigned char *p = static_cast<unsigned char *>(
        mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (p == MAP_FAILED) {
        perror("mmap");
        return 1;
    }
    for (size_t i = 0; i < len; i++)
        p[i] = static_cast<unsigned char>(i * 7 + (i >> 12));
    printf("ready %d\n", static_cast<int>(getpid()));
    fflush(stdout);
    char c;
    while (read(0, &c, 1) > 0)
        ;
    return p[len / 2] == static_cast<unsigned char>((len / 2) * 7 + ((len / 2) >> 12)) ? 0 : 1;
}
