// client: reads and changes the tables of a kelpd from a program.
//
//   catalogue   kelp_list, kelp_list_files, kelp_list_columns, kelp_table_columns
//   files       kelp_upload, kelp_remove
//   totals      kelp_meta, kelp_count
//   rows        kelp_scan_open (or kelp_sample_open), kelp_scan_next until it returns non-zero,
//               kelp_batch_free for each batch, kelp_scan_close
//
// A scan opens one connection for each of its jobs. Every connection has a thread, which checks and
// decompresses the pages it receives and filters their rows; batches come out in the order in which they are
// complete, so with more than one job not in the order of the table.
//
// Results. Every function that can fail returns 0 or one of the negative codes below and fills `*err`, which
// may be null. Out-parameters are cleared on entry and set only on success. No exception leaves the library,
// nothing is printed, and no signal disposition is changed. The server may be hostile: a reply is never taken
// for whole unless it is, and what is handed out lies inside its buffers whatever the server sent.
//
// Threads. A scan and what it hands out belong to one thread at a time, with the exception of
// kelp_scan_cancel. Different scans are independent. Link `colvane::client`; libcurl does the HTTP.
#ifndef COLVANE_CLIENT_H
#define COLVANE_CLIENT_H

#include <stdint.h>
#include <string.h>

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

#include "colvane/colvane.h"
#include "colvane/vec.h"

// Codes.
enum kelp_code_t : int {
    KELP_OK = 0,
    KELP_END = 1,         // kelp_scan_next: every row has been handed out
    KELP_EARG = -1,       // the caller's URL, column, condition or value makes no sense
    KELP_ENOMEM = -2,     // out of memory
    KELP_EFILE = -3,      // a local file cannot be read, or is not what it should be
    KELP_ECONNECT = -4,   // the server cannot be reached
    KELP_ETIMEOUT = -5,   // it did not answer in time
    KELP_ECANCEL = -6,    // the caller cancelled
    KELP_EREFUSED = -7,   // it answered with an error status: `said` has its words
    KELP_ENOTFOUND = -8,  // what the URL names does not exist there
    KELP_EPROTO = -9,     // the reply is not one that kelpd sends
    KELP_ECUT = -10,      // the reply ended early, or the server reported an error in the middle of it
    KELP_EDAMAGED = -11,  // a page fails its checks
    KELP_EUNFIT = -12,    // a value cannot be expressed in the form asked for (arrow.h), or a file's columns
                          // are not those of its table (kelp_columns_compare)
    KELP_EEMPTY = -13,    // the table has no data files, hence no columns
    KELP_ECHANGED = -14,  // the table changed while it was read
};

// Why a function failed. All texts are one line of printable characters, NUL-terminated, possibly empty.
struct kelp_error_t {
    int code;         // KELP_...
    int http_status;  // the reply's status code; 0 when there was none
    char text[512];   // what is wrong, with the server's words when it said any
    char said[256];   // the server's words alone
    char hint[256];   // what to try
};

// A place in a server's catalogue.
struct kelp_url_t {
    std::string base;  // "http://host:port" or "https://host:port", a user name and password before the host
                       // kept as they were
    std::string database, schema, entity, partition;  // decoded; those after the last one named are empty
};

// Parses "kelp://host:port/database/schema/entity/partition" or "http://host:port/v1/database/..." (also
// "https"), cut at any depth, with or without a slash at the end. Percent escapes and '+' are read as the
// server reads them. A "kelp" URL must name its port, which has no usual value. Returns 0 or KELP_EARG,
// KELP_ENOMEM.
[[nodiscard]] int kelp_url_parse(kelp_url_t* ret_url, std::string_view text, kelp_error_t* err);

// Returns the "http" form, percent-encoded, without user name and password when `for_display`.
std::string kelp_url_format(const kelp_url_t& url, bool for_display);

// The number of components that are named, 0 to 4.
int kelp_url_depth(const kelp_url_t& url);

// What holds for every request. The defaults suit a server nearby.
struct kelp_opt_t {
    int connect_timeout_ms = 10000;  // for the connection to stand; 0: libcurl's limit, five minutes
    int idle_timeout_ms = 60000;     // without a byte in either direction; 0: none. Time in which
                                     // the caller does not take batches does not count
    int64_t total_timeout_ms = 0;    // for the whole request, or for a scan from its opening to
                                     // its end; 0: none
    const std::atomic<bool>* cancel = nullptr;    // borrowed; once true, everything under way ends with
                                                  // KELP_ECANCEL within about a tenth of a second
    int64_t max_record_nbyte = int64_t{1} << 30;  // the largest row group to accept, stored as well as
                                                  // decompressed (with 4 bytes for each text in it)
    std::string ca_file;  // of "https": a file in PEM form with the authorities to trust in place of the
                          // system's; empty: the system's
};

// Catalogue. `url` names the directory or file to describe.

// The names below the root, a database or a schema, in the server's order. Another depth is KELP_EARG.
[[nodiscard]] int kelp_list(std::vector<std::string>* ret_name, const kelp_url_t& url, const kelp_opt_t& opt,
                            kelp_error_t* err);

