// Tar stream primitives: the ustar member writer, HTTP/1.0 framing and the
// small writers every collecting module streams its members through.
#pragma once

#include <stdint.h>

// ---- ustar member writer ----
//
// Forward only: headers and data go straight to fd (never seeked, never
// buffered, never closed by the writer).  Callers may write a member's data
// to fd themselves and then declare it with tar_fakewrite, so that the
// padding before the next header stays right.  No end-of-archive blocks are
// written: the stream simply ends after the last member's padding.
struct tar {
    char *prefix;         // put in front of every member name; null when none
    uint32_t prefix_len;  // strlen(prefix), 0 without one
    int fd;               // output, not owned
    uint32_t count;       // data bytes written or declared since the last header
};

// A new writer on fd; a non-empty prefix (usually a directory ending in '/')
// is copied.  Null when out of memory.
tar *tar_new(int fd, const char *prefix);

// Pads the previous member to a 512-byte boundary, then writes the header of
// member prefix+name that promises exactly size data bytes.  Names are not
// checked: prefix+name should stay within 100 bytes.
void tar_addfile(tar *t, const char *name, uint32_t size);

// Writes member data; write errors are not reported (count still advances).
void tar_write(tar *t, const void *buf, uint32_t len);

// Declares len data bytes that the caller wrote to fd itself.
void tar_fakewrite(tar *t, uint32_t len);

// Pads the last member and frees the writer; fd stays open.
void tar_close(tar *t);

// ---- HTTP/1.0 framing and stream primitives ----

// Download header (200 OK, no caching, attachment saved as filename; the
// name is inserted as given, quotes included).  0 when written, 1 when it
// could not be formatted or written.
int stream_http_header(int fd, const char *content_type, const char *filename);

// Complete response with a small HTML page; status is the phrase after the
// version ("200 OK").  Failures are not reported.
void stream_http_message(int fd, const char *status, const char *message);

// Writes n zero bytes in pieces of at most 32.  0 when done (or n < 1),
// 1 at the first failed write.
int stream_pad(int fd, int n);

// Context of cb_strace: where the trace goes and how much of it may still go.
struct cb_strace_ctx {
    int fd;
    int32_t budget;  // bytes that may still be written
    int error;       // set when a write failed; starts 0
};

// Trace output callback: writes at most the remaining budget of buf.  1 to
// go on tracing, 0 once the budget is used up or a write failed.
int cb_strace(void *ctx, const char *buf, int len);
