// Monitoring: the resource-leak monitor and the runtime trace sampler.
#pragma once

int run_mon(int argc, char **argv);
