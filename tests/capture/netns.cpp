// Every test process of test_capture runs in a network namespace of its own,
// with only an idle loopback interface: captures and connections never touch
// the machine's network.
#include <gtest/gtest.h>

#include <net/if.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

class netns_env : public ::testing::Environment {
public:
    void SetUp() override
    {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "unshare(CLONE_NEWNET): " << strerror(errno)
                                             << " (the capture tests need root)";
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        ASSERT_GE(s, 0);
        ifreq ifr = {};
        strcpy(ifr.ifr_name, "lo");
        ASSERT_EQ(ioctl(s, SIOCGIFFLAGS, &ifr), 0);
        ifr.ifr_flags |= IFF_UP;
        ASSERT_EQ(ioctl(s, SIOCSIFFLAGS, &ifr), 0);
        close(s);
    }
};

[[maybe_unused]] auto *const env = ::testing::AddGlobalTestEnvironment(new netns_env);

} // namespace
