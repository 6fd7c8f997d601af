#include "memsnap.h"

int main(int argc, char **argv)
{
    return snap_main(argc, argv);
}
