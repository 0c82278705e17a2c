// cvn_scan: choosing columns and row groups, and reading pages.
//
// Pages of a row group are carved from one block that is kept between row groups and grows to the largest of
// them, so a long scan does not return memory to the system only to fault it in again.

#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "colvane/colvane.h"
#include "colvane/colvane_int.h"

using namespace colvane;

namespace {

constexpr int CVN_READ_AHEAD = 4;  // row groups beyond the next one that the kernel is told of
// What a page takes besides its body.
constexpr int64_t CVN_PAGE_SLOT = sizeof(cvn_page_t);
static_assert(CVN_PAGE_SLOT == 44);

}  // namespace

// Configuring.

static int add_required(cvn_scan_t* scan, const char* cname, const cvn_typ_t* typ) {
    if (scan->nlens || scan->started) return -6;
    const int c = cvn_scan_find_column(scan, cname);
    if (c < 0 || (typ && scan->coldef[c].typ != *typ)) return -6;
    for (int k = 0; k < scan->nreqcol; k++)
        if (scan->reqcol[k] == c) return -6;
    scan->reqcol[scan->nreqcol++] = c;
    return 0;
}

int cvn_scan_add_required(cvn_scan_t* scan, const char* cname) { return add_required(scan, cname, nullptr); }

int cvn_scan_add_required_ex(cvn_scan_t* scan, const char* cname, cvn_typ_t typ) {
    return add_required(scan, cname, &typ);
}

int cvn_scan_add_fragment(cvn_scan_t* scan, int id, int nfrag) {
    if (nfrag < 0 || id < 0 || id >= nfrag) return -6;
    scan->fragid = id;
    scan->nfrag = nfrag;
    return 0;
}

// Reading one row group.

// What the body of a page takes in memory.
static int64_t body_size(const colmeta_t* m, bool uncompress) {
    return uncompress ? std::max(m->nbyte, m->zbyte) : m->zbyte;
}

// Pages lie 8 after a multiple of 16, so that bodies, 40 bytes on, lie on one.
static int64_t slot_size(int64_t bodysz) { return (CVN_PAGE_SLOT + bodysz + 15) & ~int64_t{15}; }

// What the pages of a row group take.
struct plan_t {
    int npage;          // pages to read, all of them unless one is refused
    int code;           // why the page after them is refused; 0 when none is
    int64_t slabsz;     // bytes of the pages
    int64_t largest;    // bytes of the largest of them
    int64_t scratchsz;  // stored bytes of the largest compressed one
};

// Goes through the pages of the required columns [first, end) before any memory is taken for them: every
// number must be borne out by the file. A page that is not ends the plan, after those before it, so that the
// first trouble in column order is the one reported.
static plan_t plan_pages(cvn_scan_t* scan, int64_t rg, int first, int end, bool uncompress) {
    plan_t plan{.slabsz = 8};
    struct stat st;
    int64_t stored = 0;
    for (int k = first; k < end; k++) {
        const int c = scan->reqcol[k];
        colmeta_t m;
        load_colmeta(&m, scan, rg, c);
        if (scan->split_mode && (plan.code = cvn_scan_open_column(scan, c)) != 0) return plan;
        if ((k == first || scan->split_mode) && fstat(column_fd(scan, c), &st) != 0) {
            plan.code = -3;
            return plan;
        }
        if (!cvn_page_in_file(&m, st.st_size)) {
            plan.code = -3;
            return plan;
        }
        stored = scan->split_mode ? m.zbyte : stored + m.zbyte;
        if (!overlap_bearable(stored, st.st_size)) {
            plan.code = -3;
            return plan;
        }
        if (uncompress && m.nbyte > m.zbyte) {
            if (m.nbyte / CVN_LZ4_MAX_RATIO > m.zbyte) {
                plan.code = -6;
                return plan;
            }
            plan.scratchsz = std::max<int64_t>(plan.scratchsz, m.zbyte);
        }
        const int64_t slotsz = slot_size(body_size(&m, uncompress));
        plan.slabsz += slotsz;
        plan.largest = std::max(plan.largest, slotsz);
        plan.npage++;
    }
    return plan;
}

