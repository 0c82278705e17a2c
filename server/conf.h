// The configuration file: lines of key and value, kept as a list with their line numbers, so that the caller
// can judge the values and name the line of a bad one.
//
//   key = value     or   key : value; the first '=' or ':' parts them, blanks around both are dropped
//   # comment       or   ! comment; only whole lines
//   key = one \     a value ending in a backslash goes on in the next line, which is taken whole
//   key = a\tb      escapes: \n \r \t, \xHH, \OOO, and any other character for itself
#ifndef KELPD_SERVER_CONF_H
#define KELPD_SERVER_CONF_H

// One entry. Duplicate keys are entries of their own.
struct conf_t {
    int lineno;    // the line it began on, counted from 1
    char* key;     // trimmed; owned
    char* value;   // trimmed, continuation lines joined, escapes decoded; owned
    conf_t* next;  // in file order, null at the end; owned
};

// Loads the file `fname`.
//
// lst    the entries in file order; owned by the caller, release with conf_free(). Cleared on entry, set only
//        on success; null when the file has no entries, an empty file included.
// fname  NUL-terminated; not kept.
//
// Returns 0, or an errno value: that of the failed open, seek or read, ENOMEM, or EINVAL for a file with a
// NUL byte. A line without a separator or with an empty key is skipped with a warning on standard error,
// which has no line end.
[[nodiscard]] int conf_load(conf_t** lst, const char* fname);

// Releases a list; null is accepted.
void conf_free(conf_t* lst);

// Returns the first entry whose key is exactly `key`, or null. The entry stays the list's.
[[nodiscard]] conf_t* conf_get(conf_t* lst, const char* key);

#endif
