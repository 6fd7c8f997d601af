// Section/key/value configuration files, read whole at open and handed out
// one entry at a time in file order.
//
// Accepted syntax (one item per line; parsed by the system's inih):
//   [section]            starts a section; the name is taken verbatim
//                        between the brackets (inner spaces kept); entries
//                        before the first section have the section "".
//   key = value          an entry; "key: value" is the same.  Whitespace
//                        around key and value is dropped; the value ends at
//                        " ;" (an inline comment: ';' after whitespace) or at
//                        the end of the line; an empty value is allowed.
//   ; text  or  # text   a comment line.
//     more text          a line that starts with whitespace and follows an
//                        entry continues it: it yields one more entry with
//                        the same section and key and this text as value.
// A UTF-8 byte-order mark at the start and CR before the line end are
// ignored.  A line is read up to 199 characters; the rest of a longer line
// is dropped.  Lines that fit none of the forms (no '=' or ':', an
// unterminated "[") are skipped; the entries of all other lines are kept.
#pragma once

struct kvconf;

struct kvconf_entry {
    const char *section;
    const char *key;
    const char *value;
};

// Reads the file at path.  Null when it cannot be opened or read, or memory
// runs out (errno tells which).
kvconf *kvconf_opencfg(const char *path);

// The next entry in file order, or null after the last one.  The entry and
// its strings stay valid until kvconf_closecfg.
const kvconf_entry *kvconf_getcfg(kvconf *cfg);

// Frees everything; null is accepted.
void kvconf_closecfg(kvconf *cfg);
