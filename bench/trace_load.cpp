// Benchmark load: N x (getppid + a 48-byte write to /dev/null).
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    int n = argc > 1 ? atoi(argv[1]) : 100000;
    int fd = open("/dev/null", O_WRONLY);
    static const char line[49] = "0123456789abcdef0123456789abcdef0123456789abcde\n";
    for (int i = 0; i < n; i++) {
        getppid();
        if (write(fd, line, 48) != 48)
            return 1;
    }
    return 0;
}