// Allocates room for at least `*sz` bytes. Large room is whole huge pages, so that it takes few faults to
// fill and serves later row groups that are a little larger; `*sz` is then raised to what there is.
static char* alloc_room(mpool_t* pool, int64_t* sz) {
    if (*sz < CVN_HUGE_PAGE / 2) return static_cast<char*>(mpool_alloc(pool, static_cast<size_t>(*sz)));
    const int64_t whole = (*sz + CVN_HUGE_PAGE - 1) / CVN_HUGE_PAGE * CVN_HUGE_PAGE;
    auto* block = static_cast<char*>(mpool_alloc(pool, static_cast<size_t>(whole + CVN_HUGE_PAGE)));
    if (!block) return nullptr;
    block += -reinterpret_cast<uintptr_t>(block) & (CVN_HUGE_PAGE - 1);
    cvn_advise_large(block, whole);
    *sz = whole;
    return block;
}

// Makes room for a row group's pages. What is large enough is kept; the rest goes before anything larger
// comes.
static int make_slab(cvn_scanner_t* scan, const plan_t* plan) {
    cvn_scan_t* sc = &scan->pub;
    if (plan->slabsz > scan->slabsz || plan->scratchsz > scan->scratchsz) {
        int64_t slabsz = std::max(plan->slabsz, scan->slabsz);
        int64_t scratchsz = std::max(plan->scratchsz, scan->scratchsz);
        mpool_reset(sc->per_rowgroup_mpool);
        scan->slabsz = scan->scratchsz = 0;
        scan->slab = alloc_room(sc->per_rowgroup_mpool, &slabsz);
        if (!scan->slab) return -2;
        scan->slabsz = slabsz;
        scan->scratch = alloc_room(sc->per_rowgroup_mpool, &scratchsz);
        if (!scan->scratch) return -2;
        scan->scratchsz = scratchsz;
    }
    return 0;
}

static int read_page(cvn_scanner_t* scan, cvn_page_t* page, const colmeta_t* m, int fd, bool uncompress) {
    const auto zbyte = static_cast<size_t>(m->zbyte);
    char* body = reinterpret_cast<char*>(page) + CVN_PAGE_HEADSZ;
    if (!uncompress || m->nbyte <= m->zbyte) {
        if (!cvn_pread_full(fd, body, zbyte, m->file_offset)) return -3;
        return uncompress && m->nbyte != m->zbyte ? -1 : 0;
    }
    if (!cvn_pread_full(fd, scan->scratch, zbyte, m->file_offset)) return -3;
    const int rc = cvn_lz4_decode(body, m->nbyte, scan->scratch, m->zbyte);
    if (rc == 0) page->zbyte = page->nbyte;
    return rc;
}

// Reads the pages of the required columns [first, end) into scan->page[first...].
static int read_pages(cvn_scan_t* scan, int64_t rg, int first, int end, bool uncompress) {
    const plan_t plan = plan_pages(scan, rg, first, end, uncompress);
    cvn_scanner_t* s = scanner_of(scan);
    int rc = make_slab(s, &plan);
    if (rc != 0) return rc;
    char* slot = s->slab + 8;
    for (int k = first; k < first + plan.npage; k++) {
        const int c = scan->reqcol[k];
        colmeta_t m;
        load_colmeta(&m, scan, rg, c);
        auto* page = reinterpret_cast<cvn_page_t*>(slot);
        const cvn_page_t head{.magic = CVN_PAGE_MAGIC,
                              .cno = c,
                              .typ = scan->coldef[c].typ,
                              .nrow = m.nrow,
                              .nnull = m.nnull,
                              .nmapoff = m.nmapoff,
                              .nbyte = m.nbyte,
                              .zbyte = m.zbyte,
                              .hash = m.hash};
        memcpy(page, &head, CVN_PAGE_HEADSZ);
        scan->page[k] = page;
        rc = read_page(s, page, &m, column_fd(scan, c), uncompress);
        if (rc != 0) return rc;
        slot += slot_size(body_size(&m, uncompress));
    }
    return plan.code;
}