// One data file of an entity.
struct kelp_file_t {
    std::string name;
    int32_t chksum;  // the hash of its footer
    int32_t ncol;
    int64_t nrow;
    int64_t nrowgroup;
    int64_t nbyte;  // bytes of all pages, uncompressed
    int64_t zbyte;  // bytes of all pages as stored
};

// The data files of an entity, in the server's order.
[[nodiscard]] int kelp_list_files(std::vector<kelp_file_t>* ret_file, const kelp_url_t& url,
                                  const kelp_opt_t& opt, kelp_error_t* err);

struct kelp_column_t {
    std::string name;
    cvn_typ_t typ;  // 0: a type that this library does not know
};

// The columns of one data file (a URL of four components) and its footer hash.
[[nodiscard]] int kelp_list_columns(std::vector<kelp_column_t>* ret_column, int32_t* ret_chksum,
                                    const kelp_url_t& url, const kelp_opt_t& opt, kelp_error_t* err);

// The columns of an entity: those of its first data file. KELP_EEMPTY when it has none.
[[nodiscard]] int kelp_table_columns(std::vector<kelp_column_t>* ret_column, const kelp_url_t& url,
                                     const kelp_opt_t& opt, kelp_error_t* err);

// Compares the columns of a data file with those of another one of its table: a scan reads all files of a
// table alike, so they should have the same names and types in the same order. The two names are what the
// message calls the files. Returns 0 when they are the same, else KELP_EUNFIT with the first column that
// differs.
[[nodiscard]] int kelp_columns_compare(const std::vector<kelp_column_t>& column, const char* name,
                                       const std::vector<kelp_column_t>& other, const char* other_name,
                                       kelp_error_t* err);

// Called in the caller's thread as an upload advances, at least once when it is done. False cancels it.
typedef bool (*kelp_progress_t)(void* arg, int64_t done_nbyte, int64_t total_nbyte);

// Uploads the file at `fpath` whole, streaming it. A URL of three components takes the file's own name as the
// fourth. The server keeps what it had under that name unless the upload succeeds. `progress` may be null.
[[nodiscard]] int kelp_upload(const kelp_url_t& url, const char* fpath, kelp_progress_t progress, void* arg,
                              const kelp_opt_t& opt, kelp_error_t* err);

// Removes the file, or the directory with all that is in it, that the URL names. What does not exist counts
// as removed. A URL that names no database is KELP_EARG, since removing the root leaves the server unusable.
[[nodiscard]] int kelp_remove(const kelp_url_t& url, const kelp_opt_t& opt, kelp_error_t* err);

struct kelp_meta_t {
    int64_t nrow;
    int64_t nrowgroup;
};

// The totals of an entity over its data files, mismatched ones included.
[[nodiscard]] int kelp_meta(kelp_meta_t* ret_meta, const kelp_url_t& url, const kelp_opt_t& opt,
                            kelp_error_t* err);

// Conditions.

// One condition on one column. The values are texts that are read as the column's type when a scan is opened:
//   bool                true, false, 1, 0 and the like
//   int16 to int128     decimal, or hexadecimal after 0x; out of range is an error
//   float, double       a number with a point, whatever the locale, inf, NaN, or hexadecimal after 0x; too
//                       large for the type is an error
//   cstr                the text itself
//   bytea               "\\x" and pairs of digits, or any other text: its bytes
//   dec64, dec128       a number of at most 16 or 34 digits
//   date                2021-07-04, or days since 1970-01-01
//   time_millis         12:34:56.789 (seconds and their fraction may be left out), or milliseconds
//   timestamp_millis    a date, or a date and a time with a blank or T between and perhaps a zone (Z, +01:00)
//                       after it, or milliseconds since 1970-01-01T00:00Z
// A number that could as well be a year, a day or a time without separators (2021, 20210704, of a time 1230)
// is an error; with a sign (+2021) it is a number.
struct kelp_cond_t {
    std::string column;
    int op;  // CVN_OP_...
    std::vector<std::string> value;
};

// Parses "COLUMN OP VALUE" with the operators = == != <> > >= < <=, "COLUMN is [not] null", "COLUMN isnull",
// "COLUMN isnotnull", and "COLUMN in (VALUE, ...)". A column may stand in double quotes, a value in single or
// double ones; inside, the quote itself is doubled. A value needs quotes when it begins with one of = ! < >,
// or holds a comma, a parenthesis or one of the words and, or, not, in, is, like, between, null after its
// first. Words are matched without regard to case. Several conditions with "and" between are for
// kelp_query_t::where. KELP_EARG.
[[nodiscard]] int kelp_cond_parse(kelp_cond_t* ret_cond, std::string_view text, kelp_error_t* err);

// Scans.

