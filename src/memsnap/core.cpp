// The ELF core: process facts, notes, the file layout, and the stream.
//
// Layout, as the kernel writes its own cores: ELF header, program headers
// (PT_NOTE, then one PT_LOAD per mapping in address order), the notes, zeros
// up to a page boundary, then the dumped bytes of each mapping in the same
// order.  A process with PN_XNUM or more headers gets the extended numbering:
// one section header at the very end holds the real count.
#include "memsnap.h"

#include "common.h"

#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

typedef ElfW(Ehdr) Ehdr;
typedef ElfW(Phdr) Phdr;
typedef ElfW(Shdr) Shdr;
typedef ElfW(Nhdr) Nhdr;
typedef ElfW(Addr) Word;

// The whole of a small /proc file (NUL-terminated), or -1.
ssize_t read_small(const char *path, char *buf, size_t size)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    int n = safe_read(fd, buf, static_cast<unsigned>(size - 1));
    close(fd);
    if (n < 0)
        return -1;
    buf[n] = 0;
    return n;
}

// The fields of a stat text after the command name: fields[0] is field 3
// (the state letter, as a character code), fields[k] field k + 3.
int stat_fields(const char *path, unsigned long long *fields, int nfields)
{
    char buf[1024];
    if (read_small(path, buf, sizeof buf) <= 0)
        return -1;
    const char *p = strrchr(buf, ')');
    if (!p || p[1] != ' ')
        return -1;
    p += 2;
    fields[0] = static_cast<unsigned char>(*p);
    int i = 1;
    p++;
    while (i < nfields && *p == ' ') {
        char *end;
        // Signed fields (nice, priority) come back as their two's complement.
        fields[i++] = static_cast<unsigned long long>(strtoll(p + 1, &end, 10));
        p = end;
    }
    return i;
}

// The value of a "Key:" line of a status file, parsed in base.
unsigned long long status_value(const char *text, const char *key, int base)
{
    const char *p = strstr(text, key);
    if (!p)
        return 0;
    return strtoull(p + strlen(key), nullptr, base);
}

} // namespace

unsigned long snap_sigmask_low(const char *hex)
{
    while (*hex == ' ' || *hex == '\t')
        hex++;
    size_t n = strspn(hex, "0123456789abcdefABCDEF");
    // The mask may be wider than a word (128 signals on MIPS: 32 digits);
    // the note keeps the low word, the last digits.
    size_t keep = 2 * sizeof(unsigned long);
    const char *p = n > keep ? hex + n - keep : hex;
    unsigned long v = 0;
    for (; p < hex + n; p++) {
        int c = *p;
        int d = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
        v = v << 4 | static_cast<unsigned long>(d);
    }
    return v;
}

