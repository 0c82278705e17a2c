// Any bytes as a page, and any page through a condition.
//
//   byte 0      the column's type
//   byte 1      1: the rest is the uncompressed body, the sizes are computed; 2: so is the number of NULLs
//   byte 2      the condition's operator
//   byte 3      the condition's value
//   16 bytes    nrow, nnull, nmapoff, nbyte
//   the rest    the stored body
#include <math.h>

#include <algorithm>

#include "fuzz/fuzz_client.h"

using namespace rows;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

constexpr size_t HEADSZ = 20;
constexpr const char* VALUES[] = {"0", "1", "-1", "7", "x", "", "\\x00ff", "nan", "1E+3"};
// An operator and the one that holds when it does not, of values that have an order.
constexpr int OPS[][2] = {{CVN_OP_EQ, CVN_OP_NE},
                          {CVN_OP_GT, CVN_OP_LE},
                          {CVN_OP_GE, CVN_OP_LT},
                          {CVN_OP_ISNULL, CVN_OP_ISNOTNULL},
                          {CVN_OP_IN, CVN_OP_NE}};

static void count_nulls(cvn_page_t* head, const char* body) {
    head->nnull = 0;
    for (int32_t r = 0; r < head->nrow; r++)
        head->nnull += (static_cast<uint8_t>(body[head->nmapoff + r / 8]) & (0x80 >> (r % 8))) != 0;
}

// What becomes of the rows by one comparison; `*ret_read` tells whether the value is one of the type.
static std::vector<uint8_t> rows_that_meet(const column_t& col, int op, const char* value, bool* ret_read) {
    cond_t cond;
    cond_fault_t fault;
    const std::vector<std::string> values(op == CVN_OP_ISNULL || op == CVN_OP_ISNOTNULL ? 0 : 1, value);
    const cond_column_t column[] = {{"c", col.vec.typ}};
    fuzz::demand(cond_add(&cond, "c", op, values, &fault), "a comparison is refused");
    *ret_read = cond_bind(&cond, column, &fault);
    std::vector<uint8_t> keep(static_cast<size_t>(col.vec.nrow), 1);
    if (*ret_read) cond_decide(keep.data(), cond, {&col, 1});
    return keep;
}

// Filters the column by a condition and its contrary, and takes out the rows that are left.
static void filter(column_t* col, const int (&op)[2], const char* value) {
    const kelp_vec_t& vec = col->vec;
    bool read;
    const std::vector<uint8_t> yes = rows_that_meet(*col, op[0], value, &read);
    if (!read) return;
    const std::vector<uint8_t> no = rows_that_meet(*col, op[1], value, &read);
    const bool may_be_nan = value_has_nan(vec.typ);
    std::vector<int32_t> row;
    std::string expected;
    for (int64_t r = 0; r < vec.nrow; r++) {
        const auto at = static_cast<size_t>(r);
        fuzz::demand(yes[at] <= 1 && !(yes[at] && no[at]), "a row meets a condition and its contrary");
        const bool unknown = kelp_vec_isnull(vec, r) && op[0] != CVN_OP_ISNULL;
        fuzz::demand(!unknown || (!yes[at] && !no[at]), "a NULL meets a comparison");
        fuzz::demand(unknown || may_be_nan || yes[at] || no[at],
                     "a row meets neither a condition nor its contrary");
        if (!yes[at]) continue;
        row.push_back(static_cast<int32_t>(r));
        expected += kelp_vec_isnull(vec, r) ? 'n' : 'v';
        if (vec.width == 0)
            expected += kelp_vec_text(vec, r);
        else
            expected.append(vec.value + r * vec.width, static_cast<size_t>(vec.width));
    }
    if (row.empty()) return;
    column_compact(col, row);
    std::string got;
    fuzz::put_column(&got, col->vec);
    fuzz::demand(got == expected, "a filter changes the rows that it keeps");
}

// Returns whether the page became a column.
static bool decode(bufpool_t* pool, column_t* col, const cvn_page_t& head, std::string_view body) {
    if (const char* why = page_check(head)) {
        fuzz::demand(*why != '\0', "a page is refused without a reason");
        return false;
    }
    buf_t stored = buf_get(pool, body.size());
    if (!stored.p) return false;
    memcpy(stored.p, body.data(), body.size());
    if (head.zbyte == head.nbyte) {
        col->value = stored;
        stored = buf_t{};
    }
    const char* why =
        page_unpack(pool, &col->value, head, head.zbyte == head.nbyte ? col->value.p : stored.p);
    buf_put(pool, stored);
    if (!why) why = page_view(pool, col, head, "c");
    return !why;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < HEADSZ) return 0;
    const std::string_view body(reinterpret_cast<const char*>(data) + HEADSZ, size - HEADSZ);
    cvn_page_t head{};
    const cvn_typ_t typ = fuzz::TYPES[data[0] % std::size(fuzz::TYPES)];
    head.magic = CVN_PAGE_MAGIC;
    head.typ = typ;
    memcpy(&head.nrow, data + 4, sizeof(int32_t));
    memcpy(&head.nnull, data + 8, sizeof(int32_t));
    memcpy(&head.nmapoff, data + 12, sizeof(int32_t));
    memcpy(&head.nbyte, data + 16, sizeof(int32_t));
    head.zbyte = static_cast<int32_t>(body.size());
    head.hash = static_cast<int32_t>(XXH32(body.data(), body.size(), 0));
    if (data[1] & 1) {
        head.nbyte = head.zbyte;
        head.nrow = head.nrow & 0xfff;
        head.nmapoff = head.nbyte - (head.nrow + 7) / 8;
        if ((data[1] & 2) && head.nmapoff >= 0) count_nulls(&head, body.data());
    }
    bufpool_t pool;
    column_t col;
    if (decode(&pool, &col, head, body)) {
        std::string values;
        fuzz::put_column(&values, col.vec);
        filter(&col, OPS[data[2] % std::size(OPS)], VALUES[data[3] % std::size(VALUES)]);
    }
    column_free(&pool, &col);
    return 0;
}
