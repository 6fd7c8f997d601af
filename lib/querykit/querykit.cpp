#include "querykit.h"

#include <stdlib.h>
#include <string.h>
#include <uriparser/Uri.h>

namespace {

struct param {
    char *name;
    char *value;
};

char *raw_query;
param *params;
int nparams;

void free_params()
{
    for (int i = 0; i < nparams; i++) {
        free(params[i].name);
        free(params[i].value);
    }
    free(params);
    params = nullptr;
    nparams = 0;
}

}  // namespace

void CGI_set_query(const char *query)
{
    CGI_cleanup();
    raw_query = strdup(query ? query : "");
}

int CGI_save_env()
{
    free_params();
    if (!raw_query)
        return -1;
    UriQueryListA *list = nullptr;
    int count = 0;
    size_t len = strlen(raw_query);
    if (uriDissectQueryMallocA(&list, &count, raw_query, raw_query + len) != URI_SUCCESS)
        return -1;
    // Own copies, so that callers may edit values in place.
    params = static_cast<param *>(calloc(count > 0 ? count : 1, sizeof(param)));
    if (!params) {
        uriFreeQueryListA(list);
        return -1;
    }
    for (UriQueryListA *p = list; p && nparams < count; p = p->next) {
        param &q = params[nparams++];
        q.name = strdup(p->key ? p->key : "");
        q.value = strdup(p->value ? p->value : "");
        if (!q.name || !q.value) {
            uriFreeQueryListA(list);
            free_params();
            return -1;
        }
    }
    uriFreeQueryListA(list);
    return nparams;
}

char *CGI_get_value(const char *name)
{
    if (!name)
        return nullptr;
    for (int i = 0; i < nparams; i++)
        if (strcmp(params[i].name, name) == 0)
            return params[i].value;
    return nullptr;
}

void CGI_cleanup()
{
    free_params();
    free(raw_query);
    raw_query = nullptr;
}
