// The row file, little-endian:
//   64 bytes of head: "LIROWS1" and a line feed, the row count as int64, the seed as uint64, zeros
// then every row, packed:
//    0  8  orderkey       int64
//    8  4  partkey        int32
//   12  4  suppkey        int32
//   16  2  linenumber     int16
//   18  8  quantity       int64, in hundredths
//   26  8  extendedprice  double
//   34  8  discount       double
//   42  8  tax            double
//   50  1  returnflag     one character
//   51  1  linestatus     one character
//   52 12  shipdate, commitdate, receiptdate, int32, days since 1970-01-01
//   64     one length byte and the bytes of shipmode, one length byte and the bytes of comment
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "bench/cvn_bench.h"
#include "bench/dpd.h"
#include "colvane/colvane.h"

namespace {

constexpr size_t HEADSZ = 64;
constexpr size_t FIXEDSZ = 64;
constexpr int NCOL = 15;
constexpr int32_t STORAGE[NCOL] = {CVN_TYP_INT64, CVN_TYP_INT32,  CVN_TYP_INT32,  CVN_TYP_INT16,
                                   CVN_TYP_DEC64, CVN_TYP_DOUBLE, CVN_TYP_DOUBLE, CVN_TYP_DOUBLE,
                                   CVN_TYP_CSTR,  CVN_TYP_CSTR,   CVN_TYP_INT32,  CVN_TYP_INT32,
                                   CVN_TYP_INT32, CVN_TYP_CSTR,   CVN_TYP_CSTR};

struct rows_t {
    std::unique_ptr<char[]> data;  // the file and one byte more
    size_t sz = 0;
    int64_t nrow = 0;
};

}  // namespace

static rows_t read_rows(const char* path) {
    rows_t rows;
    const int fd = open(path, O_RDONLY);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) fail("%s: %s", path, strerror(errno));
    rows.sz = static_cast<size_t>(st.st_size);
    rows.data.reset(new char[rows.sz + 1]);
    for (size_t at = 0; at < rows.sz;) {
        const ssize_t n = pread(fd, rows.data.get() + at, rows.sz - at, static_cast<off_t>(at));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fail("%s: %s", path, n < 0 ? strerror(errno) : "shorter than it was");
        at += static_cast<size_t>(n);
    }
    close(fd);
    if (rows.sz < HEADSZ || memcmp(rows.data.get(), "LIROWS1\n", 8) != 0) fail("%s: not a row file", path);
    memcpy(&rows.nrow, rows.data.get() + 8, sizeof(rows.nrow));
    // Walked once before the clock starts, so that the timed loop needs no checks.
    size_t at = HEADSZ;
    for (int64_t r = 0; r < rows.nrow; r++) {
        if (rows.sz - at < FIXEDSZ + 1) fail("%s: row %lld is cut off", path, static_cast<long long>(r));
        at += FIXEDSZ;
        for (int text = 0; text < 2; text++) {
            const size_t len = at < rows.sz ? static_cast<uint8_t>(rows.data[at]) : 0;
            if (rows.sz - at < 1 + len) fail("%s: row %lld is cut off", path, static_cast<long long>(r));
            at += 1 + len;
        }
    }
    if (at != rows.sz) fail("%s: bytes follow the last row", path);
    return rows;
}

// The decDouble of `hundredths` / 100, with two places; the amount has at most 15 digits.
static decDouble dec64_of_hundredths(int64_t hundredths) {
    constexpr uint64_t EXPONENT = 398 - 2;
    constexpr uint64_t HIGH = (EXPONENT >> 8) << 61 | (EXPONENT & 0xff) << 50;
    uint64_t amount = hundredths < 0 ? -static_cast<uint64_t>(hundredths) : static_cast<uint64_t>(hundredths);
    if (amount >= UINT64_C(1000000000000000)) fail("a quantity has more than 15 digits");
    uint64_t bits = HIGH | (hundredths < 0 ? uint64_t{1} << 63 : 0);
    for (int shift = 0; amount > 0; shift += 10) {
        bits |= static_cast<uint64_t>(DPD_OF[amount % 1000]) << shift;
        amount /= 1000;
    }
    decDouble ret;
    ret.longs[0] = bits;
    return ret;
}