int cvn_scan_rowgroup(cvn_scan_t* scan, int64_t rg, int* ret_ncol, cvn_page_t*** ret_page, bool uncompress) {
    *ret_ncol = 0;
    *ret_page = nullptr;
    if (!has_rowgroup(scan, rg)) return -6;
    const int rc = read_pages(scan, rg, 0, scan->nreqcol, uncompress);
    if (rc != 0) return rc;
    *ret_ncol = scan->nreqcol;
    *ret_page = scan->page;
    return 0;
}

int cvn_scan_page(cvn_scan_t* scan, int64_t rg, int k, cvn_page_t** ret_page, bool uncompress) {
    *ret_page = nullptr;
    if (!has_rowgroup(scan, rg) || k < 0 || k >= scan->nreqcol) return -6;
    const int rc = read_pages(scan, rg, k, k + 1, uncompress);
    if (rc == 0) *ret_page = scan->page[k];
    return rc;
}

// Scanning.

// Opens what the scan needs and settles which row groups it returns.
static int start_scan(cvn_scan_t* scan) {
    if (scan->split_mode)
        for (int k = 0; k < scan->nreqcol; k++) {
            const int rc = cvn_scan_open_column(scan, scan->reqcol[k]);
            if (rc != 0) return rc;
        }
    scan->qualify_top = 0;
    const int64_t first = scan->nfrag ? scan->fragid : 0;
    const int64_t step = scan->nfrag ? scan->nfrag : 1;
    for (int64_t r = first; r < scan->schema->nrowgroup; r += step) {
        const int rc = qualify_rowgroup(scan, static_cast<int>(r));
        if (rc < 0) return rc;
        if (rc > 0) scan->qualify_index[scan->qualify_top++] = static_cast<int>(r);
    }
    scan->started = true;
    return 0;
}

// Tells the kernel which pages will be wanted a few row groups on.
static void read_ahead(cvn_scan_t* scan) {
    if (scan->qualify_cur + CVN_READ_AHEAD >= scan->qualify_top) return;
    const int rg = scan->qualify_index[scan->qualify_cur + CVN_READ_AHEAD];
    for (int k = 0; k < scan->nreqcol; k++) {
        const int c = scan->reqcol[k];
        colmeta_t m;
        load_colmeta(&m, scan, rg, c);
        fadvise(column_fd(scan, c), m.file_offset, m.zbyte);
    }
}

// Advances to the next row group that qualifies.
static int advance(cvn_scan_t* scan, int* ret_rg) {
    if (!scan->started) {
        if (scan->disqualify_file) return -4;
        int rc = qualify_file(scan);
        if (rc < 0) return rc;
        if (rc == 0) return -4;
        rc = start_scan(scan);
        if (rc != 0) return rc;
    }
    if (scan->qualify_cur >= scan->qualify_top) return -4;
    *ret_rg = scan->qualify_index[scan->qualify_cur++];
    return 0;
}

int cvn_scan_next(cvn_scan_t* scan, int* ret_ncol, cvn_page_t*** ret_page, bool uncompress) {
    *ret_ncol = 0;
    *ret_page = nullptr;
    int rg;
    int rc = advance(scan, &rg);
    if (rc == 0) rc = cvn_scan_rowgroup(scan, rg, ret_ncol, ret_page, uncompress);
    if (rc == 0) read_ahead(scan);
    return rc;
}

int cvn_scan_next_rowgroup(cvn_scan_t* scan, int64_t* ret_rg) {
    *ret_rg = -1;
    int rg;
    int rc = advance(scan, &rg);
    if (rc != 0) return rc;
    plan_t plan = plan_pages(scan, rg, 0, scan->nreqcol, false);
    if (plan.code != 0) return plan.code;
    // Memory for any one of the pages is had now, so that only reading them can fail later.
    plan.slabsz = 8 + plan.largest;
    rc = make_slab(scanner_of(scan), &plan);
    if (rc != 0) return rc;
    *ret_rg = rg;
    read_ahead(scan);
    return 0;
}
