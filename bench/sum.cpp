// A full or a selective scan that adds up. Pages come from the scanner as they are stored; each is
// decompressed just before its values are added up, into one buffer that all share, so that the values are
// still in the processor's cache and no memory is touched that is not needed. A selective scan looks at the
// dates first: of the other columns it decompresses no more than the part that ends with the last row wanted.
#include <errno.h>
#include <fcntl.h>
#include <lz4.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "bench/cvn_bench.h"
#include "bench/kernels.h"
#include "bench/total.h"
#include "colvane/colvane.h"

namespace {

constexpr int BLOCK = DEC64_BLOCK;  // values gathered at a time

// A buffer that grows and is never copied.
struct scratch_t {
    char* buf = nullptr;
    size_t sz = 0;
};

}  // namespace

static char* scratch_room(scratch_t* s, size_t need) {
    if (need > s->sz) {
        constexpr size_t HUGE_PAGE = 2 << 20;
        free(s->buf);
        s->sz = need;
        s->buf = static_cast<char*>(aligned_alloc(HUGE_PAGE, (need + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1)));
        if (!s->buf) fail("out of memory");
        (void)madvise(s->buf, need & ~(HUGE_PAGE - 1), MADV_HUGEPAGE);  // a hint: fewer page faults
    }
    return s->buf;
}

namespace {

struct sum_t {
    const sum_args_t* args;
    const kernels_t* kernels;
    scratch_t body;               // the decompressed page at hand
    std::vector<int32_t> wanted;  // selective: indexes of the rows wanted
    int nwanted = 0;
    std::vector<uint32_t> ends;          // where texts end
    alignas(64) char block[BLOCK * 16];  // values gathered from a page
};

}  // namespace

// The sizes in a page header are claims of the file.
static void check_page(const cvn_page_t* page) {
    const int64_t mapsz = (static_cast<int64_t>(page->nrow) + 7) / 8;
    const int width = cvn_typlen(page->typ);
    if (page->nrow < 0 || page->nbyte < 0 || page->zbyte < 0 || page->nmapoff < 0 ||
        page->nmapoff + mapsz > page->nbyte || page->nbyte > static_cast<int64_t>(page->zbyte) * 255 ||
        (width > 0 && static_cast<int64_t>(page->nrow) * width > page->nmapoff))
        fail("column %d: a page whose sizes do not agree", page->cno);
}

// Returns at least the first `need` bytes of the page's values. Valid until the next call.
static const char* page_body(sum_t* s, const cvn_page_t* page, int need) {
    if (page->zbyte == page->nbyte) return page->buf;
    char* dst = scratch_room(&s->body, static_cast<size_t>(page->nbyte));
    int n;
    if (need < page->nbyte) {
        n = LZ4_decompress_safe_partial(page->buf, dst, page->zbyte, need, page->nbyte);
        if (n < need) fail("column %d: a page does not decompress", page->cno);
    } else {
        n = LZ4_decompress_safe(page->buf, dst, page->zbyte, page->nbyte);
        if (n != page->nbyte) fail("column %d: a page does not decompress", page->cno);
    }
    return dst;
}

static bool is_null(const char* map, int row) { return map[row / 8] & 0x80 >> (row % 8); }

// Adds values of one fixed width, those that `row_of` names (index to row) and that are not NULL, gathered
// into blocks.
template <int width, class F>
static void add_gathered(sum_t* s, total_t* total, const char* body, const char* map, int n, F row_of) {
    for (int i = 0; i < n;) {
        int k = 0;
        for (const int end = std::min(n, i + BLOCK); i < end; i++) {
            const int row = row_of(i);
            memcpy(s->block + k * width, body + static_cast<size_t>(row) * width, width);
            k += !map || !is_null(map, row);
        }
        total_add(total, s->kernels, s->block, k);
    }
}

template <class F>
static void add_fixed(sum_t* s, total_t* total, int width, const char* body, const char* map, int n,
                      F row_of) {
    switch (width) {
        case 1: add_gathered<1>(s, total, body, map, n, row_of); break;
        case 2: add_gathered<2>(s, total, body, map, n, row_of); break;
        case 4: add_gathered<4>(s, total, body, map, n, row_of); break;
        case 8: add_gathered<8>(s, total, body, map, n, row_of); break;
        default: add_gathered<16>(s, total, body, map, n, row_of); break;
    }
}