struct kelp_query_t {
    kelp_url_t url;                   // an entity
    std::vector<std::string> column;  // in the order wanted; empty: all
    // Hand out batches without columns, only row counts; `column` is ignored, and there must be a condition.
    bool rows_only = false;
    // Conditions on any columns of the entity, as records and as texts; all of both must hold. A text is what
    // kelp_cond_parse reads, or several of those with "and" between; a value in double quotes must not be the
    // name of a column.
    std::vector<kelp_cond_t> cond;
    std::vector<std::string> where;
    // True: exactly the rows for which all conditions are true (a comparison with NULL is not). Of floating
    // and decimal numbers, a NaN is unequal to everything, itself included, and neither above nor below.
    // False: whole row groups, of which only those that cannot hold such a row may be missing.
    bool exact = true;
    // The caller's promise that float, double, dec64 and dec128 columns hold no NaN. The server's statistics
    // go wrong around NaN, so without the promise it is not asked to skip anything by conditions on such
    // columns.
    bool no_nan = false;
    int njob = 0;  // connections; 0: as many as processors, at most 4
    // Decoded bytes under way and waiting for the caller. Connections pause before what would exceed it, but
    // one row group at a time may: memory is bounded by this and one row group.
    int64_t max_flight_nbyte = int64_t{96} << 20;
};

// A column of a batch, borrowed from it: see vec.h.
using kelp_vec_t = cvn_vec_t;
inline bool kelp_vec_isnull(const kelp_vec_t& vec, int64_t row) { return cvn_vec_isnull(vec, row); }
inline std::string_view kelp_vec_text(const kelp_vec_t& vec, int64_t row) { return cvn_vec_text(vec, row); }
template <typename T>
inline T kelp_vec_get(const kelp_vec_t& vec, int64_t row) {
    return cvn_vec_get<T>(vec, row);
}

// Rows from one row group. Lives until kelp_batch_free, also after its scan was closed.
struct kelp_batch_t {
    int64_t nrow;  // 1 or more
    int ncol;
    const kelp_vec_t* col;  // in the order of the query
};

struct kelp_scan_t;

// Opens a scan: asks the catalogue for the entity's totals (KELP_EPROTO, with the file's name, when they
// exceed 64 bits) and columns, then starts the connections. `*ret_scan` is owned by the caller
// (kelp_scan_close). What `opt.cancel` points at must outlive it. The types are those of the first data file;
// KELP_EEMPTY when there is none. A file that disagrees ends the scan: with KELP_EREFUSED or KELP_ECUT when
// it lacks a column, with KELP_EPROTO when one has another type.
[[nodiscard]] int kelp_scan_open(kelp_scan_t** ret_scan, const kelp_query_t& query, const kelp_opt_t& opt,
                                 kelp_error_t* err);

// The same for `nrow` rows (1 to 2147483647) of an entity that its server picks at random, all columns. More
// rows than that end it with KELP_EPROTO.
[[nodiscard]] int kelp_sample_open(kelp_scan_t** ret_scan, const kelp_url_t& url, int64_t nrow,
                                   const kelp_opt_t& opt, kelp_error_t* err);

// The result's columns, owned by the scan.
const std::vector<kelp_column_t>& kelp_scan_columns(const kelp_scan_t* scan);

// Waits for the next batch, which the caller owns. Returns 0; KELP_END when all rows were handed out and the
// server has confirmed the end on every connection; else the first failure of any connection, at once and
// ever after: the rows handed out before it are then not the whole result. With several connections, the data
// files are compared at the end with what they were before, and a difference is KELP_ECHANGED: what was
// handed out may then be partly of an old file and partly of the new one. When a failure looks as if a data
// file had other columns than the scan reads, the files' columns are asked for, one request per file and at
// most 2,000, and the text names the first file that does not fit.
[[nodiscard]] int kelp_scan_next(kelp_scan_t* scan, kelp_batch_t** ret_batch, kelp_error_t* err);

// Frees a batch. Null is accepted.
void kelp_batch_free(kelp_batch_t* batch);

// What a scan has done so far, and the catalogue's totals when it was opened.
struct kelp_scan_stat_t {
    int64_t total_nfile, total_nrow, total_nrowgroup;
    int64_t total_zbyte;  // of all columns
    int64_t nrowgroup;    // received; the rest was skipped once the scan has ended
    int64_t nrow;         // in them
    int64_t nrow_out;     // that passed the filter
    int64_t zbyte;        // received as pages, stored
    int64_t nbyte;        // the same decompressed
};
void kelp_scan_stat(const kelp_scan_t* scan, kelp_scan_stat_t* ret_stat);

// Makes the scan end with KELP_ECANCEL, at once. May be called from any thread.
void kelp_scan_cancel(kelp_scan_t* scan);

// Ends the connections and frees the scan. Null is accepted.
void kelp_scan_close(kelp_scan_t* scan);

// The number of rows that a query has. Without conditions it is what the data files claim: up to 2^28 rows
// the server streams it, beyond the catalogue's numbers are added up, in which files that the server cannot
// read are missing (below, they are KELP_EREFUSED or KELP_ECUT); KELP_EPROTO when they exceed 64 bits,
// KELP_ECHANGED when the stream exceeds them. With conditions their columns are read, and `query.exact`
// holds. An entity without data files has none.
[[nodiscard]] int kelp_count(int64_t* ret_nrow, const kelp_query_t& query, const kelp_opt_t& opt,
                             kelp_error_t* err);

#endif
