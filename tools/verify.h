// Shared by the sources of cvn verify: the file under check, and what proves the parts of it.
//
// verify.cpp          the run: a file from its opening to the report
// verify_footer.cpp   head, trailer, and all that the footer says of itself
// verify_values.cpp   the chunks: their records against their bytes and against their values
//
// The footer is read and walked here once more, on purpose, and not through the library: a check that shared
// the library's walk would share its mistakes, and the library refuses a bad footer as a whole where each
// fault is to have a name of its own. Only pages are then fetched through the library as well, because what
// matters is whether a reader gets them.
#ifndef KELPD_TOOLS_VERIFY_H
#define KELPD_TOOLS_VERIFY_H

#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "colvane/colvane.h"
#include "tools/progress.h"
#include "tools/tool.h"

constexpr int64_t VERIFY_HEADSZ = 8;

// An open file and its size; closed with its owner.
struct verify_fd_t {
    int fd = -1;
    int64_t size = 0;
    verify_fd_t() = default;
    verify_fd_t(const verify_fd_t&) = delete;
    verify_fd_t& operator=(const verify_fd_t&) = delete;
    ~verify_fd_t() {
        if (fd >= 0) close(fd);
    }
};

// A file under check.
struct verify_t {
    std::string path;
    bool split = false;
    int64_t nfault = 0;
    tool_out_t* out = nullptr;

    verify_fd_t data;  // the data file or meta.cvnx
    std::vector<verify_fd_t> split_file;
    std::vector<char> footer;
    schema_desc_t schema = {};
    std::vector<cvn_coldef_t> coldef;
    uint32_t footer_hash = 0;
    int64_t footer_offset = 0;
    int64_t nbyte = 0;  // stored bytes looked at

    // Reports a fault, or only counts it when there were many.
    void fault(const std::string& what);
};

// Opening and reading (verify.cpp).

// Throws tool_error without the path. Opening a pipe waits for its writer, so it is not even tried.
void verify_open(verify_fd_t* file, const std::string& path);

// Reads exactly `nb` bytes; the caller has compared them with the file's size. Sets errno, to 0 at the end.
bool verify_read_at(const verify_fd_t& file, void* to, size_t nb, int64_t offset);

// Why verify_read_at failed.
std::string verify_read_fault();

// The XXH32 of `nb` stored bytes.
bool verify_hash_at(const verify_fd_t& file, int64_t offset, int64_t nb, uint32_t* ret);

// Records of the footer (verify_footer.cpp).

// Copies a record out of the footer, whose geometry is proved.
template <typename T>
T verify_record_at(const verify_t& v, size_t at) {
    T record;
    memcpy(&record, v.footer.data() + at, sizeof(T));
    return record;
}

// Where the record of a column or row group lies in the footer, and a chunk's record itself.
size_t verify_colstat_at(const verify_t& v, int c);
size_t verify_rowgroup_at(const verify_t& v, int64_t rg);
colmeta_t verify_colmeta_at(const verify_t& v, int64_t rg, int c);

// Head, trailer and the footer's geometry, which goes to `*v`. Returns false when there is nothing to go on
// with.
bool verify_check_frame(verify_t* v);

// The columns' definitions, which go to `v->coldef`.
void verify_check_columns(verify_t* v);

// The file's statistics of one column, made from the records of its chunks.
void verify_check_colstat(verify_t* v, int c);

// A split keeps the hash of the file that it was made from, whose offsets follow from the sizes of the
// chunks.
void verify_check_split_hash(verify_t* v);

// Chunks and values (verify_values.cpp).

// The columns that the library can fetch: one page index each, -1 where there is none.
std::vector<int> verify_require_columns(verify_t* v, cvn_scan_t* scan);

// Every chunk: its record, its place, its hash, and its values where `page_index` has a page of it.
void verify_check_chunks(verify_t* v, cvn_scan_t* scan, const std::vector<int>& page_index,
                         progress_t* progress);

// Compares as the statistics do: NaN is equal to everything.
int verify_stat_cmp(const cvn_datum_t& a, const cvn_datum_t& b, cvn_typ_t typ);

// Whether two stored images are the same.
bool verify_same_image(const cvn_datum_t& a, const cvn_datum_t& b);

// A stored image, for a message.
std::string verify_image_text(const cvn_datum_t& image, cvn_typ_t typ);

#endif