static void add_texts(sum_t* s, total_t* total, const cvn_page_t* page, const char* body) {
    const auto refuse = [&] { fail("column %d: texts that are not one per row", page->cno); };
    // A NULL holds an empty text, which adds nothing.
    if (!s->args->select) {
        int64_t ntext;
        const int64_t length = s->kernels->sum_texts(&ntext, body, static_cast<size_t>(page->nmapoff));
        if (ntext != page->nrow) refuse();
        total_add_length(total, length);
        return;
    }
    const int upto = s->wanted[static_cast<size_t>(s->nwanted) - 1] + 1;
    if (s->ends.size() < static_cast<size_t>(upto)) s->ends.resize(static_cast<size_t>(upto));
    if (s->kernels->find_texts(s->ends.data(), upto, body, static_cast<size_t>(page->nmapoff)) < upto)
        refuse();
    int64_t length = 0;
    for (int i = 0; i < s->nwanted; i++) {
        const int row = s->wanted[i];
        length += s->ends[row] - (row > 0 ? s->ends[static_cast<size_t>(row) - 1] + 1 : 0);
    }
    total_add_length(total, length);
}

static void add_byteas(sum_t* s, total_t* total, const cvn_page_t* page, const char* body) {
    int64_t length = 0;
    int at = 0, next = 0;  // next: place in the rows wanted
    for (int row = 0; row < page->nrow; row++) {
        int32_t len = -1;
        if (page->nmapoff - at >= 4) memcpy(&len, body + at, 4);
        if (len < 0 || len > page->nmapoff - at - 4)
            fail("column %d: byte strings that are not one per row", page->cno);
        at += 4 + len;
        const bool wanted = !s->args->select || (next < s->nwanted && s->wanted[next] == row);
        next += wanted;
        if (wanted) length += len;
    }
    total_add_length(total, length);
}

static void add_page(sum_t* s, total_t* total, const cvn_page_t* page) {
    check_page(page);
    const int width = cvn_typlen(page->typ);
    const bool select = s->args->select;
    if (select && s->nwanted == 0) return;
    if (width < 1) {
        const char* body = page_body(s, page, page->nbyte);
        if (width == -2)
            add_texts(s, total, page, body);
        else
            add_byteas(s, total, page, body);
        return;
    }
    const bool nulls = page->nnull != 0;
    const int need =
        select && !nulls ? (s->wanted[static_cast<size_t>(s->nwanted) - 1] + 1) * width : page->nbyte;
    const char* body = page_body(s, page, need);
    const char* map = nulls ? body + page->nmapoff : nullptr;
    if (select) {
        const int32_t* rows = s->wanted.data();
        add_fixed(s, total, width, body, map, s->nwanted, [rows](int i) { return rows[i]; });
    } else if (nulls) {
        add_fixed(s, total, width, body, map, page->nrow, [](int i) { return i; });
    } else {
        // Backwards, in blocks: the end of the page was written last and is still in the nearest cache.
        for (int end = page->nrow; end > 0;) {
            const int k = (end - 1) % (4 * BLOCK) + 1;
            end -= k;
            total_add(total, s->kernels, body + static_cast<size_t>(end) * static_cast<size_t>(width), k);
        }
    }
}

// Fills the indexes of the rows wanted from the page of the column that selects.
static void select_rows(sum_t* s, const cvn_page_t* page) {
    check_page(page);
    const char* body = page_body(s, page, page->nbyte);
    if (s->wanted.size() < static_cast<size_t>(page->nrow) + 64)
        s->wanted.resize(static_cast<size_t>(page->nrow) + 64);
    int32_t* rows = s->wanted.data();
    s->nwanted = s->kernels->select_i32(rows, body, page->nrow, s->args->lo, s->args->hi);
    if (page->nnull == 0) return;
    const char* map = body + page->nmapoff;
    const int32_t* end =
        std::remove_if(rows, rows + s->nwanted, [map](int row) { return is_null(map, row); });
    s->nwanted = static_cast<int>(end - rows);
}

static void must(int rc, const char* file, const char* what) {
    if (rc != 0) fail("%s: %s: code %d", file, what, rc);
}

namespace {

// What one scan found and took.
struct outcome_t {
    double seconds;
    double cpu;
    int64_t nread;
    std::string result;
};

}  // namespace

