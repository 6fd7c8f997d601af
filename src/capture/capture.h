// Capture tools: packet capture into pcap streams and the oops-log reader.
#pragma once

int run_pcapdump(int argc, char **argv);
int run_oopslog(int argc, char **argv);
