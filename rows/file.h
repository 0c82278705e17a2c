// Local data: a data file, a directory that cvnx_split wrote, or a directory of data files; its columns, and
// its row groups as decoded columns. Every page that is used is checked, always: where it lies, its head, its
// hash, its values.
//
// Order of calls: file_open, file_want, perhaps file_push; then file_next and file_read, or file_read alone for
// row groups of the caller's choice; file_close.
//
// Failures fill a fault, whose parts the callers word.
#ifndef KELPD_ROWS_FILE_H
#define KELPD_ROWS_FILE_H

#include <stdint.h>

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "rows/cond.h"
#include "rows/page.h"

namespace rows {

enum file_fault_kind_t : int {
    FILE_CODE = 1,    // the library failed: `code` is its code, `err` the errno that belongs to -3
    FILE_OTHER,       // `path` is neither a regular file nor a directory (opening a pipe would wait)
    FILE_NO_DATA,     // no file of the directory `path` has a name ending in .cvn
    FILE_UNFINISHED,  // the directory is a split without its meta.cvnx
    FILE_SAME_NAME,   // two of the columns wanted have the name `name`
    FILE_PAGE,        // a page of column `name` in row group `rg` is damaged: `what` says how
};

struct file_fault_t {
    file_fault_kind_t kind = FILE_CODE;
    int code = 0;
    int err = 0;
    std::string path;
    std::string name;
    const char* what = nullptr;
    int64_t rg = -1;
};

// What stands under a path.
struct file_list_t {
    bool many = false;  // a directory of data files
    std::vector<std::string>
        path;  // the files, or the one file or split directory, in the order of their names
};
[[nodiscard]] bool file_find(file_list_t* ret, const std::string& path, file_fault_t* fault);

// A column as its file defines it. The name ends at its NUL, or with its field in a damaged file.
struct file_column_t {
    std::string name;
    cvn_typ_t typ;
    bool zflag;
    bool nflag;
};
std::string file_column_name(const cvn_coldef_t& coldef);

// An open file. The scan is the owner's to ask for what the footer says.
struct file_t {
    std::string path;
    cvn_scan_t* scan = nullptr;  // owned
    std::vector<file_column_t> column;
    int64_t nrow = 0;
    int64_t nrowgroup = 0;
    std::shared_ptr<bufpool_t> pool;
    std::vector<int> want;  // the columns that are read, by number
    buf_t stored;           // a compressed page on its way
    file_t() = default;
    file_t(const file_t&) = delete;
    file_t& operator=(const file_t&) = delete;
    ~file_t();  // file_close
};

// Opens a file or a split directory. `pool` owns the memory of what is read, and may be shared.
[[nodiscard]] bool file_open(file_t* ret, const std::string& path, std::shared_ptr<bufpool_t> pool,
                             file_fault_t* fault);
void file_close(file_t* file);

// Names the columns to read, by number, in this order; once. The numbers are those of `file->column`.
[[nodiscard]] bool file_want(file_t* file, std::span<const int> cno, file_fault_t* fault);

// Makes file_next pass over row groups that cannot hold a row for which `cond` is true. Its columns are bound
// to `file->column` and are wanted.
[[nodiscard]] bool file_push(file_t* file, const cond_t& cond, file_fault_t* fault);

// Stores the number of the next row group that may hold such a row, or -1 after the last.
[[nodiscard]] bool file_next(file_t* file, int64_t* ret_rg, file_fault_t* fault);

// Proves of all pages of all row groups, without reading one, that the file can hold what its footer says: each
// lies in the file, is as large as its type and the row group's rows want it, its stored bytes can decompress
// to that size, and the pages together do not claim many times the file's bytes. False for the first that
// cannot be.
[[nodiscard]] bool file_prove(file_t* file, file_fault_t* fault);

// What reading all columns of a row group takes at most, in bytes of memory: with nothing there yet, and what comes
// to the memory of the columns `have` of an earlier one.
struct file_need_t {
    int64_t all;
    int64_t more;
};
[[nodiscard]] bool file_need(file_t* file, int64_t rg, std::span<const column_t> have, file_need_t* ret,
                             file_fault_t* fault);

// Reads a row group: as many decoded columns as are wanted, all of the row group's number of rows. `*ret` may
// hold columns of an earlier one, whose memory is used again; the columns go back to `file->pool` (column_free),
// and their views borrow the names of `file->column`. After a failure `*ret` holds columns for column_free alone.
[[nodiscard]] bool file_read(file_t* file, int64_t rg, std::vector<column_t>* ret, file_fault_t* fault);

}  // namespace rows

#endif