// One scan, from open to close.
static outcome_t sum_once(sum_t* s) {
    const sum_args_t& args = *s->args;
    const moment_t start = now();
    cvn_scan_t* scan = nullptr;
    must(cvn_scan_open(&scan, args.file), args.file, "open");
    int ncol;
    const cvn_coldef_t* coldef;
    cvn_scan_coldef(&ncol, &coldef, scan);
    std::vector<std::string> names = args.columns;
    if (names.empty())
        for (int c = 0; c < ncol; c++)
            names.emplace_back(coldef[c].name, strnlen(coldef[c].name, CVN_NAME_SZ));
    // The selecting column comes first unless it is one of those to be added up.
    std::vector<std::string> required = names;
    size_t by = 0;
    if (args.select) {
        by = static_cast<size_t>(std::find(names.begin(), names.end(), args.by) - names.begin());
        if (by == names.size()) required.push_back(args.by);
    }
    std::vector<total_t> totals(names.size());
    for (size_t i = 0; i < required.size(); i++) {
        must(cvn_scan_add_required(scan, required[i].c_str()), args.file, required[i].c_str());
        const cvn_typ_t typ = coldef[scan->reqcol[i]].typ;
        if (i < totals.size()) totals[i].typ = typ;
        if (args.select && i == by && cvn_storage(typ) != CVN_TYP_INT32)
            fail("%s is not stored as int32", args.by.c_str());
    }
    if (args.select) {
        cvn_datum_t bound;
        memset(&bound, 0, sizeof(bound));
        bound.i = args.lo;
        must(cvn_scan_add_lens(scan, args.by.c_str(), CVN_OP_GE, 1, &bound), args.file, "condition");
        bound.i = args.hi;
        must(cvn_scan_add_lens(scan, args.by.c_str(), CVN_OP_LE, 1, &bound), args.file, "condition");
    }
    int64_t nrow = args.select ? 0 : scan->schema->nrow, nseen = 0;
    // Head, trailer and footer are read by the open.
    int64_t nread = 8 + CVN_TRAILER_SZ + scan->schema_bufsz;
    int rc;
    int64_t rg;
    while ((rc = cvn_scan_next_rowgroup(scan, &rg)) == 0) {
        // Page by page, so that one is added up before the next takes its place in the cache.
        const auto read_page = [&](size_t k) {
            cvn_page_t* page;
            colmeta_t meta;
            must(cvn_scan_page(scan, rg, static_cast<int>(k), &page, args.whole), args.file,
                 required[k].c_str());
            must(cvn_scan_colmeta(scan, rg, page->cno, &meta), args.file, "chunk record");
            nread += meta.zbyte;
            return page;
        };
        nseen += cvn_scan_get_rowgroup_size(scan, rg);
        if (args.select) {
            select_rows(s, read_page(by));
            nrow += s->nwanted;
            if (s->nwanted == 0) continue;
        }
        for (size_t i = 0; i < totals.size(); i++) add_page(s, &totals[i], read_page(i));
    }
    if (rc != -4) fail("%s: scan: code %d", args.file, rc);
    cvn_scan_close(scan);
    const moment_t end = now();

    if (!args.select && nseen != nrow)
        fail("%s: %lld rows instead of %lld", args.file, static_cast<long long>(nseen),
             static_cast<long long>(nrow));
    std::string result;
    if (args.select || args.columns.empty()) result = std::to_string(nrow);
    for (const total_t& total : totals) {
        if (!result.empty()) result += ',';
        result += total_text(total);
    }
    return {end.seconds - start.seconds, end.cpu - start.cpu, nread, result};
}

void sum_file(const sum_args_t& args) {
    const auto s = std::make_unique<sum_t>();
    s->args = &args;
    s->kernels = kernels_get(args.kernels);
    if (!s->kernels) fail("instruction set %s: not here", args.kernels);
    // Of two scans in one process the second counts: the first also pays for memory that the process never
    // had before.
    const outcome_t first = sum_once(s.get()), second = sum_once(s.get());
    if (first.result != second.result) fail("%s: two scans gave different results", args.file);
    free(s->body.buf);
    printf("seconds=%.6f cpu=%.6f first_seconds=%.6f bytes_read=%lld result=%s\n", second.seconds, second.cpu,
           first.seconds, static_cast<long long>(second.nread), second.result.c_str());
}
