// CGI query decoding: name=value pairs of a URL query string, names and
// values percent-decoded ("+" is a blank).  One query at a time, process-wide
// and unlocked: the caller decodes in one thread.
//
//   CGI_set_query(q); CGI_save_env(); v = CGI_get_value("cmd"); ...; CGI_cleanup();
#pragma once

// Takes (a copy of) the raw query string to decode, the text after '?'.
// Whatever an earlier query left behind is released first; null is taken as
// the empty query.
void CGI_set_query(const char *query);

// Decodes the query given last, making its parameters available to
// CGI_get_value.  The number of parameters (empty pieces such as "&&" are
// not parameters), or -1 when the query could not be decoded (no memory).
int CGI_save_env();

// The decoded value of the first parameter whose decoded name is name; ""
// for a bare name without "=".  Null when no such parameter exists or nothing
// has been decoded.  The string is the caller's to modify in place and stays
// valid until CGI_cleanup or the next CGI_set_query.
char *CGI_get_value(const char *name);

// Releases the query and its parameters.
void CGI_cleanup();