namespace {

enum { F_STATE = 0, F_PPID = 1, F_PGRP = 2, F_SID = 3, F_FLAGS = 6, F_UTIME = 11, F_STIME = 12,
       F_CUTIME = 13, F_CSTIME = 14, F_NICE = 16, F_COUNT = 17 };

void ticks_to(unsigned long long ticks, decltype(elf_prstatus::pr_utime) *tv)
{
    long hz = sysconf(_SC_CLK_TCK);
    if (hz <= 0)
        hz = 100;
    tv->tv_sec = static_cast<decltype(tv->tv_sec)>(ticks / static_cast<unsigned long long>(hz));
    tv->tv_usec = static_cast<decltype(tv->tv_usec)>(ticks % static_cast<unsigned long long>(hz) *
                                                     1000000 / static_cast<unsigned long long>(hz));
}

void note(snap_buf *out, const char *name, unsigned type, const void *desc, size_t size)
{
    Nhdr h;
    h.n_namesz = static_cast<uint32_t>(strlen(name) + 1);
    h.n_descsz = static_cast<uint32_t>(size);
    h.n_type = type;
    out->append(&h, sizeof h);
    out->append(name, h.n_namesz);
    out->append(nullptr, (4 - h.n_namesz % 4) % 4);
    out->append(desc, size);
    out->append(nullptr, (4 - size % 4) % 4);
}

void thread_notes(const snap_proc *p, const snap_thread &t, const unsigned long long *proc_stat,
                  snap_buf *out, bool first)
{
    elf_prstatus st;
    memset(&st, 0, sizeof st);
    st.pr_pid = t.tid;
    st.pr_ppid = static_cast<pid_t>(proc_stat[F_PPID]);
    st.pr_pgrp = static_cast<pid_t>(proc_stat[F_PGRP]);
    st.pr_sid = static_cast<pid_t>(proc_stat[F_SID]);
    char path[96];
    snprintf(path, sizeof path, "/proc/%d/task/%d/status", p->tgid, t.tid);
    char text[4096];
    if (read_small(path, text, sizeof text) > 0) {
        const char *pnd = strstr(text, "\nSigPnd:");
        const char *blk = strstr(text, "\nSigBlk:");
        st.pr_sigpend = pnd ? snap_sigmask_low(pnd + 8) : 0;
        st.pr_sighold = blk ? snap_sigmask_low(blk + 8) : 0;
    }
    unsigned long long ts[F_COUNT] = {};
    snprintf(path, sizeof path, "/proc/%d/task/%d/stat", p->tgid, t.tid);
    if (stat_fields(path, ts, F_COUNT) > F_STIME) {
        ticks_to(ts[F_UTIME], &st.pr_utime);
        ticks_to(ts[F_STIME], &st.pr_stime);
    }
    if (first) {
        ticks_to(proc_stat[F_CUTIME], &st.pr_cutime);
        ticks_to(proc_stat[F_CSTIME], &st.pr_cstime);
    }
    memcpy(&st.pr_reg, &t.regs, sizeof st.pr_reg);
    st.pr_fpvalid = t.nextra > 0 && t.extra[0].type == NT_PRFPREG;
    note(out, "CORE", NT_PRSTATUS, &st, sizeof st);

    if (first) {
        note(out, "CORE", NT_PRPSINFO, &p->psinfo, sizeof p->psinfo);
        if (p->auxv.len)
            note(out, "CORE", NT_AUXV, p->auxv.p, p->auxv.len);
        // NT_FILE: count, page size, then (start, end, offset in pages) of
        // every file mapping, then their paths.
        const snap_maps &m = *p->maps;
        snap_buf files;
        Word head[2] = {0, p->pagesize};
        files.append(head, sizeof head);
        for (int i = 0; i < m.v.n; i++) {
            if (m.name(m.v[i])[0] != '/')
                continue;
            Word e[3] = {static_cast<Word>(m.v[i].start), static_cast<Word>(m.v[i].end),
                         static_cast<Word>(m.v[i].offset / p->pagesize)};
            files.append(e, sizeof e);
            head[0]++;
        }
        for (int i = 0; i < m.v.n; i++) {
            const char *name = m.name(m.v[i]);
            if (name[0] == '/')
                files.append(name, strlen(name) + 1);
        }
        memcpy(files.p, head, sizeof head);
        note(out, "CORE", NT_FILE, files.p, files.len);
    }
    for (int r = 0; r < t.nextra; r++)
        note(out, t.extra[r].name, t.extra[r].type, t.extra[r].data, t.extra[r].size);
}

// The output: a ring of buffers.  The dumping thread fills them (headers,
// notes, memory) while a writer thread empties them into the descriptor, so
// reading the process and writing the core overlap; the memory held stays at
// the size of the ring, whatever the size of the core.
enum { RING = 4, CHUNK = 1 << 20 };
alignas(4096) unsigned char ring_buf[RING][CHUNK];

class writer {
public:
    writer(int fd) : fd_(fd)
    {
        pthread_mutex_init(&mu_, nullptr);
        pthread_cond_init(&cv_, nullptr);
        // Without a thread the same ring is written synchronously.
        threaded_ = pthread_create(&thread_, nullptr, run, this) == 0;
    }
    ~writer()
    {
        finish();
        pthread_cond_destroy(&cv_);
        pthread_mutex_destroy(&mu_);
    }
    writer(const writer &) = delete;
    writer &operator=(const writer &) = delete;

