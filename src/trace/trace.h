// System-call tracing: ptrace session helpers, the tracer core, system-call
// decoding and the tstrace and stopper applets.
#pragma once

int run_tstrace(int argc, char **argv);
int run_stopper(int argc, char **argv);
