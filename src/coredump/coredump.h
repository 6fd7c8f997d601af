// Core dumps: cores of live processes through the external dumper, and the
// kernel's core-pattern pipe program.
#pragma once

int run_coredump_handler(int argc, char **argv);