    int put(const void *data, size_t n)
    {
        const unsigned char *d = static_cast<const unsigned char *>(data);
        while (n) {
            if (used_ == CHUNK && submit() < 0)
                return -1;
            size_t k = n < CHUNK - used_ ? n : CHUNK - used_;
            if (d) {
                memcpy(ring_buf[head_] + used_, d, k);
                d += k;
            } else {
                memset(ring_buf[head_] + used_, 0, k);
            }
            used_ += k;
            n -= k;
        }
        return 0;
    }
    int put_mem(int pid, int mem_fd, uint64_t addr, uint64_t n, unsigned pagesize)
    {
        while (n) {
            if (used_ == CHUNK && submit() < 0)
                return -1;
            size_t k = n < CHUNK - used_ ? static_cast<size_t>(n) : CHUNK - used_;
            snap_read_mem(pid, mem_fd, addr, ring_buf[head_] + used_, k, pagesize);
            used_ += k;
            addr += k;
            n -= k;
        }
        return 0;
    }
    // Writes what is left and waits for the writer: the bytes written, and
    // the errno of a failed write (0 when none).
    uint64_t finish(int *err = nullptr)
    {
        if (!finished_) {
            submit();
            finished_ = true;
            if (threaded_) {
                pthread_mutex_lock(&mu_);
                done_ = true;
                pthread_cond_broadcast(&cv_);
                pthread_mutex_unlock(&mu_);
                pthread_join(thread_, nullptr);
            }
        }
        pthread_mutex_lock(&mu_);
        uint64_t w = written_;
        if (err)
            *err = failed_;
        pthread_mutex_unlock(&mu_);
        return w;
    }

private:
    // Hands the buffer being filled to the writer and takes the next free
    // one; -1 once a write failed.
    int submit()
    {
        size_t n = used_;
        used_ = 0;
        if (!threaded_) {
            if (n && !failed_ && safe_write_within(fd_, ring_buf[head_], static_cast<unsigned>(n), stall_limit_ms) < 0)
                failed_ = errno;
            else if (!failed_)
                written_ += n;
            return failed_ ? -1 : 0;
        }
        pthread_mutex_lock(&mu_);
        if (n) {
            len_[head_] = n;
            head_ = (head_ + 1) % RING;
            full_++;
            pthread_cond_broadcast(&cv_);
        }
        while (full_ == RING && !failed_)
            pthread_cond_wait(&cv_, &mu_);
        int r = failed_ ? -1 : 0;
        pthread_mutex_unlock(&mu_);
        return r;
    }

    static void *run(void *arg)
    {
        static_cast<writer *>(arg)->drain();
        return nullptr;
    }
    void drain()
    {
        pthread_mutex_lock(&mu_);
        for (;;) {
            while (full_ == 0 && !done_)
                pthread_cond_wait(&cv_, &mu_);
            if (full_ == 0)
                break;
            int i = tail_;
            size_t n = len_[i];
            bool skip = failed_ != 0;
            pthread_mutex_unlock(&mu_);
            // After a failure the rest is dropped, so the filler never waits.
            int e = 0;
            if (!skip && safe_write_within(fd_, ring_buf[i], static_cast<unsigned>(n), stall_limit_ms) < 0)
                e = errno;
            pthread_mutex_lock(&mu_);
            if (e)
                failed_ = e;
            else if (!skip)
                written_ += n;
            tail_ = (tail_ + 1) % RING;
            full_--;
            pthread_cond_broadcast(&cv_);
        }
        pthread_mutex_unlock(&mu_);
    }

