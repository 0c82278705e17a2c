// The daemon's way through a file: row groups chosen by conditions and fragments, proved, then page by page.
//
//   byte 0       bits 0 to 2: how many conditions; bit 3: decompress; bit 4: a fragment; bit 5: columns in
//                reverse; bit 6: the file is split first and the directory read
//   byte 1, 2    the fragment and how many there are
//   byte 3       which columns are required: bit c % 8 leaves out column c
//   12 bytes     for each of four conditions its column, its operator and its constant
//   the rest     a data file
//
// Demanded: row groups ascend, belong to the fragment and are those that a scan without conditions has; the pages
// that the two halves give are those of the whole; what was proved can be read; stored bytes are those of the
// file; the end stays the end; no code but those that the header names.
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "fuzz/exercise.h"
#include "fuzz/fuzz_file.h"
#include "fuzz/mutate.h"

using fuzz::demand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

constexpr size_t OWNSZ = 16;
constexpr int64_t MAX_GROUPS = 64;

size_t fuzz::file_offset(const uint8_t*, size_t) { return OWNSZ; }

namespace {
struct ask_t {
    const uint8_t* own;
    bool uncompress() const { return (own[0] & 8) != 0; }
    bool fragment() const { return (own[0] & 16) != 0; }
    int ncond() const { return std::min(own[0] & 7, 4); }
};
}  // namespace

// A constant of the column's storage type: a bound of the file, a number, or a text of any length.
static bool make_constant(cvn_datum_t* ret, cvn_scan_t* sc, int cno, uint8_t choice, std::string* text) {
    const cvn_typ_t typ = sc->coldef[cno].typ;
    const int storage = cvn_storage(typ);
    colstat_t stat;
    demand(cvn_scan_colstat(sc, cno, &stat) == 0, "a column without statistics");
    memset(static_cast<void*>(ret), 0, sizeof(*ret));
    if ((choice & 3) < 2) {
        const cvn_datum_t& bound = (choice & 1) ? stat.maxval : stat.minval;
        if (storage == CVN_TYP_CSTR) {
            text->assign(bound.raw, strnlen(bound.raw, sizeof(bound.raw)));
            if (choice & 4) *text += "x";
            ret->t = text->c_str();
            return true;
        }
        if (storage == CVN_TYP_BYTEA) {
            text->assign(bound.raw, sizeof(bound.raw));
            *ret = cvn_datum_t{.a = {.ptr = text->data(), .len = static_cast<int32_t>(text->size())}};
            return true;
        }
        memcpy(static_cast<void*>(ret), &bound, sizeof(*ret));
        if (storage == CVN_TYP_BOOL) {
            // The record's byte may be any; a caller's bool is not.
            const char byte = bound.raw[0];
            memset(static_cast<void*>(ret), 0, sizeof(*ret));
            ret->b = byte != 0;
        }
        return true;
    }
    static constexpr const char* TEXTS[] = {"0", "1", "-1", "100", "0x7fffffff", "-99999", "1e300", "nan"};
    *text = TEXTS[(choice >> 2) % std::size(TEXTS)];
    if (storage == CVN_TYP_INT128)
        *text = "0x0000000000000000000000000000000" + std::to_string((choice >> 2) % 10);
    if (storage == CVN_TYP_CSTR || storage == CVN_TYP_BYTEA)
        text->assign(static_cast<size_t>(choice) * choice, static_cast<char>('a' + choice % 26));
    return cvn_datum_from_string(ret, text->c_str(), typ) == 0;
}

static void add_conditions(cvn_scan_t* sc, const ask_t& ask) {
    for (int i = 0; i < ask.ncond() && sc->nreqcol > 0; i++) {
        const uint8_t* const say = ask.own + 4 + 3 * i;
        const int cno = sc->reqcol[say[0] % sc->nreqcol];
        const int op = say[1] % 11;  // 0 and 10 are none
        const int narg = op == CVN_OP_ISNULL || op == CVN_OP_ISNOTNULL ? 0
                         : op == CVN_OP_IN                             ? say[2] % 32
                                                                       : 1;
        char name[CVN_NAME_SZ + 1] = {};
        memcpy(name, sc->coldef[cno].name, CVN_NAME_SZ);
        cvn_datum_t arg[32];
        std::string text[32];
        for (int k = 0; k < narg; k++)
            if (!make_constant(&arg[k], sc, cno, static_cast<uint8_t>(say[2] + 37 * k), &text[k])) return;
        const int code = cvn_scan_add_lens(sc, name, op, narg, arg);
        demand(exercise::one_of(code, {0, -2, -6, -10}), "an unknown code of a condition");
        demand(op >= 1 && op <= 9 ? code != -10 : code != 0, "an operator is taken for another");
        // The scanner keeps copies: what the constants pointed at may go.
        for (std::string& t : text) std::fill(t.begin(), t.end(), '#');
    }
}

static cvn_scan_t* open_scan(const char* path, const ask_t& ask, bool conditions) {
    cvn_scan_t* sc = nullptr;
    const int code = cvn_scan_open(&sc, path);
    demand(code == 0 || !sc, "an open that failed sets its result");
    if (code != 0) return nullptr;
    const int ncol = std::min(sc->schema->ncol, exercise::MAX_COLUMNS);
    for (int i = 0; i < ncol; i++) {
        const int c = (ask.own[0] & 32) ? ncol - 1 - i : i;
        if (ask.own[3] & (1 << c % 8)) continue;
        char name[CVN_NAME_SZ + 1] = {};
        memcpy(name, sc->coldef[c].name, CVN_NAME_SZ);
        (void)cvn_scan_add_required(sc, name);  // a name that comes again is refused
    }
    if (conditions) add_conditions(sc, ask);
    if (ask.fragment()) {
        const int code2 =
            cvn_scan_add_fragment(sc, static_cast<int8_t>(ask.own[1]), static_cast<int8_t>(ask.own[2]));
        const bool sound = static_cast<int8_t>(ask.own[1]) >= 0 &&
                           static_cast<int8_t>(ask.own[1]) < static_cast<int8_t>(ask.own[2]);
        demand(code2 == (sound ? 0 : -6), "a fragment is judged wrongly");
    }
    return sc;
}

