// What the writer writes, at any size: a short recipe makes a file, mostly small, at times of megabytes and of more
// than one row group, which all readers then have to give back.
//
//   byte 0       columns, 1 to 8
//   byte 1, 2    rows; with bit 7 of byte 1 a hundred times as many
//   byte 3       bit 0: NULLs; bit 1: values repeat, so that chunks compress; bit 2: long texts; bits 3 to 5: a
//                condition's operator; bit 6: the file is split first; bit 7: texts so long that few rows fill
//                a row group
//   byte 4       seed of the values
//   byte 5       the condition's column and the row that its constant is taken from
//   the rest     a byte for each column: its type, zflag and nflag
//
// Demanded: every value and NULL comes back, through the library and through rows/file; the file is verified; what
// was proved can be read page by page; and a row group is passed over only when no row of it meets the condition,
// which is decided here, value by value.
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "fuzz/fuzz_client.h"
#include "fuzz/mutate.h"
#include "rows/file.h"
#include "tools/commands.h"

using fuzz::demand;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

constexpr size_t OWNSZ = 6;
constexpr int64_t MANY = 100;
constexpr int64_t MAX_VALUES = 400000;  // of all columns
constexpr int64_t MAX_HUGE = 900;
constexpr size_t HUGE_TEXTSZ = 100000;

namespace {
struct recipe_t {
    std::vector<cvn_typ_t> typ;
    std::vector<uint8_t> flags;
    int64_t nrow;
    bool nulls, repeats, longer, huge;
    uint8_t seed;
};
struct value_store_t {
    cvn_datum_t datum;
    std::string text;
};
}  // namespace

// The value of a row: the same whenever it is asked for.
static bool make_value(value_store_t* ret, const recipe_t& recipe, size_t c, int64_t row) {
    const auto place = static_cast<uint64_t>(recipe.repeats ? row / 97 : row);
    fuzz::dice_t dice{place * 2654435761u + c * 97 + recipe.seed};
    (void)dice.roll(2);
    memset(static_cast<void*>(&ret->datum), 0, sizeof(ret->datum));
    if (recipe.nulls && dice.roll(5) == 0) return false;
    const auto n = static_cast<int64_t>(dice.roll(1000)) - 500;
    cvn_datum_t* const d = &ret->datum;
    switch (cvn_storage(recipe.typ[c])) {
        case CVN_TYP_BOOL: d->b = n > 0; break;
        case CVN_TYP_INT16: d->s = static_cast<int16_t>(n * 65); break;
        case CVN_TYP_INT32: d->i = static_cast<int32_t>(n * 4294967 + row % 7); break;
        case CVN_TYP_INT64: d->I = n * int64_t{0x1234567890ab} + row; break;
        case CVN_TYP_INT128: d->L = static_cast<cvn_int128_t>(n) << 90; break;
        case CVN_TYP_FLOAT: d->f = static_cast<float>(n) / 8; break;
        case CVN_TYP_DOUBLE: d->F = static_cast<double>(n) / 1024; break;
        case CVN_TYP_DEC64: (void)cvn_dec64_from_string(&d->dec64, std::to_string(n).c_str()); break;
        case CVN_TYP_DEC128: (void)cvn_dec128_from_string(&d->dec128, std::to_string(n).c_str()); break;
        default:
            ret->text = std::to_string(n);
            if (recipe.huge) ret->text.append(HUGE_TEXTSZ, 'a' + static_cast<char>(dice.roll(20)));
            if (recipe.longer)
                ret->text.insert(0, static_cast<size_t>(dice.roll(120)), 'a' + static_cast<char>(c));
            if (cvn_storage(recipe.typ[c]) == CVN_TYP_CSTR)
                d->t = ret->text.c_str();
            else
                *d = cvn_datum_t{
                    .a = {.ptr = ret->text.data(), .len = static_cast<int32_t>(ret->text.size())}};
    }
    return true;
}

static std::string column_name(size_t c) { return "c" + std::to_string(c); }

