// memsnap's report line read the way the toolbox's dump reader reads it: the
// length from offset 8 in base 10; from 21 characters after the end of the
// number, every run of digits is a thread id.
#pragma once

#include <stdlib.h>

#include <string>
#include <vector>

struct ReportLine {
    unsigned long long length = 0;
    std::vector<int> ids; // in the order of the line
};

inline ReportLine read_report(const std::string &line)
{
    ReportLine r;
    if (line.size() < 8)
        return r;
    char *end;
    r.length = strtoull(line.c_str() + 8, &end, 10);
    if (static_cast<size_t>(end - line.c_str()) + 21 > line.size())
        return r;
    const char *q = end + 21;
    while (*q && *q != '\n') {
        if (*q < '0' || *q > '9') {
            q++;
            continue;
        }
        r.ids.push_back(static_cast<int>(strtol(q, &end, 10)));
        q = end;
    }
    return r;
}
