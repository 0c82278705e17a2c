// Local data as all clients read it: a condition in words, bound to a data file's columns, pushed to its statistics
// and decided row by row.
//
//   64 bytes     the condition, up to its NUL
//   the rest     a data file
//
// Demanded: a failure says what it is; columns of a row group have the same rows and every value can be read; the
// rows that are left are those that the condition holds for, and holds for again; skipping by statistics adds no
// row group; a condition that is written anew means the same.
#include <string.h>

#include <algorithm>
#include <numeric>

#include "fuzz/exercise.h"
#include "fuzz/fuzz_client.h"
#include "fuzz/mutate.h"
#include "rows/file.h"

using namespace rows;
using fuzz::demand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

constexpr size_t TEXTSZ = 64;
constexpr int64_t MAX_GROUPS = 16;

size_t fuzz::file_offset(const uint8_t*, size_t) { return TEXTSZ; }

static void check_fault(const file_fault_t& fault) {
    demand(fault.kind >= FILE_CODE && fault.kind <= FILE_PAGE, "a fault of no kind");
    demand(fault.kind != FILE_CODE || exercise::one_of(fault.code, {-1, -2, -3, -4, -6, -7, -10}),
           "a fault with an unknown code");
    demand(fault.kind != FILE_PAGE || (fault.what && *fault.what && fault.rg >= 0),
           "a fault without its place");
}

static void check_fault(const cond_fault_t& fault) {
    demand(fault.code >= COND_SYNTAX && fault.code <= COND_VALUE, "a condition is refused without a code");
    demand(fault.code == COND_COLUMN || fault.code == COND_TYPE || !fault.what.empty(),
           "a condition is refused without a reason");
}

namespace {
struct columns_t {
    bufpool_t* pool;
    std::vector<column_t> column;
    ~columns_t() {
        for (column_t& c : column) column_free(pool, &c);
    }
};
}  // namespace

static std::string row_text(const std::vector<column_t>& column, int64_t row) {
    std::string s;
    for (const column_t& c : column) {
        s += cvn_vec_isnull(c.vec, row) ? 'n' : 'v';
        if (c.vec.width == 0)
            s += cvn_vec_text(c.vec, row);
        else
            s.append(c.vec.value + row * c.vec.width, static_cast<size_t>(c.vec.width));
        s += '|';
    }
    return s;
}

static void filter(std::vector<column_t>* column, const cond_t& cond) {
    const int64_t nrow = (*column)[0].vec.nrow;
    std::vector<uint8_t> keep(static_cast<size_t>(nrow), 1);
    cond_decide(keep.data(), cond, *column);
    std::string expected, got;
    int64_t n = 0;
    for (int64_t r = 0; r < nrow; r++) {
        if (!keep[static_cast<size_t>(r)]) continue;
        n++;
        expected += row_text(*column, r);
    }
    demand(cond_filter(*column, column->size(), cond) == n, "a filter keeps another number of rows");
    if (n == 0) return;
    for (int64_t r = 0; r < n; r++) got += row_text(*column, r);
    demand(got == expected, "a filter changes the rows that it keeps");
    std::fill(keep.begin(), keep.end(), 1);
    cond_decide(keep.data(), cond, *column);
    demand(std::all_of(keep.begin(), keep.begin() + n, [](uint8_t k) { return k == 1; }),
           "a row that was kept does not meet the condition");
}

static void read_groups(file_t* file, const cond_t& cond) {
    columns_t columns{.pool = file->pool.get(), .column = {}};
    file_fault_t fault;
    int64_t before = -1;
    for (int64_t i = 0; i < MAX_GROUPS; i++) {
        int64_t rg = 77;
        if (!file_next(file, &rg, &fault)) return check_fault(fault);
        if (rg == -1) break;
        demand(rg > before && rg < file->nrowgroup, "row groups that do not ascend");
        before = rg;
        if (!file_read(file, rg, &columns.column, &fault)) {
            check_fault(fault);
            continue;
        }
        demand(columns.column.size() == file->want.size(), "a row group with another number of columns");
        std::string sink;
        for (const column_t& c : columns.column) {
            demand(c.vec.nrow == cvn_scan_get_rowgroup_size(file->scan, rg), "a column with other rows");
            sink.clear();
            fuzz::put_column(&sink, c.vec);
            for (int64_t r = 0; r < std::min<int64_t>(c.vec.nrow, 64); r++) {
                if (cvn_vec_isnull(c.vec, r)) continue;
                cvn_datum_t datum;
                memset(static_cast<void*>(&datum), 0, sizeof(datum));
                cvn_vec_datum(c.vec, r, &datum);
                value_append_text(&sink, datum, c.vec.typ);
            }
        }
        if (!columns.column.empty()) filter(&columns.column, cond);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < TEXTSZ) return 0;
    const char* const p = reinterpret_cast<const char*>(data);
    const std::string_view text(p, strnlen(p, TEXTSZ));
    const fuzz::memory_file_t input(data + TEXTSZ, size - TEXTSZ);
    static const auto pool = std::make_shared<bufpool_t>();
    file_t file;
    file_fault_t fault;
    if (!file_open(&file, input.path(), pool, &fault)) {
        check_fault(fault);
        return 0;
    }
    cond_t cond;
    cond_fault_t why;
    if (!text.empty() && !cond_parse(&cond, text, &why)) {
        check_fault(why);
        demand(cond.kid.empty(), "a condition that was refused leaves a part");
    }
    std::vector<cond_column_t> column;
    std::vector<int> want;
    for (size_t c = 0; c < file.column.size() && c < 32; c++) {
        column.push_back({file.column[c].name, cvn_typlen(file.column[c].typ) ? file.column[c].typ : 0});
        if (column.back().typ != 0) want.push_back(static_cast<int>(c));
    }
    if (!cond_bind(&cond, column, &why)) {
        check_fault(why);
        cond = {};
    }
    if (!file_want(&file, want, &fault)) {
        check_fault(fault);
        return 0;
    }
    if (!file_push(&file, cond, &fault)) {
        check_fault(fault);
        return 0;
    }
    std::vector<int> place(file.column.size(), -1);
    for (size_t i = 0; i < want.size(); i++) place[static_cast<size_t>(want[i])] = static_cast<int>(i);
    cond_renumber(&cond, place);
    read_groups(&file, cond);
    return 0;
}
