// A synthetic tracee for the decoder tests: registers, memory with one
// readable window, and descriptor descriptions, behind a trace_reader.
#pragma once

#include "trace.h"

#include <errno.h>
#include <map>
#include <string.h>
#include <string>
#include <vector>

struct fake_tracee {
    // Readable memory: [base, base + mem.size()).
    unsigned long base = 0x10000000;
    std::vector<unsigned char> mem = std::vector<unsigned char>(4096, 0);
    std::map<unsigned long, unsigned long> user;  // PEEKUSER offset -> value
    std::vector<unsigned char> regs_block = std::vector<unsigned char>(304, 0);
    std::map<int, std::string> fds;
    bool getregs_fails = false;
    bool bulk = true;              // offer readmem
    bool bulk_partial = true;      // readmem stops at the window's end
    int peeks = 0, bulk_reads = 0, preads = 0;
    std::vector<std::pair<unsigned long, unsigned long>> pokes;
    std::vector<std::string> log;  // register and stack reads in order

    trace_reader reader();

    unsigned long put(unsigned long off, const void *p, size_t n)
    {
        memcpy(mem.data() + off, p, n);
        return base + off;
    }
    unsigned long put_str(unsigned long off, const std::string &s)
    {
        return put(off, s.c_str(), s.size() + 1);
    }
    void put_word(unsigned long addr, unsigned long v)
    {
        memcpy(mem.data() + (addr - base), &v, sizeof v);
    }
};

inline fake_tracee *self(void *a)
{
    return static_cast<fake_tracee *>(a);
}

inline trace_reader fake_tracee::reader()
{
    trace_reader r{};
    r.arg = this;
    r.getregs = [](void *a, int, void *block) {
        self(a)->log.push_back("getregs");
        if (self(a)->getregs_fails)
            return -1;
        memcpy(block, self(a)->regs_block.data(), 304);
        return 0;
    };
    r.peekuser = [](void *a, int, unsigned long off, unsigned long *v) {
        self(a)->log.push_back("user " + std::to_string(off));
        auto it = self(a)->user.find(off);
        *v = it == self(a)->user.end() ? 0 : it->second;
        return 0;
    };
    r.peekdata = [](void *a, int, unsigned long addr, unsigned long *v) {
        fake_tracee *t = self(a);
        t->peeks++;
        if (addr < t->base || addr - t->base > t->mem.size() ||
            t->mem.size() - (addr - t->base) < sizeof *v) {
            errno = EIO;
            *v = static_cast<unsigned long>(-1);
            return -1;
        }
        memcpy(v, t->mem.data() + (addr - t->base), sizeof *v);
        return 0;
    };
    r.pokeuser = [](void *a, int, unsigned long off, unsigned long v) {
        self(a)->pokes.emplace_back(off, v);
        return 0;
    };
    if (bulk)
        r.readmem = [](void *a, int, unsigned long addr, void *buf, unsigned long len) -> long {
            fake_tracee *t = self(a);
            t->bulk_reads++;
            if (addr < t->base || addr - t->base >= t->mem.size())
                return -1;
            unsigned long avail = t->base + t->mem.size() - addr;
            if (len > avail) {
                if (!t->bulk_partial)
                    return -1;
                len = avail;
            }
            memcpy(buf, t->mem.data() + (addr - t->base), len);
            return static_cast<long>(len);
        };
    r.fdinfo = [](void *a, int, int fd, char *buf, int size) {
        auto it = self(a)->fds.find(fd);
        if (it == self(a)->fds.end())
            return -1;
        return snprintf(buf, static_cast<size_t>(size), "%s", it->second.c_str());
    };
    r.mem_pread = [](void *a, int, void *, unsigned, int64_t) {
        self(a)->preads++;
        return -1;
    };
    return r;
}