static void write_file(const char* path, const recipe_t& recipe) {
    cvn_t* w = nullptr;
    demand(cvn_create(&w, path) == 0, "a file cannot be written");
    const size_t ncol = recipe.typ.size();
    for (size_t c = 0; c < ncol; c++)
        demand(cvn_create_column(w, column_name(c).c_str(), recipe.typ[c], (recipe.flags[c] & 16) != 0,
                                 (recipe.flags[c] & 32) != 0) == 0,
               "a column is refused");
    std::vector<cvn_datum_t> datum(ncol);
    std::vector<value_store_t> value(ncol);
    const auto isnull = std::make_unique<bool[]>(ncol);
    for (int64_t r = 0; r < recipe.nrow; r++) {
        for (size_t c = 0; c < ncol; c++) {
            isnull[c] = !make_value(&value[c], recipe, c, r);
            datum[c] = value[c].datum;
        }
        demand(cvn_append(w, static_cast<int>(ncol), datum.data(), isnull.get()) == 0, "a row is refused");
    }
    demand(cvn_close(w) == 0, "a file cannot be finished");
}

static void check_value(const cvn_vec_t& vec, int64_t row, const value_store_t& want, bool there,
                        cvn_typ_t typ) {
    demand(cvn_vec_isnull(vec, row) == !there, "a NULL where there was none, or none where there was");
    if (!there) return;
    cvn_datum_t got;
    memset(static_cast<void*>(&got), 0, sizeof(got));
    cvn_vec_datum(vec, row, &got);
    demand(rows::value_cmp(got, want.datum, typ) == 0, "a value comes back as another");
}

static bool meets(int cmp, int op) {
    switch (op) {
        case CVN_OP_EQ: return cmp == 0;
        case CVN_OP_NE: return cmp != 0;
        case CVN_OP_GT: return cmp > 0;
        case CVN_OP_GE: return cmp >= 0;
        case CVN_OP_LT: return cmp < 0;
        default: return cmp <= 0;
    }
}

// Whether any row of [first, end) meets the condition.
static bool any_meets(const recipe_t& recipe, size_t c, int op, const cvn_datum_t& constant, int64_t first,
                      int64_t end) {
    value_store_t value;
    for (int64_t r = first; r < end; r++) {
        const bool there = make_value(&value, recipe, c, r);
        if (op == CVN_OP_ISNULL ? !there : op == CVN_OP_ISNOTNULL ? there : false) return true;
        if (there && op < CVN_OP_ISNULL && meets(rows::value_cmp(value.datum, constant, recipe.typ[c]), op))
            return true;
    }
    return false;
}

static void read_by_rows(const char* path, const recipe_t& recipe) {
    static const auto pool = std::make_shared<rows::bufpool_t>();
    rows::file_t file;
    rows::file_fault_t fault;
    demand(rows::file_open(&file, path, pool, &fault), "what was written is not opened");
    std::vector<int> want(recipe.typ.size());
    for (size_t c = 0; c < want.size(); c++) want[c] = static_cast<int>(want.size() - 1 - c);
    demand(rows::file_want(&file, want, &fault), "a column that was written is not there");
    std::vector<rows::column_t> column;
    int64_t first = 0;
    for (int64_t rg = 0; rg < file.nrowgroup; rg++) {
        demand(rows::file_read(&file, rg, &column, &fault), "a row group that was written is not read");
        const int64_t n = cvn_scan_get_rowgroup_size(file.scan, rg);
        for (size_t k = 0; k < want.size(); k++)
            for (int64_t r = 0; r < n; r++) {
                value_store_t value;
                const auto c = static_cast<size_t>(want[k]);
                const bool there = make_value(&value, recipe, c, first + r);
                check_value(column[k].vec, r, value, there, recipe.typ[c]);
            }
        first += n;
    }
    for (rows::column_t& c : column) rows::column_free(pool.get(), &c);
    demand(first == recipe.nrow, "another number of rows");
}