template <class T>
static T load(const char* p) {
    T v;
    memcpy(&v, p, sizeof(v));
    return v;
}

static cvn_t* create(const char* coldef, const char* out) {
    cvn_coldef_t* def = nullptr;
    int ndef = 0;
    int rc = cvn_coldef_parse(&def, &ndef, coldef);
    if (rc != 0) fail("column definitions: code %d", rc);
    if (ndef != NCOL) fail("a row has %d columns, not %d", NCOL, ndef);
    for (int c = 0; c < NCOL; c++)
        if (cvn_storage(def[c].typ) != STORAGE[c])
            fail("column %d (%.127s) is to be stored as %s", c + 1, def[c].name, cvn_typ_str(STORAGE[c]));
    cvn_t* w = nullptr;
    rc = cvn_create(&w, out);
    if (rc != 0) fail("%s: code %d: %s", out, rc, strerror(errno));
    for (int c = 0; c < NCOL; c++) {
        rc = cvn_create_column(w, def[c].name, def[c].typ, def[c].zflag, def[c].nflag);
        if (rc != 0) {  // the writer is gone
            unlink(out);
            fail("column %.127s: code %d", def[c].name, rc);
        }
    }
    free(def);
    return w;
}

void load_rows(const char* coldef, const char* rows_path, const char* out) {
    const rows_t rows = read_rows(rows_path);
    cvn_t* w = create(coldef, out);
    cvn_datum_t datum[NCOL];
    memset(datum, 0, sizeof(datum));
    const bool isnull[NCOL] = {};
    char flag[2][2] = {};
    datum[8].t = flag[0];
    datum[9].t = flag[1];
    char* p = rows.data.get() + HEADSZ;
    int rc = 0;
    const moment_t start = now();
    for (int64_t r = 0; r < rows.nrow && rc == 0; r++) {
        datum[0].I = load<int64_t>(p);
        datum[1].i = load<int32_t>(p + 8);
        datum[2].i = load<int32_t>(p + 12);
        datum[3].s = load<int16_t>(p + 16);
        datum[4].dec64 = dec64_of_hundredths(load<int64_t>(p + 18));
        datum[5].F = load<double>(p + 26);
        datum[6].F = load<double>(p + 34);
        datum[7].F = load<double>(p + 42);
        flag[0][0] = p[50];
        flag[1][0] = p[51];
        datum[10].i = load<int32_t>(p + 52);
        datum[11].i = load<int32_t>(p + 56);
        datum[12].i = load<int32_t>(p + 60);
        char* const mode = p + FIXEDSZ + 1;
        char* const mode_end = mode + static_cast<uint8_t>(mode[-1]);
        char* const comment = mode_end + 1;
        char* const comment_end = comment + static_cast<uint8_t>(mode_end[0]);
        datum[13].t = mode;
        datum[14].t = comment;
        // The texts end in a NUL where they lie: the first takes the place of a length that is known by now,
        // the second that of a byte of the next row, which comes back.
        const char next = *comment_end;
        *mode_end = '\0';
        *comment_end = '\0';
        rc = cvn_append(w, NCOL, datum, isnull);
        *comment_end = next;
        p = comment_end;
    }
    const int append_errno = errno;
    const int close_rc = cvn_close(w);
    const moment_t end = now();
    if (rc != 0) fail("%s: code %d from an append: %s", out, rc, strerror(append_errno));
    if (close_rc != 0) {
        const int close_errno = errno;
        unlink(out);
        fail("%s: code %d from the close: %s", out, close_rc, strerror(close_errno));
    }
    printf("seconds=%.6f cpu=%.6f rows=%lld\n", end.seconds - start.seconds, end.cpu - start.cpu,
           static_cast<long long>(rows.nrow));
}