// Whether the page's stored bytes are those of its file.
static void check_stored(cvn_scan_t* sc, int64_t rg, int cno, const cvn_page_t* page) {
    int fd = -1;
    colmeta_t meta;
    demand(cvn_scan_locate(sc, rg, cno, &fd, &meta) == 0, "a page that was read does not lie in its file");
    demand(page->zbyte == meta.zbyte && page->nbyte == meta.nbyte && page->nrow == meta.nrow &&
               page->nnull == meta.nnull && page->nmapoff == meta.nmapoff && page->hash == meta.hash,
           "a page whose head is not its record's");
    if (meta.zbyte == 0) return;  // wherever it claims to lie
    std::string bytes(static_cast<size_t>(meta.zbyte), '\0');
    demand(pread(fd, bytes.data(), bytes.size(), meta.file_offset) == static_cast<ssize_t>(bytes.size()) &&
               memcmp(bytes.data(), reinterpret_cast<const char*>(page) + CVN_PAGE_HEADSZ, bytes.size()) == 0,
           "a page whose bytes are not its file's");
}

static void read_rowgroup(cvn_scan_t* sc, cvn_scan_t* whole, int64_t rg, bool uncompress) {
    const int proved = cvn_scan_prove(sc, rg, 0);
    demand(exercise::one_of(proved, {0, -1, -2, -3, -6}), "an unknown code of the proof");
    int npage = 0;
    cvn_page_t** pages = nullptr;
    const int together = cvn_scan_rowgroup(whole, rg, &npage, &pages, uncompress);
    fuzz::demand_null(exercise::check_pages(together, npage, pages, whole, uncompress));
    for (int k = 0; k < sc->nreqcol; k++) {
        cvn_page_t* page = reinterpret_cast<cvn_page_t*>(1);
        const int code = cvn_scan_page(sc, rg, k, &page, uncompress);
        demand(exercise::one_of(code, {0, -1, -2, -3, -6}), "an unknown code of a page");
        demand((code == 0) == (page != nullptr), "a page that failed is handed out");
        if (code != 0) {
            demand(proved != 0 || uncompress, "what was proved cannot be read");
            demand(together != 0, "a page cannot be had that its row group gives");
            continue;
        }
        demand(page->magic == CVN_PAGE_MAGIC && page->cno == sc->reqcol[k], "a page without its head");
        const auto n = static_cast<size_t>(uncompress ? page->nbyte : page->zbyte);
        if (together == 0)
            demand(memcmp(page, pages[k], CVN_PAGE_HEADSZ + n) == 0, "a page differs from its row group's");
        if (!uncompress) check_stored(sc, rg, sc->reqcol[k], page);
    }
    cvn_page_t* page = reinterpret_cast<cvn_page_t*>(1);
    demand(cvn_scan_page(sc, rg, sc->nreqcol, &page, uncompress) == -6 && !page, "a page beyond the last");
}

static void scan(const char* path, const ask_t& ask) {
    cvn_scan_t* const plain = open_scan(path, ask, false);
    if (!plain) return;
    cvn_scan_t* const sc = open_scan(path, ask, true);
    cvn_scan_t* const whole = open_scan(path, ask, true);
    demand(sc && whole, "a file that opened once does not open again");
    int64_t before = -1, others = -1;
    bool comparable = true;
    int code = 0;
    for (int64_t n = 0; n < MAX_GROUPS; n++) {
        int64_t rg = 77;
        code = cvn_scan_next_rowgroup(sc, &rg);
        demand(exercise::one_of(code, {0, -1, -2, -3, -4, -6}), "an unknown code of the next row group");
        if (code != 0) break;
        demand(rg > before && rg < sc->schema->nrowgroup, "row groups that do not ascend");
        demand(sc->nfrag == 0 || rg % sc->nfrag == sc->fragid, "a row group of another fragment");
        before = rg;
        // One that is passed over by its statistics may be one whose pages are not there.
        while (others < rg && comparable) comparable = cvn_scan_next_rowgroup(plain, &others) == 0;
        demand(!comparable || others == rg, "conditions add a row group");
        int npage = 0;
        cvn_page_t** pages = nullptr;
        const int next = cvn_scan_next(whole, &npage, &pages, ask.uncompress());
        demand(next != -4, "a row group that cvn_scan_next passes over");
        fuzz::demand_null(exercise::check_pages(next, npage, pages, whole, ask.uncompress()));
        read_rowgroup(sc, whole, rg, ask.uncompress());
    }
    if (code == -4) {
        int64_t rg = 77;
        demand(cvn_scan_next_rowgroup(sc, &rg) == -4, "the end is not the end");
    }
    for (cvn_scan_t* s : {plain, sc, whole}) (void)cvn_scan_close(s);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < OWNSZ) return 0;
    const ask_t ask{data};
    const fuzz::memory_file_t file(data + OWNSZ, size - OWNSZ);
    if ((data[0] & 64) == 0) {
        scan(file.path(), ask);
        return 0;
    }
    const std::string dir = fuzz::scratch_dir() + "/d";
    std::filesystem::remove_all(dir);
    if (cvnx_split(dir.c_str(), file.path()) == 0) scan(dir.c_str(), ask);
    std::filesystem::remove_all(dir);
    return 0;
}