// The daemon's way: conditions, row groups, the proof, page by page.
static void read_by_pages(const char* path, const recipe_t& recipe, size_t c, int op, int64_t row) {
    value_store_t constant;
    const bool there = make_value(&constant, recipe, c, row);
    if (op != CVN_OP_ISNULL && op != CVN_OP_ISNOTNULL && !there) return;
    cvn_scan_t* sc = nullptr;
    demand(cvn_scan_open(&sc, path) == 0, "what was written is not opened");
    for (size_t i = 0; i < recipe.typ.size(); i++)
        demand(cvn_scan_add_required(sc, column_name(i).c_str()) == 0,
               "a column that was written is not there");
    const int narg = op == CVN_OP_ISNULL || op == CVN_OP_ISNOTNULL ? 0 : 1;
    demand(cvn_scan_add_lens(sc, column_name(c).c_str(), op, narg, &constant.datum) == 0,
           "a condition is refused");
    int64_t first = 0, next = 0, rg;
    int code;
    while ((code = cvn_scan_next_rowgroup(sc, &rg)) == 0) {
        for (; next < rg; next++) {
            const int64_t n = cvn_scan_get_rowgroup_size(sc, next);
            demand(!any_meets(recipe, c, op, constant.datum, first, first + n), "a row group is lost");
            first += n;
        }
        first += cvn_scan_get_rowgroup_size(sc, next++);
        demand(cvn_scan_prove(sc, rg, 0) == 0, "pages that were written are not there");
        for (int k = 0; k < sc->nreqcol; k++) {
            cvn_page_t* page = nullptr;
            demand(cvn_scan_page(sc, rg, k, &page, false) == 0, "a page that was proved is not read");
            demand(static_cast<uint32_t>(page->hash) ==
                       XXH32(reinterpret_cast<const char*>(page) + CVN_PAGE_HEADSZ,
                             static_cast<size_t>(page->zbyte), 0),
                   "a page with another hash");
        }
    }
    // A type without an order cannot be asked for one.
    demand(code == -4 || (code == -6 && cvn_storage(recipe.typ[c]) == CVN_TYP_BYTEA), "a scan fails");
    for (; code == -4 && next < sc->schema->nrowgroup; next++) {
        const int64_t n = cvn_scan_get_rowgroup_size(sc, next);
        demand(!any_meets(recipe, c, op, constant.datum, first, first + n), "a row group is lost");
        first += n;
    }
    (void)cvn_scan_close(sc);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < OWNSZ + 1) return 0;
    recipe_t recipe{.typ = {},
                    .flags = {},
                    .nrow = (data[1] & 0x3f) * int64_t{data[1] & 0x40 ? 16 : 1} + data[2],
                    .nulls = (data[3] & 1) != 0,
                    .repeats = (data[3] & 2) != 0,
                    .longer = (data[3] & 4) != 0,
                    .huge = (data[3] & 128) != 0,
                    .seed = data[4]};
    const size_t ncol = std::min<size_t>(1 + data[0] % 8, size - OWNSZ);
    for (size_t c = 0; c < ncol; c++) {
        recipe.flags.push_back(data[OWNSZ + c]);
        recipe.typ.push_back(fuzz::TYPES[data[OWNSZ + c] % 14]);
    }
    if (data[1] & 0x80) recipe.nrow *= MANY;
    recipe.nrow = std::min(recipe.nrow, (recipe.huge ? MAX_HUGE : MAX_VALUES) / static_cast<int64_t>(ncol));
    const fuzz::memory_file_t file(nullptr, 0);
    write_file(file.path(), recipe);
    tool_out_t said;
    int64_t nrow = 0;
    const int64_t nfault = verify_file(file.path(), &said, &nrow);
    if (nfault != 0) fprintf(stderr, "%s", said.buf.c_str());
    demand(nfault == 0 && nrow == recipe.nrow, "what was written is not good");
    std::string path = file.path();
    const std::string dir = fuzz::scratch_dir() + "/d";
    if (data[3] & 64) {
        std::filesystem::remove_all(dir);
        demand(cvnx_split(dir.c_str(), path.c_str()) == 0, "what was written cannot be split");
        path = dir;
    }
    read_by_rows(path.c_str(), recipe);
    const size_t c = data[5] % ncol;
    const int op = 1 + (data[3] >> 3 & 7);
    if (recipe.nrow > 0) read_by_pages(path.c_str(), recipe, c, op, data[5] % recipe.nrow);
    if (data[3] & 64) std::filesystem::remove_all(dir);
    return 0;
}