    int fd_;
    bool threaded_ = false;
    bool finished_ = false;
    pthread_t thread_;
    pthread_mutex_t mu_;
    pthread_cond_t cv_;
    // The filler's own: the buffer it fills and how far.
    size_t used_ = 0;
    // Shared under mu_ (head_ is the filler's, read by nobody else).
    int head_ = 0, tail_ = 0, full_ = 0;
    size_t len_[RING] = {};
    bool done_ = false;
    int failed_ = 0;
    uint64_t written_ = 0;
};

} // namespace

uint64_t snap_read_mem(int pid, int mem_fd, uint64_t addr, unsigned char *buf, size_t len,
                       unsigned pagesize)
{
    size_t done = 0;
    uint64_t zeroed = 0;
    while (done < len) {
        // Straight from the process in one copy; it stops at the first page
        // the process itself could not read.
        iovec local = {buf + done, len - done};
        iovec remote = {reinterpret_cast<void *>(static_cast<uintptr_t>(addr + done)), len - done};
        ssize_t n = process_vm_readv(pid, &local, 1, &remote, 1, 0);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        // That page through /proc/PID/mem, which also reads pages the
        // process has no access to; what even that cannot read (I/O memory,
        // a hole in a truncated file) becomes zeros, so the length stays exact.
        uint64_t at = addr + done;
        size_t k = static_cast<size_t>((at / pagesize + 1) * pagesize - at);
        if (k > len - done)
            k = len - done;
        size_t got = 0;
        while (got < k) {
            ssize_t r = pread(mem_fd, buf + done + got, k - got, static_cast<off_t>(at + got));
            if (r > 0)
                got += static_cast<size_t>(r);
            else if (!(r < 0 && errno == EINTR))
                break;
        }
        memset(buf + done + got, 0, k - got);
        zeroed += k - got;
        done += k;
    }
    return zeroed;
}

int snap_read_proc(snap_proc *p)
{
    char path[96];
    memset(&p->psinfo, 0, sizeof p->psinfo);
    unsigned long long f[F_COUNT] = {};
    snprintf(path, sizeof path, "/proc/%d/stat", p->tgid);
    if (stat_fields(path, f, F_COUNT) < F_COUNT)
        return snap_fail("process %d: cannot read its stat file", p->pid);
    static const char states[] = "RSDTZW";
    const char *s = strchr(states, static_cast<int>(f[F_STATE]));
    p->psinfo.pr_state = s ? static_cast<char>(s - states) : 0;
    p->psinfo.pr_sname = static_cast<char>(f[F_STATE]);
    p->psinfo.pr_zomb = f[F_STATE] == 'Z';
    p->psinfo.pr_nice = static_cast<char>(static_cast<long long>(f[F_NICE]));
    p->psinfo.pr_flag = static_cast<unsigned long>(f[F_FLAGS]);
    p->psinfo.pr_pid = p->tgid;
    p->psinfo.pr_ppid = static_cast<int>(f[F_PPID]);
    p->psinfo.pr_pgrp = static_cast<int>(f[F_PGRP]);
    p->psinfo.pr_sid = static_cast<int>(f[F_SID]);

    char text[4096];
    snprintf(path, sizeof path, "/proc/%d/status", p->tgid);
    if (read_small(path, text, sizeof text) > 0) {
        p->psinfo.pr_uid = static_cast<decltype(p->psinfo.pr_uid)>(status_value(text, "\nUid:", 10));
        p->psinfo.pr_gid = static_cast<decltype(p->psinfo.pr_gid)>(status_value(text, "\nGid:", 10));
    }
    snprintf(path, sizeof path, "/proc/%d/comm", p->tgid);
    ssize_t n = read_small(path, text, sizeof text);
    if (n > 0) {
        if (text[n - 1] == '\n')
            text[--n] = 0;
        // The field need not be terminated when the name fills it.
        size_t k = static_cast<size_t>(n) < sizeof p->psinfo.pr_fname ? static_cast<size_t>(n)
                                                                       : sizeof p->psinfo.pr_fname;
        memcpy(p->psinfo.pr_fname, text, k);
    }
    snprintf(path, sizeof path, "/proc/%d/cmdline", p->tgid);
    n = read_small(path, text, sizeof p->psinfo.pr_psargs);
    if (n > 0) {
        for (ssize_t i = 0; i < n; i++)
            if (!text[i])
                text[i] = ' ';
        while (n > 0 && text[n - 1] == ' ')
            text[--n] = 0;
        memcpy(p->psinfo.pr_psargs, text, static_cast<size_t>(n));
    }

    // The auxiliary vector tells a debugger where the program and the vDSO
    // are loaded.
    int live = snap_live_tid(p->threads, p->pid);
    snprintf(path, sizeof path, "/proc/%d/task/%d/auxv", p->tgid, live);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char buf[4096];
        int k;
        while ((k = safe_read(fd, buf, sizeof buf)) > 0)
            p->auxv.append(buf, static_cast<size_t>(k));
        close(fd);
    }

    uint32_t exe_flags = 0;
    snprintf(path, sizeof path, "/proc/%d/exe", p->tgid);
    fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        Ehdr h;
        if (pread(fd, &h, sizeof h, 0) == static_cast<ssize_t>(sizeof h) &&
            memcmp(h.e_ident, ELFMAG, SELFMAG) == 0 && h.e_ident[EI_CLASS] == snap_arch_class)
            exe_flags = h.e_flags;
        close(fd);
    }
    p->eflags = snap_arch_eflags(exe_flags);
    return 0;
}

