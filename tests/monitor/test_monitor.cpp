// The leak monitor's bookkeeping on live processes of this test: history
// slots, averages, the report file's life cycle and reused pids.
#include "monitor.h"
#include "testutil.h"

#include <dirent.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <string>
#include <vector>

namespace {

monitor_proc *find(monitor *mon, int32_t pid)
{
    return static_cast<monitor_proc *>(
        ehash_lookup_e(mon->procs, &pid, sizeof pid, offsetof(monitor_proc, entry)));
}

int count_fds(pid_t pid)
{
    std::string path = "/proc/" + std::to_string(pid) + "/fd";
    DIR *d = opendir(path.c_str());
    if (!d)
        return -1;
    int n = 0;
    while (dirent *de = readdir(d))
        n += de->d_name[0] != '.';
    closedir(d);
    return n;
}

std::string slurp(const std::string &path)
{
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return "<missing>";
    std::string s = testutil::read_all(fd);
    close(fd);
    return s;
}

// A child that opens extra descriptors, says so on a pipe and waits until
// its control pipe closes (or, with exec_path, then runs that program).
struct child {
    pid_t pid = -1;
    int ctl = -1;
    child(int extra, const char *exec_path = nullptr)
    {
        int ready[2], go[2];
        EXPECT_EQ(pipe(ready), 0);
        EXPECT_EQ(pipe(go), 0);
        pid = fork();
        if (pid == 0) {
            close(ready[0]);
            close(go[1]);
            for (int i = 0; i < extra; i++)
                open("/dev/null", O_RDONLY);
            close(ready[1]);
            char c;
            while (read(go[0], &c, 1) > 0) {
                if (exec_path) {
                    execl(exec_path, exec_path, "1000", static_cast<char *>(nullptr));
                    _exit(1);
                }
            }
            _exit(0);
        }
        close(ready[1]);
        close(go[0]);
        char c;
        EXPECT_EQ(read(ready[0], &c, 1), 0);
        close(ready[0]);
        ctl = go[1];
    }
    void poke() { EXPECT_EQ(write(ctl, "x", 1), 1); }
    ~child()
    {
        close(ctl);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
};

} // namespace

TEST(Monitor, CreateAndDestroy)
{
    monitor *mon = monitor_create(nullptr);
    ASSERT_NE(mon, nullptr);
    EXPECT_EQ(mon->round, 1u);
    EXPECT_EQ(mon->report_path, nullptr);
    EXPECT_EQ(mon->report, nullptr);
    EXPECT_EQ(mon->procs->nbuckets, 1024u);
    monitor_run(mon);
    EXPECT_EQ(mon->round, 2u);
    EXPECT_GT(mon->procs->count, 0u);
    monitor_destroy(mon);
    monitor_destroy(nullptr);
}

TEST(Monitor, ReportIsReplacedEveryRound)
{
    char dir[] = "/tmp/tn-mon-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string path = std::string(dir) + "/report.txt";
    monitor *mon = monitor_create(path.c_str());
    for (unsigned round = 1; round <= 17; round++) {
        monitor_run(mon);
        char header[64];
        snprintf(header, sizeof header, "Debug monitor status round=%x\n\n", round);
        EXPECT_EQ(slurp(path).substr(0, strlen(header)), header);
    }
    monitor_destroy(mon);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    // Only the report: every temporary name was renamed over it.
    std::vector<std::string> names;
    DIR *d = opendir(dir);
    while (dirent *de = readdir(d)) {
        if (de->d_name[0] != '.')
            names.push_back(de->d_name);
    }
    closedir(d);
    EXPECT_EQ(names, std::vector<std::string>{"report.txt"});
    unlink(path.c_str());
    rmdir(dir);
}

TEST(Monitor, UnwritableReportDirectoryStillRunsTheRound)
{
    monitor *mon = monitor_create("/nonexistent/dir/report.txt");
    monitor_run(mon);
    EXPECT_EQ(mon->round, 2u);
    EXPECT_EQ(mon->report, nullptr);
    EXPECT_GT(mon->procs->count, 0u);
    monitor_destroy(mon);
}

TEST(Monitor, HistorySlotsAndAverages)
{
    child c(40);
    const int n = count_fds(c.pid);
    ASSERT_GT(n, 40);
    monitor *mon = monitor_create(nullptr);
    // The same count every round: the model of the slots.
    std::vector<int> slot(MONITOR_HISTORY, 0);
    for (unsigned round = 1; round <= 66; round++) {
        if ((round & 31) == 0) {
            slot[7] = slot[6];
            slot[6] = slot[5];
            slot[5] = slot[4];
        }
        int sum = slot[1] + slot[2] + slot[3];
        slot[3] = slot[2];
        slot[2] = slot[1];
        slot[1] = slot[0];
        slot[0] = n;
        // The sample of the round just before (now slot 1) is left out.
        slot[4] = (n + sum) / 4;
        monitor_run(mon);
        monitor_proc *rec = find(mon, c.pid);
        ASSERT_NE(rec, nullptr);
        for (int i = 0; i < MONITOR_HISTORY; i++)
            ASSERT_EQ(rec->hist[i].nr_fd, slot[i]) << "round " << round << " slot " << i;
        EXPECT_EQ(rec->hist[0].nr_sock, 0);
        EXPECT_EQ(rec->hist[0].nr_pipe, 0) << "pipe links never read exactly \"pipe:[\"";
        EXPECT_EQ(rec->ppid, getpid());
        EXPECT_EQ(rec->seen_round, round);
        EXPECT_EQ(rec->eval_round, round + 1);
    }
    monitor_destroy(mon);
}

TEST(Monitor, GoneProcessesAreDropped)
{
    monitor *mon = monitor_create(nullptr);
    pid_t pid;
    {
        child c(0);
        pid = c.pid;
        monitor_run(mon);
        ASSERT_NE(find(mon, pid), nullptr);
    }
    monitor_run(mon);
    EXPECT_EQ(find(mon, pid), nullptr);
    monitor_destroy(mon);
}

TEST(Monitor, ReusedPidStartsEmpty)
{
    child c(40, "/bin/sleep");
    monitor *mon = monitor_create(nullptr);
    monitor_run(mon);
    monitor_run(mon);
    monitor_proc *rec = find(mon, c.pid);
    ASSERT_NE(rec, nullptr);
    EXPECT_GT(rec->hist[1].nr_fd, 40);
    std::string before = rec->name;
    c.poke();
    // The same pid under another program's name.
    ASSERT_TRUE(testutil::wait_exec(c.pid, "/bin/sleep"));
    char name[128] = {};
    proc_get_pidname(c.pid, name, sizeof name);
    ASSERT_STREQ(name, "sleep");
    monitor_run(mon);
    rec = find(mon, c.pid);
    ASSERT_NE(rec, nullptr);
    EXPECT_STRNE(rec->name, before.c_str());
    EXPECT_STREQ(rec->name, "sleep");
    for (int i = 1; i < MONITOR_HISTORY; i++) {
        if (i == 4)
            continue;
        EXPECT_EQ(rec->hist[i].nr_fd, 0) << "slot " << i;
    }
    EXPECT_EQ(rec->hist[4].nr_fd, rec->hist[0].nr_fd / 4);
    EXPECT_EQ(rec->fd_score_peak, 0);
    EXPECT_EQ(rec->nr_childs_peak, 0);
    monitor_destroy(mon);
}

TEST(Monitor, LogGoesToStderr)
{
    testing::internal::CaptureStderr();
    monitor_log(nullptr, "pid %d name %s fd_score %d [%s%d] sk=%d\n", 5, "x", 65, "+", 65, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "pid 5 name x fd_score 65 [+65] sk=0\n");
}
