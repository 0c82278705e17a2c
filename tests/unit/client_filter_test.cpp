// Conditions of the client: filters beside a decision row by row, and what the server is asked beside the library.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "client/replies.h"

using namespace kelp;
using rows::buf_get;
using rows::bufpool_t;
using rows::column_t;
using rows::page_view;

namespace {

using replies::page;
using replies::values_of;
using support::table_t;
using support::text;
using support::value_t;
using support::values_t;

// Filters against a decision row by row.

// What a condition makes of one value, told from the value's text form by the rules as they are written down.
bool meets(const kelp_cond_t& cond, int32_t typ, const value_t& v) {
    if (cond.op == CVN_OP_ISNULL) return v.null;
    if (cond.op == CVN_OP_ISNOTNULL) return !v.null;
    if (v.null) return false;
    const int storage = cvn_storage(typ);
    const auto order = [&](const std::string& s, bool* unordered) -> int {
        rows::value_t read;
        EXPECT_EQ(nullptr, rows::value_from_text(&read, s, typ));
        const cvn_datum_t& d = read.datum;
        *unordered = false;
        const auto cmp = [](auto a, auto b) { return a < b ? -1 : a > b; };
        switch (storage) {
            case CVN_TYP_BOOL: return cmp(v.bytes[0] != 0, d.b);
            case CVN_TYP_INT16: return cmp(support::load<int16_t>(v.bytes, 0), d.s);
            case CVN_TYP_INT32: return cmp(support::load<int32_t>(v.bytes, 0), d.i);
            case CVN_TYP_INT64: return cmp(support::load<int64_t>(v.bytes, 0), d.I);
            case CVN_TYP_INT128: return cmp(support::load<cvn_int128_t>(v.bytes, 0), d.L);
            case CVN_TYP_FLOAT: {
                const float x = support::load<float>(v.bytes, 0);
                *unordered = std::isnan(x) || std::isnan(d.f);
                return cmp(x, d.f);
            }
            case CVN_TYP_DOUBLE: {
                const double x = support::load<double>(v.bytes, 0);
                *unordered = std::isnan(x) || std::isnan(d.F);
                return cmp(x, d.F);
            }
            case CVN_TYP_BYTEA: return cmp(v.bytes, std::string(d.a.ptr, static_cast<size_t>(d.a.len)));
            case CVN_TYP_CSTR: return cmp(v.bytes, std::string(d.t));
            case CVN_TYP_DEC64: {
                const auto x = support::load<decDouble>(v.bytes, 0);
                char a[CVN_DEC64_STRSZ], b[CVN_DEC64_STRSZ];
                cvn_dec64_to_string(a, x);
                cvn_dec64_to_string(b, d.dec64);
                *unordered = strstr(a, "NaN") || strstr(b, "NaN");
                return cvn_dec64_cmp(x, d.dec64);
            }
            default: {
                const auto x = support::load<decQuad>(v.bytes, 0);
                char a[CVN_DEC128_STRSZ], b[CVN_DEC128_STRSZ];
                cvn_dec128_to_string(a, x);
                cvn_dec128_to_string(b, d.dec128);
                *unordered = strstr(a, "NaN") || strstr(b, "NaN");
                return cvn_dec128_cmp(x, d.dec128);
            }
        }
    };
    bool unordered = false;
    if (cond.op == CVN_OP_IN) {
        for (const std::string& s : cond.value)
            if (order(s, &unordered) == 0 && !unordered) return true;
        return false;
    }
    const int o = order(cond.value[0], &unordered);
    if (unordered) return cond.op == CVN_OP_NE;
    switch (cond.op) {
        case CVN_OP_EQ: return o == 0;
        case CVN_OP_NE: return o != 0;
        case CVN_OP_GT: return o > 0;
        case CVN_OP_GE: return o >= 0;
        case CVN_OP_LT: return o < 0;
        default: return o <= 0;
    }
}

rows::cond_t bound_to(const std::vector<kelp_cond_t>& cond, const std::vector<rows::cond_column_t>& column) {
    rows::cond_t bound;
    rows::cond_fault_t fault;
    for (const kelp_cond_t& c : cond)
        EXPECT_TRUE(rows::cond_add(&bound, c.column, c.op, c.value, &fault)) << fault.what;
    EXPECT_TRUE(rows::cond_bind(&bound, column, &fault)) << fault.what;
    return bound;
}

// What the server is asked of a table with the one column "c".
std::vector<pushed_t> push(const kelp_cond_t& cond, cvn_typ_t typ, bool no_nan) {
    plan_t plan;
    plan.column = {{"c", typ}};
    plan.nresult = 1;
    plan.cond = bound_to({cond}, {{"c", typ}});
    return query_push(plan, no_nan);
}

// The text of a value, for conditions that some row meets.
std::string text_of(int32_t typ, const value_t& v) {
    char buf[64];
    switch (cvn_storage(typ)) {
        case CVN_TYP_BOOL: return v.bytes[0] ? "true" : "false";
        case CVN_TYP_INT16: return std::to_string(support::load<int16_t>(v.bytes, 0));
        case CVN_TYP_INT32: return std::to_string(support::load<int32_t>(v.bytes, 0));
        case CVN_TYP_INT64: return std::to_string(support::load<int64_t>(v.bytes, 0));
        case CVN_TYP_INT128: cvn_int128_to_string(buf, support::load<cvn_int128_t>(v.bytes, 0)); return buf;
        case CVN_TYP_FLOAT:
            snprintf(buf, sizeof(buf), "%.9g", double{support::load<float>(v.bytes, 0)});
            return buf;
        case CVN_TYP_DOUBLE:
            snprintf(buf, sizeof(buf), "%.17g", support::load<double>(v.bytes, 0));
            return buf;
        case CVN_TYP_BYTEA: {
            std::string s = "\\x";
            for (const char c : v.bytes) {
                snprintf(buf, sizeof(buf), "%02x", static_cast<unsigned char>(c));
                s += buf;
            }
            return s;
        }
        case CVN_TYP_CSTR: return v.bytes;
        case CVN_TYP_DEC64: cvn_dec64_to_string(buf, support::load<decDouble>(v.bytes, 0)); return buf;
        default: cvn_dec128_to_string(buf, support::load<decQuad>(v.bytes, 0)); return buf;
    }
}

kelp_cond_t random_cond(std::mt19937_64& rng, const reader::column_t& column, const values_t& value) {
    kelp_cond_t cond{column.name, 1 + static_cast<int>(rng() % 9), {}};
    const auto some_value = [&] {
        for (int i = 0; i < 20; i++) {
            const value_t& v = value[rng() % value.size()];
            if (!v.null) return text_of(column.typ, v);
        }
        return text_of(column.typ, support::random_value(rng, column.typ));
    };
    if (cond.op <= CVN_OP_LE) cond.value = {some_value()};
    if (cond.op == CVN_OP_IN)
        for (size_t i = 1 + rng() % 5; i > 0; i--) cond.value.push_back(some_value());
    return cond;
}

TEST(ClientFilter, KeepsExactlyTheRowsThatMeetAllConditions) {
    std::mt19937_64 rng(11);
    size_t kept = 0, all = 0;
    for (int round = 0; round < 300; round++) {
        const size_t nrow = 1 + rng() % 200;
        const table_t t = support::all_types_table(rng(), nrow);
        std::vector<kelp_cond_t> cond;
        std::vector<size_t> col;
        for (size_t i = 1 + rng() % 2; i > 0; i--) {
            const size_t c = rng() % t.column.size();
            cond.push_back(random_cond(rng, t.column[c], t.value[c]));
            col.push_back(c);
        }
        std::vector<rows::cond_column_t> names;
        for (const auto& c : t.column) names.push_back({c.name, c.typ});
        const rows::cond_t bound = bound_to(cond, names);
        std::vector<values_t> want(t.column.size());
        for (size_t r = 0; r < nrow; r++) {
            bool keep = true;
            for (size_t i = 0; i < cond.size(); i++)
                keep = keep && meets(cond[i], t.column[col[i]].typ, t.value[col[i]][r]);
            for (size_t c = 0; c < t.column.size() && keep; c++) want[c].push_back(t.value[c][r]);
        }
        bufpool_t pool;
        std::vector<column_t> column(t.column.size());
        for (size_t c = 0; c < column.size(); c++) {
            const std::string bytes = page(0, t.column[c].typ, t.value[c], false);
            cvn_page_t head;
            memcpy(&head, bytes.data(), CVN_PAGE_HEADSZ);
            column[c].value = buf_get(&pool, bytes.size());
            memcpy(column[c].value.p, bytes.data() + CVN_PAGE_HEADSZ, bytes.size() - CVN_PAGE_HEADSZ);
            ASSERT_EQ(nullptr, page_view(&pool, &column[c], head, "c"));
        }
        const int64_t n = rows::cond_filter(column, column.size(), bound);
        ASSERT_EQ(static_cast<int64_t>(want[0].size()), n) << round;
        for (size_t c = 0; c < column.size(); c++) {
            if (n > 0) {
                EXPECT_EQ(want[c], values_of(column[c].vec)) << round << " " << t.column[c].name;
                int64_t nnull = 0;
                for (const value_t& v : want[c]) nnull += v.null;
                EXPECT_EQ(nnull, column[c].vec.nnull);
            }
            column_free(&pool, &column[c]);
        }
        kept += want[0].size();
        all += nrow;
    }
    EXPECT_GT(kept, all / 20);       // the conditions are neither void
    EXPECT_LT(kept, all * 19 / 20);  // nor always true
}

// What is asked of the server, tried on the library's own statistics: no row group that has a row may be
// lost.
TEST(ClientPush, NeverLosesARowThatMeetsTheCondition) {
    std::mt19937_64 rng(17);
    int skipped = 0, pushed_count = 0;
    for (int round = 0; round < 4000; round++) {
        const int32_t typ = reader::ALL_TYPES[rng() % 14];
        const size_t nrow = 1 + rng() % 6;
        reader::column_t column{"c", typ, false, false};
        values_t v = support::random_values(rng, typ, nrow, 20);
        // Texts around the 39 and 40 bytes at which bounds and constants are cut.
        if (cvn_storage(typ) == CVN_TYP_CSTR)
            for (value_t& x : v)
                if (!x.null && rng() % 2)
                    x = text(std::string(37 + rng() % 6, 'a') + static_cast<char>('a' + rng() % 3));
        values_t pool_of_constants = support::random_values(rng, typ, 4, 0);
        pool_of_constants.insert(pool_of_constants.end(), v.begin(), v.end());
        const kelp_cond_t cond = random_cond(rng, column, pool_of_constants);
        bool has_nan = false, any = false;
        for (const value_t& x : v) {
            any = any || meets(cond, typ, x);
            if (!x.null && cvn_storage(typ) != CVN_TYP_BYTEA && cvn_storage(typ) != CVN_TYP_CSTR)
                has_nan = has_nan || text_of(typ, x).find("an") != std::string::npos ||
                          text_of(typ, x).find("NaN") != std::string::npos;
        }
        const bool promise = !has_nan && rng() % 2;
        const std::vector<pushed_t> pushed = push(cond, typ, promise);

        // A row group of other values stands in front of it in the file, whose bounds are those of both
        // together.
        const values_t front = promise && !has_nan ? values_t{} : support::random_values(rng, typ, 3, 20);
        reader::bounds_t file_bounds;
        int64_t nnull = 0, file_nnull = 0;
        if (!front.empty())
            reader::merge_bounds(typ, file_bounds, reader::chunk_bounds(column, front.data(), front.size()));
        const reader::bounds_t b = reader::chunk_bounds(column, v.data(), v.size());
        reader::merge_bounds(typ, file_bounds, b);
        for (const value_t& x : v) nnull += x.null;
        for (const value_t& x : front) file_nnull += x.null;
        file_nnull += nnull;
        const auto image_of = [](const std::string& bytes) {
            cvn_datum_t d;
            memcpy(static_cast<void*>(&d), bytes.data(), sizeof(d));
            return d;
        };
        cvn_datum_t lo = image_of(b.minval), hi = image_of(b.maxval);
        cvn_datum_t file_lo = image_of(file_bounds.minval), file_hi = image_of(file_bounds.maxval);
        bool may = true;
        for (const pushed_t& p : pushed) {
            pushed_count++;
            lens_t ln;
            memset(static_cast<void*>(&ln), 0, sizeof(ln));
            ln.op = p.op;
            cvn_datum_t d;
            if (p.has_value) {
                ASSERT_EQ(0, cvn_datum_from_string(&d, p.value.c_str(), typ)) << p.value;
                switch (cvn_storage(typ)) {
                    case CVN_TYP_BOOL: ln.val.I = d.b; break;
                    case CVN_TYP_INT16: ln.val.I = d.s; break;
                    case CVN_TYP_INT32: ln.val.I = d.i; break;
                    case CVN_TYP_INT64: ln.val.I = d.I; break;
                    case CVN_TYP_INT128: ln.val.L = d.L; break;
                    case CVN_TYP_FLOAT: ln.val.F = double{d.f}; break;
                    case CVN_TYP_DOUBLE: ln.val.F = d.F; break;
                    case CVN_TYP_CSTR: ln.val.t = d.t; break;
                    case CVN_TYP_DEC64: ln.val.dec64 = d.dec64; break;
                    default: ln.val.dec128 = d.dec128; break;
                }
            }
            const int q = qualify(&ln, typ, static_cast<int64_t>(nrow), nnull, b.has ? &lo : nullptr,
                                  b.has ? &hi : nullptr);
            const int file_q =
                qualify(&ln, typ, static_cast<int64_t>(nrow + front.size()), file_nnull,
                        file_bounds.has ? &file_lo : nullptr, file_bounds.has ? &file_hi : nullptr);
            ASSERT_GE(file_q, 0);
            ASSERT_GE(q, 0);
            may = may && q && file_q;
        }
        EXPECT_TRUE(may || !any) << round << " " << cvn_typ_str(typ) << " op " << cond.op;
        skipped += !may;
    }
    EXPECT_GT(pushed_count, 1000);
    EXPECT_GT(skipped, 100);  // the pushing does something
}

std::vector<pushed_t> push(const char* text_of_cond, cvn_typ_t typ, bool no_nan) {
    kelp_cond_t cond;
    EXPECT_EQ(0, kelp_cond_parse(&cond, text_of_cond, nullptr));
    return push(cond, typ, no_nan);
}

TEST(ClientPush, ReducesListsToTheirEnds) {
    const auto p = push("c in (300, 5, 256)", CVN_TYP_INT16, false);
    ASSERT_EQ(2u, p.size());
    EXPECT_EQ(CVN_OP_GE, p[0].op);
    EXPECT_EQ("5", p[0].value);
    EXPECT_EQ(CVN_OP_LE, p[1].op);
    EXPECT_EQ("300", p[1].value);
    const auto d = push("c in (1.5, 9.25, 3)", CVN_TYP_DEC64, true);
    ASSERT_EQ(2u, d.size());
    EXPECT_EQ("1.5", d[0].value);
    EXPECT_EQ("9.25", d[1].value);
    EXPECT_TRUE(push("c in (1.5, 9.25)", CVN_TYP_DEC64, false).empty());
}

TEST(ClientPush, SaysNothingAboutNumbersThatMayBeNaN) {
    for (const cvn_typ_t typ : {CVN_TYP_FLOAT, CVN_TYP_DOUBLE, CVN_TYP_DEC64, CVN_TYP_DEC128}) {
        for (const char* c : {"c = 1", "c != 1", "c > 1", "c <= 1", "c in (1, 2)"}) {
            EXPECT_TRUE(push(c, typ, false).empty()) << c;
            EXPECT_FALSE(push(c, typ, true).empty()) << c;
            EXPECT_TRUE(push("c = nan", typ, true).empty());
        }
        EXPECT_EQ(1u, push("c is null", typ, false).size());
        EXPECT_EQ(1u, push("c is not null", typ, false).size());
    }
    EXPECT_TRUE(push("c = 1", CVN_TYP_BYTEA, true).empty());
}

// A stored bool may be another byte than 0 and 1, which the server's statistics take for a number.
TEST(ClientPush, ComparesBoolsWithZeroOnly) {
    const auto asked = [](const char* text_of_cond) {
        std::string s;
        for (const pushed_t& p : push(text_of_cond, CVN_TYP_BOOL, false))
            s += (p.op == CVN_OP_NE ? "!=" : p.op == CVN_OP_EQ ? "==" : "?") + p.value + " ";
        return s;
    };
    for (const char* c : {"c = true", "c != false", "c > false", "c >= true", "c in (true)"})
        EXPECT_EQ("!=0 ", asked(c)) << c;
    for (const char* c : {"c = false", "c != true", "c < true", "c <= false", "c in (0, false)"})
        EXPECT_EQ("==0 ", asked(c)) << c;
    for (const char* c : {"c >= false", "c <= true", "c in (true, false)"}) EXPECT_EQ("", asked(c)) << c;
    EXPECT_EQ("!=0 ==0 ", asked("c > true"));
}

TEST(ClientPush, SaysNothingThatNeedsAnEscape) {
    EXPECT_EQ(1u, push("c = 'it''s'", CVN_TYP_CSTR, false).size());
    EXPECT_TRUE(push("c = 'a\"b'", CVN_TYP_CSTR, false).empty());
    EXPECT_TRUE(push("c = 'a\\b'", CVN_TYP_CSTR, false).empty());
    EXPECT_TRUE(push("c = 'a\nb'", CVN_TYP_CSTR, false).empty());
    const auto p = push(("c = " + std::string(40000, 'x')).c_str(), CVN_TYP_CSTR, false);
    ASSERT_EQ(1u, p.size());
    EXPECT_EQ(std::string(48, 'x'), p[0].value);
}

}  // namespace