void snap_size_mappings(snap_proc *p, unsigned filter)
{
    snap_maps &m = *p->maps;
    for (int i = 0; i < m.v.n; i++) {
        snap_vma &v = m.v[i];
        switch (snap_vma_dump_kind(v, m.name(v), filter)) {
        case SNAP_DUMP_WHOLE:
            v.dump = v.end - v.start;
            break;
        case SNAP_DUMP_ELF_HEADER: {
            unsigned char magic[SELFMAG];
            v.dump = pread(p->mem_fd, magic, SELFMAG, static_cast<off_t>(v.start)) == SELFMAG &&
                                 memcmp(magic, ELFMAG, SELFMAG) == 0
                         ? p->pagesize
                         : 0;
            if (v.dump > v.end - v.start)
                v.dump = v.end - v.start;
            break;
        }
        default:
            v.dump = 0;
        }
    }
}

void snap_build_notes(const snap_proc *p, snap_buf *out)
{
    unsigned long long ps[F_COUNT] = {};
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/stat", p->tgid);
    stat_fields(path, ps, F_COUNT);
    // The requested thread first: a debugger starts in the first thread.
    const snap_threads &ts = *p->threads;
    int first = -1;
    for (int i = 0; i < ts.t.n; i++)
        if (ts.t[i].has_regs && (first < 0 || ts.t[i].tid == p->pid))
            first = i;
    if (first < 0)
        return;
    thread_notes(p, ts.t[first], ps, out, true);
    for (int i = 0; i < ts.t.n; i++)
        if (i != first && ts.t[i].has_regs)
            thread_notes(p, ts.t[i], ps, out, false);
}

int snap_plan(const snap_proc *p, uint64_t notes_size, snap_layout *lay)
{
    const snap_maps &m = *p->maps;
    memset(lay, 0, sizeof *lay);
    lay->phnum = 1 + m.v.n;
    lay->extnum = lay->phnum >= PN_XNUM;
    lay->phoff = sizeof(Ehdr);
    lay->notes_off = lay->phoff + static_cast<uint64_t>(lay->phnum) * sizeof(Phdr);
    lay->notes_size = notes_size;
    lay->data_off = (lay->notes_off + notes_size + p->pagesize - 1) / p->pagesize * p->pagesize;
    uint64_t total = lay->data_off;
    for (int i = 0; i < m.v.n; i++)
        total += m.v[i].dump;
    if (lay->extnum) {
        lay->shoff = total;
        total += sizeof(Shdr);
    }
    lay->total = total;
    if (static_cast<Word>(total) != total)
        return snap_fail("process %d: a core of %llu bytes does not fit this ELF class", p->pid,
                         static_cast<unsigned long long>(total));
    return 0;
}

