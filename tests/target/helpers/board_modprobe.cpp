// Loads (or with -r removes) a kernel module on the emulated board, its
// dependencies first, as listed in /lib/modules/<release>/modules.dep.  The
// board carries no module tools of its own; target tests call this as
// `modprobe NAME [param=value...]`.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string moddir;
std::map<std::string, std::vector<std::string>> deps; // name -> path, deps...

std::string name_of(const std::string &path)
{
    std::string base = path.substr(path.rfind('/') + 1);
    base = base.substr(0, base.find(".ko"));
    for (char &c : base)
        if (c == '-')
            c = '_';
    return base;
}

bool read_deps()
{
    std::ifstream in(moddir + "/modules.dep");
    if (!in)
        return false;
    std::string line;
    while (std::getline(in, line)) {
        size_t colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        std::vector<std::string> v{line.substr(0, colon)};
        std::istringstream rest(line.substr(colon + 1));
        for (std::string d; rest >> d;)
            v.push_back(d);
        deps[name_of(v[0])] = v;
    }
    return true;
}

bool loaded(const std::string &name)
{
    return access(("/sys/module/" + name).c_str(), F_OK) == 0;
}

bool load_path(const std::string &rel, const std::string &params)
{
    std::string path = rel[0] == '/' ? rel : moddir + "/" + rel;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        fprintf(stderr, "modprobe: %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    long r = syscall(SYS_finit_module, fd, params.c_str(), 0);
    int err = errno;
    close(fd);
    if (r != 0 && err != EEXIST) {
        fprintf(stderr, "modprobe: %s: %s\n", path.c_str(), strerror(err));
        return false;
    }
    return true;
}

bool load(const std::string &name, const std::string &params)
{
    auto it = deps.find(name);
    if (it == deps.end()) {
        fprintf(stderr, "modprobe: %s: no such module\n", name.c_str());
        return false;
    }
    const auto &v = it->second;
    // modules.dep lists the deepest dependency last.
    for (size_t i = v.size(); i-- > 1;)
        if (!loaded(name_of(v[i])) && !load_path(v[i], ""))
            return false;
    if (loaded(name))
        return true;
    return load_path(v[0], params);
}

} // namespace

int main(int argc, char **argv)
{
    bool remove = argc > 1 && strcmp(argv[1], "-r") == 0;
    int first = remove ? 2 : 1;
    if (argc <= first) {
        fprintf(stderr, "usage: modprobe [-r] NAME [param=value...]\n");
        return 2;
    }
    std::string name = name_of(argv[first]);
    if (remove) {
        if (syscall(SYS_delete_module, name.c_str(), O_NONBLOCK) != 0) {
            fprintf(stderr, "modprobe: remove %s: %s\n", name.c_str(), strerror(errno));
            return 1;
        }
        return 0;
    }
    struct utsname u;
    uname(&u);
    moddir = std::string("/lib/modules/") + u.release;
    if (!read_deps()) {
        fprintf(stderr, "modprobe: %s/modules.dep: %s\n", moddir.c_str(), strerror(errno));
        return 1;
    }
    std::string params;
    for (int i = first + 1; i < argc; i++) {
        if (!params.empty())
            params += ' ';
        params += argv[i];
    }
    return load(name, params) ? 0 : 1;
}
