#include "dispatch.h"

int main(int argc, char **argv)
{
    return toolnest_main(argc, argv);
}
