// The memory map of the process (from smaps, which adds what the plain maps
// file lacks: which mappings hold pages and the kernel's VmFlags) and the
// choice of what goes into the core.
#include "memsnap.h"

#include <elf.h>
#include <stdio.h>
#include <unistd.h>

namespace {

bool starts(const char *s, const char *prefix)
{
    return strncmp(s, prefix, strlen(prefix)) == 0;
}

bool ends(const char *s, const char *suffix)
{
    size_t n = strlen(s), k = strlen(suffix);
    return n >= k && strcmp(s + n - k, suffix) == 0;
}

// "start-end perms offset dev inode   path": 0, or -1 when the line is not a
// mapping's first line.
int parse_head(const char *line, snap_vma *m, const char **path)
{
    char *end;
    m->start = strtoull(line, &end, 16);
    if (end == line || *end != '-')
        return -1;
    const char *p = end + 1;
    m->end = strtoull(p, &end, 16);
    if (end == p || *end != ' ' || m->end < m->start)
        return -1;
    p = end + 1;
    if (strlen(p) < 5 || p[4] != ' ')
        return -1;
    m->prot = (p[0] == 'r' ? PF_R : 0) | (p[1] == 'w' ? PF_W : 0) | (p[2] == 'x' ? PF_X : 0);
    m->shared = p[3] == 's';
    p += 5;
    m->offset = strtoull(p, &end, 16);
    if (end == p || *end != ' ')
        return -1;
    p = end + 1;
    // Device major:minor and inode.
    p = strchr(p, ' ');
    if (!p)
        return -1;
    strtoull(p + 1, &end, 10);
    p = end;
    while (*p == ' ')
        p++;
    *path = p;
    return 0;
}

uint64_t kb_value(const char *line)
{
    const char *p = strchr(line, ':');
    return p ? strtoull(p + 1, nullptr, 10) : 0;
}

unsigned vm_flags(const char *p)
{
    unsigned f = 0;
    // Two-letter mnemonics separated by spaces.
    while (*p) {
        while (*p == ' ')
            p++;
        if (!p[0] || !p[1])
            break;
        if (p[0] == 'd' && p[1] == 'd')
            f |= SNAP_VM_DONTDUMP;
        else if (p[0] == 'i' && p[1] == 'o')
            f |= SNAP_VM_IO;
        else if (p[0] == 'h' && p[1] == 't')
            f |= SNAP_VM_HUGETLB;
        while (*p && *p != ' ')
            p++;
    }
    return f;
}

} // namespace

int snap_parse_smaps(snap_maps *maps, int fd)
{
    FILE *f = fdopen(dup(fd), "r");
    if (!f)
        return -1;
    char *line = nullptr;
    size_t cap = 0;
    ssize_t n;
    snap_vma *cur = nullptr;
    while ((n = getline(&line, &cap, f)) > 0) {
        if (line[n - 1] == '\n')
            line[--n] = 0;
        snap_vma m;
        memset(&m, 0, sizeof m);
        const char *path;
        if ((line[0] >= '0' && line[0] <= '9') || (line[0] >= 'a' && line[0] <= 'f')) {
            if (parse_head(line, &m, &path) == 0) {
                cur = maps->v.push();
                *cur = m;
                cur->name = SNAP_NONAME;
                if (*path) {
                    cur->name = static_cast<uint32_t>(maps->names.len);
                    maps->names.append(path, strlen(path) + 1);
                }
                continue;
            }
        }
        if (!cur)
            continue;
        if (starts(line, "Rss:"))
            cur->rss_kb = kb_value(line);
        else if (starts(line, "Swap:"))
            cur->swap_kb = kb_value(line);
        else if (starts(line, "Anonymous:"))
            cur->anon_kb = kb_value(line);
        else if (starts(line, "VmFlags:"))
            cur->vmflags = vm_flags(line + 8);
    }
    free(line);
    fclose(f);
    return 0;
}

// The kernel's own choice for its cores, with the same coredump_filter bits,
// told from what smaps shows.
int snap_vma_dump_kind(const snap_vma &m, const char *name, unsigned filter)
{
    // The vDSO holds the signal trampoline and its unwind data: debuggers
    // need it for backtraces through signal handlers.
    if (strcmp(name, "[vdso]") == 0)
        return SNAP_DUMP_WHOLE;
    if (m.vmflags & SNAP_VM_DONTDUMP)
        return SNAP_DUMP_NONE;
    if (m.vmflags & SNAP_VM_HUGETLB) {
        unsigned bit = m.shared ? SNAP_FILTER_HUGETLB_SHARED : SNAP_FILTER_HUGETLB_PRIVATE;
        return filter & bit ? SNAP_DUMP_WHOLE : SNAP_DUMP_NONE;
    }
    if (m.vmflags & SNAP_VM_IO)
        return SNAP_DUMP_NONE;
    // Special mappings of the kernel other than the vDSO ([vvar], [vsyscall])
    // hold nothing of the process and may not even be readable.
    if (name[0] == '[' && strcmp(name, "[heap]") != 0 && !starts(name, "[stack") &&
        !starts(name, "[anon"))
        return SNAP_DUMP_NONE;
    bool file = name[0] == '/';
    if (m.shared) {
        // Shared memory that no name in the file system reaches (deleted
        // files, /dev/zero, System V and memfd segments) counts as anonymous.
        bool anon = !file || ends(name, " (deleted)") || starts(name, "/SYSV");
        unsigned bit = anon ? SNAP_FILTER_ANON_SHARED : SNAP_FILTER_MAPPED_SHARED;
        return filter & bit ? SNAP_DUMP_WHOLE : SNAP_DUMP_NONE;
    }
    // Private mappings with pages of their own: all anonymous memory that was
    // touched, and the written (copied-on-write) parts of file mappings: the
    // data, bss and relocated pages of programs and libraries.
    if ((m.anon_kb || m.swap_kb || (!file && m.rss_kb)) && (filter & SNAP_FILTER_ANON_PRIVATE))
        return SNAP_DUMP_WHOLE;
    if (!file)
        return SNAP_DUMP_NONE;
    if (filter & SNAP_FILTER_MAPPED_PRIVATE)
        return SNAP_DUMP_WHOLE;
    // A deleted file's contents are nowhere else any more (a program or
    // library replaced while it runs): its readable mappings go in whole,
    // as anonymous memory would.
    if (ends(name, " (deleted)") && (m.prot & PF_R) && (filter & SNAP_FILTER_ANON_PRIVATE))
        return SNAP_DUMP_WHOLE;
    // Unchanged file contents are in the files themselves; the first page of
    // an ELF file goes in so that a debugger can match the files by build id.
    if ((filter & SNAP_FILTER_ELF_HEADERS) && m.offset == 0 && (m.prot & PF_R))
        return SNAP_DUMP_ELF_HEADER;
    return SNAP_DUMP_NONE;
}