int snap_write_core(const snap_proc *p, const snap_buf *notes, const snap_layout *lay, int fd)
{
    const snap_maps &m = *p->maps;
    writer w(fd);

    Ehdr eh;
    memset(&eh, 0, sizeof eh);
    memcpy(eh.e_ident, ELFMAG, SELFMAG);
    eh.e_ident[EI_CLASS] = snap_arch_class;
    eh.e_ident[EI_DATA] = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB : ELFDATA2MSB;
    eh.e_ident[EI_VERSION] = EV_CURRENT;
    eh.e_ident[EI_OSABI] = ELFOSABI_NONE;
    eh.e_type = ET_CORE;
    eh.e_machine = snap_arch_machine;
    eh.e_version = EV_CURRENT;
    eh.e_phoff = static_cast<decltype(eh.e_phoff)>(lay->phoff);
    eh.e_flags = p->eflags;
    eh.e_ehsize = sizeof(Ehdr);
    eh.e_phentsize = sizeof(Phdr);
    eh.e_phnum = static_cast<uint16_t>(lay->extnum ? PN_XNUM : lay->phnum);
    if (lay->extnum) {
        eh.e_shoff = static_cast<decltype(eh.e_shoff)>(lay->shoff);
        eh.e_shentsize = sizeof(Shdr);
        eh.e_shnum = 1;
        eh.e_shstrndx = SHN_UNDEF;
    }
    w.put(&eh, sizeof eh);

    Phdr ph;
    memset(&ph, 0, sizeof ph);
    ph.p_type = PT_NOTE;
    ph.p_offset = static_cast<decltype(ph.p_offset)>(lay->notes_off);
    ph.p_filesz = static_cast<decltype(ph.p_filesz)>(lay->notes_size);
    ph.p_align = 4;
    w.put(&ph, sizeof ph);
    uint64_t off = lay->data_off;
    for (int i = 0; i < m.v.n; i++) {
        const snap_vma &v = m.v[i];
        memset(&ph, 0, sizeof ph);
        ph.p_type = PT_LOAD;
        ph.p_offset = static_cast<decltype(ph.p_offset)>(off);
        ph.p_vaddr = static_cast<decltype(ph.p_vaddr)>(v.start);
        ph.p_filesz = static_cast<decltype(ph.p_filesz)>(v.dump);
        ph.p_memsz = static_cast<decltype(ph.p_memsz)>(v.end - v.start);
        ph.p_flags = v.prot;
        ph.p_align = p->pagesize;
        w.put(&ph, sizeof ph);
        off += v.dump;
    }
    w.put(notes->p, notes->len);
    w.put(nullptr, lay->data_off - lay->notes_off - notes->len);
    for (int i = 0; i < m.v.n; i++)
        if (m.v[i].dump && w.put_mem(p->mem_pid, p->mem_fd, m.v[i].start, m.v[i].dump, p->pagesize) < 0)
            break;
    if (lay->extnum) {
        Shdr sh;
        memset(&sh, 0, sizeof sh);
        sh.sh_type = SHT_NULL;
        sh.sh_info = static_cast<decltype(sh.sh_info)>(lay->phnum);
        w.put(&sh, sizeof sh);
    }
    int err;
    uint64_t written = w.finish(&err);
    if (err)
        return snap_fail("cannot write the core: %s", strerror(err));
    if (written != lay->total)
        return snap_fail("wrote %llu bytes of a core of %llu", static_cast<unsigned long long>(written),
                         static_cast<unsigned long long>(lay->total));
    return 0;
}
