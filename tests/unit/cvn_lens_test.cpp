// Predicates: registration with all its codes, lists, and every row of the qualification table for every
// type.
#include <gtest/gtest.h>

#include <limits.h>

#include <cmath>

#include "support.h"

namespace {

using namespace support;

cvn_datum_t datum(int32_t typ, const value_t& v) { return to_datum(typ, v); }

// A scan over a file without rows, with one column per type, all of them required.
class CvnLens : public ::testing::Test {
 protected:
    CvnLens() {
        table_t t;
        for (const int32_t typ : reader::ALL_TYPES) {
            t.column.push_back({cvn_typ_str(typ), typ});
            t.value.emplace_back();
        }
        write_table(path_, t);
        EXPECT_EQ(0, cvn_scan_open(&sc_, path_.c_str()));
        for (const column_t& c : t.column) {
            if (c.name == "date") continue;
            EXPECT_EQ(0, cvn_scan_add_required(sc_, c.name.c_str()));
        }
    }
    ~CvnLens() override { cvn_scan_close(sc_); }

    int add(const char* name, int op, std::vector<cvn_datum_t> arg) {
        return cvn_scan_add_lens(sc_, name, op, static_cast<int>(arg.size()), arg.data());
    }
    int in(int32_t typ, const std::vector<value_t>& v) {
        std::vector<cvn_datum_t> arg;
        for (const value_t& x : v) arg.push_back(datum(typ, x));
        return add(cvn_typ_str(typ), CVN_OP_IN, arg);
    }

    const temp_dir_t dir_;
    const std::string path_ = dir_ / "t.cvn";
    cvn_scan_t* sc_ = nullptr;
    const cvn_datum_t zero_{};
};

TEST_F(CvnLens, RefusesAnUnknownColumn) {
    EXPECT_EQ(-6, add("missing", CVN_OP_EQ, {zero_}));
    EXPECT_EQ(-6, add("Int32", CVN_OP_ISNULL, {}));
    EXPECT_EQ(-6, add("missing", CVN_OP_IN, {zero_}));
    EXPECT_EQ(-6, add("missing", 99, {zero_})) << "the column comes before the code";
    EXPECT_EQ(0, sc_->nlens);
}

TEST_F(CvnLens, RefusesAColumnThatIsNotRequired) {
    EXPECT_EQ(-10, add("date", CVN_OP_EQ, {zero_}));
    EXPECT_EQ(-10, add("date", CVN_OP_ISNULL, {}));
    EXPECT_EQ(-10, add("date", CVN_OP_IN, {zero_}));
    EXPECT_EQ(-10, add("date", CVN_OP_IN, {zero_, zero_}));
    const scan_t bare(path_);
    cvn_datum_t d{};
    EXPECT_EQ(-10, cvn_scan_add_lens(bare, "int32", CVN_OP_EQ, 1, &d)) << "no column is required at all";
    EXPECT_EQ(0, sc_->nlens);
}

TEST_F(CvnLens, RefusesUnknownCodes) {
    for (const int op : {0, -1, 10, 11, INT_MAX, INT_MIN}) {
        EXPECT_EQ(-10, add("int32", op, {zero_})) << op;
        EXPECT_EQ(-10, add("int32", op, {})) << op;
    }
    EXPECT_EQ(0, sc_->nlens);
}

TEST_F(CvnLens, RefusesAWrongNumberOfArguments) {
    for (int op = CVN_OP_EQ; op <= CVN_OP_LE; op++) {
        EXPECT_EQ(-10, add("int32", op, {})) << op;
        EXPECT_EQ(-10, add("int32", op, {zero_, zero_})) << op;
        cvn_datum_t d{};
        EXPECT_EQ(-10, cvn_scan_add_lens(sc_, "int32", op, -1, &d)) << op;
    }
    for (const int op : {CVN_OP_ISNULL, CVN_OP_ISNOTNULL}) EXPECT_EQ(-10, add("int32", op, {zero_})) << op;
    cvn_datum_t d{};
    EXPECT_EQ(-10, cvn_scan_add_lens(sc_, "int32", CVN_OP_IN, -1, &d));
    EXPECT_EQ(0, sc_->nlens);
    EXPECT_FALSE(sc_->disqualify_file);
}

TEST_F(CvnLens, StoresTheValueOfEveryType) {
    const auto stored = [&](int32_t typ, const value_t& v) -> const lens_t& {
        EXPECT_EQ(0, add(cvn_typ_str(typ), CVN_OP_GT, {datum(typ, v)}));
        const lens_t& l = sc_->lens[sc_->nlens - 1];
        EXPECT_EQ(CVN_OP_GT, l.op);
        EXPECT_STREQ(cvn_typ_str(typ), sc_->coldef[l.cno].name);
        return l;
    };
    EXPECT_EQ(1, stored(CVN_TYP_BOOL, boolean(true)).val.I);
    EXPECT_EQ(-5, stored(CVN_TYP_INT16, i16(-5)).val.I);
    EXPECT_EQ(-6, stored(CVN_TYP_INT32, i32(-6)).val.I);
    EXPECT_EQ(-7, stored(CVN_TYP_TIME_MILLIS, i32(-7)).val.I);
    EXPECT_EQ(INT64_MIN, stored(CVN_TYP_INT64, i64(INT64_MIN)).val.I);
    EXPECT_EQ(-8, stored(CVN_TYP_TIMESTAMP_MILLIS, i64(-8)).val.I);
    EXPECT_TRUE(stored(CVN_TYP_INT128, i128(-9)).val.L == -9);
    EXPECT_EQ(0.1f, stored(CVN_TYP_FLOAT, f32(0.1f)).val.F);
    EXPECT_EQ(0.1, stored(CVN_TYP_DOUBLE, f64(0.1)).val.F);
    const value_t d = dec64("1.5"), q = dec128("2.5");
    EXPECT_EQ(0, memcmp(&stored(CVN_TYP_DEC64, d).val.dec64, d.bytes.data(), 8));
    EXPECT_EQ(0, memcmp(&stored(CVN_TYP_DEC128, q).val.dec128, q.bytes.data(), 16));
    EXPECT_EQ(11, sc_->nlens);
}

TEST_F(CvnLens, CopiesTextsAndByteStrings) {
    char s[] = "text", b[] = "b\0b";
    cvn_datum_t d{};
    d.t = s;
    ASSERT_EQ(0, add("cstr", CVN_OP_EQ, {d}));
    d.a.ptr = b;
    d.a.len = 3;
    ASSERT_EQ(0, add("bytea", CVN_OP_EQ, {d}));
    memset(s, 'X', 4);
    memset(b, 'X', 3);
    EXPECT_STREQ("text", sc_->lens[0].val.t);
    EXPECT_EQ(3, sc_->lens[1].val.a.len);
    EXPECT_EQ("b\0b"s, std::string(sc_->lens[1].val.a.ptr, 3));
}

TEST_F(CvnLens, StoresZeroForTheNullTests) {
    ASSERT_EQ(0, add("cstr", CVN_OP_ISNULL, {}));
    ASSERT_EQ(0, add("int128", CVN_OP_ISNOTNULL, {}));
    EXPECT_EQ(nullptr, sc_->lens[0].val.t);
    EXPECT_TRUE(sc_->lens[1].val.L == 0);
    EXPECT_EQ(CVN_OP_ISNOTNULL, sc_->lens[1].op);
}

TEST_F(CvnLens, CountsAPredicateWhoseTypeItRefuses) {
    for (const int32_t typ : {0, 12, 0x10000, 0xffff, -1}) {
        std::string file = read_file(path_);
        patch(file, layout_t(file).coldef(2) + 128, typ);
        const std::string path = dir_ / "u.cvn";
        write_file(path, file);
        const scan_t sc(path);
        ASSERT_EQ(0, sc.code);
        ASSERT_EQ(0, cvn_scan_add_required(sc, "int32"));
        cvn_datum_t d{};
        EXPECT_EQ(-6, cvn_scan_add_lens(sc, "int32", CVN_OP_EQ, 1, &d));
        EXPECT_EQ(1, sc->nlens) << "counted although refused";
        EXPECT_EQ(-6, cvn_scan_add_required(sc, "int16")) << "so columns can no longer be added";
        cvn_datum_t two[2] = {};
        EXPECT_EQ(-6, cvn_scan_add_lens(sc, "int32", CVN_OP_IN, 2, two));
        EXPECT_EQ(1, sc->nlens) << "a list is refused before anything is registered";
        EXPECT_EQ(-6, cvn_scan_add_lens(sc, "int32", CVN_OP_ISNULL, 0, nullptr))
            << "null tests look at the type too";
        EXPECT_EQ(2, sc->nlens);
    }
}

// Lists.

TEST_F(CvnLens, MakesTheScanEmptyForAnEmptyList) {
    EXPECT_EQ(0, cvn_scan_add_lens(sc_, "int32", CVN_OP_IN, 0, nullptr));
    EXPECT_TRUE(sc_->disqualify_file);
    int n;
    cvn_page_t** page;
    EXPECT_EQ(-4, cvn_scan_next(sc_, &n, &page, false));
    const scan_t other(TESTS_DIR "/golden/groups.cvn");
    EXPECT_EQ(0, cvn_scan_add_lens(other, "no such column", CVN_OP_IN, 0, nullptr));
    EXPECT_EQ(-4, cvn_scan_next(other, &n, &page, false));
    EXPECT_EQ(0, cvn_scan_rowgroup(other, 0, &n, &page, false)) << "a row group can still be read by number";
}

TEST_F(CvnLens, TurnsAListOfOneIntoAClosedRange) {
    ASSERT_EQ(0, in(CVN_TYP_INT32, {i32(5)}));
    ASSERT_EQ(2, sc_->nlens);
    EXPECT_EQ(CVN_OP_GE, sc_->lens[0].op);
    EXPECT_EQ(5, sc_->lens[0].val.I);
    EXPECT_EQ(CVN_OP_LE, sc_->lens[1].op);
    EXPECT_EQ(5, sc_->lens[1].val.I);
}

TEST_F(CvnLens, TurnsAListIntoTheRangeOfItsElements) {
    ASSERT_EQ(0, in(CVN_TYP_INT32, {i32(5), i32(-7), i32(3), i32(9), i32(0)}));
    ASSERT_EQ(2, sc_->nlens);
    EXPECT_EQ(-7, sc_->lens[0].val.I);
    EXPECT_EQ(9, sc_->lens[1].val.I);
    ASSERT_EQ(0, in(CVN_TYP_INT64, {i64(INT64_MAX), i64(INT64_MIN)}));
    EXPECT_EQ(INT64_MIN, sc_->lens[2].val.I);
    EXPECT_EQ(INT64_MAX, sc_->lens[3].val.I);
    ASSERT_EQ(0, in(CVN_TYP_INT128, {i128(1), i128(-1), i128(static_cast<cvn_int128_t>(1) << 70)}));
    EXPECT_TRUE(sc_->lens[4].val.L == -1);
    EXPECT_TRUE(sc_->lens[5].val.L == static_cast<cvn_int128_t>(1) << 70);
    ASSERT_EQ(0, in(CVN_TYP_CSTR, {text("m"), text("b"), text("\xff")}));
    EXPECT_STREQ("b", sc_->lens[6].val.t);
    EXPECT_STREQ("\xff", sc_->lens[7].val.t);
    ASSERT_EQ(0, in(CVN_TYP_BOOL, {boolean(true), boolean(false)}));
    EXPECT_EQ(0, sc_->lens[8].val.I);
    EXPECT_EQ(1, sc_->lens[9].val.I);
}

TEST_F(CvnLens, LetsNoNaNReplaceAnEndOfAList) {
    ASSERT_EQ(0, in(CVN_TYP_DOUBLE, {f64(2), f64(std::nan("")), f64(1), f64(3)}));
    EXPECT_EQ(1.0, sc_->lens[0].val.F);
    EXPECT_EQ(3.0, sc_->lens[1].val.F);
    ASSERT_EQ(0, in(CVN_TYP_FLOAT, {f32(std::nanf("")), f32(1), f32(3)}));
    EXPECT_TRUE(std::isnan(sc_->lens[2].val.F)) << "but one that comes first stays";
    EXPECT_TRUE(std::isnan(sc_->lens[3].val.F));
}

TEST_F(CvnLens, ComparesTheUpperEndOfAnInt16ListWithItsLowByteOnly) {
    ASSERT_EQ(0, in(CVN_TYP_INT16, {i16(300), i16(299)}));  // 299 is above 300's low byte, 44
    EXPECT_EQ(299, sc_->lens[0].val.I);
    EXPECT_EQ(300, sc_->lens[1].val.I) << "299 became the lower end first";
    ASSERT_EQ(0, in(CVN_TYP_INT16, {i16(10), i16(512), i16(20)}));  // 20 is above 512's low byte, 0
    EXPECT_EQ(10, sc_->lens[2].val.I);
    EXPECT_EQ(20, sc_->lens[3].val.I) << "not the largest element";
    ASSERT_EQ(0, in(CVN_TYP_INT16, {i16(-1), i16(100)}));  // -1's low byte is 255
    EXPECT_EQ(-1, sc_->lens[4].val.I);
    EXPECT_EQ(-1, sc_->lens[5].val.I);
}

TEST_F(CvnLens, MovesTheUpperEndOfADecimalListDown) {
    const auto dec_of = [&](int i, bool wide) {
        char buf[CVN_DEC128_STRSZ];
        if (wide) {
            cvn_dec128_to_string(buf, &sc_->lens[i].val.dec128);
        } else {
            cvn_dec64_to_string(buf, &sc_->lens[i].val.dec64);
        }
        return std::string(buf);
    };
    // Every element below the first becomes the lower end before the upper end is looked at.
    ASSERT_EQ(0, in(CVN_TYP_DEC64, {dec64("5"), dec64("9"), dec64("7")}));
    EXPECT_EQ("5", dec_of(0, false));
    EXPECT_EQ("5", dec_of(1, false)) << "9 is the largest, but only a smaller one moves the upper end";
    ASSERT_EQ(0, in(CVN_TYP_DEC128, {dec128("5"), dec128("2"), dec128("3")}));
    EXPECT_EQ("2", dec_of(2, true));
    EXPECT_EQ("3", dec_of(3, true)) << "3 is below 5 and not below 2";
}

TEST_F(CvnLens, FiltersNothingForAListOfTwoByteStrings) {
    EXPECT_EQ(0, in(CVN_TYP_BYTEA, {text("a"), text("b")}));
    EXPECT_EQ(0, sc_->nlens);
    EXPECT_EQ(0, in(CVN_TYP_BYTEA, {text("a")}));
    EXPECT_EQ(2, sc_->nlens) << "one byte string is registered as a range";
}

// Qualification.

struct bounds_case_t {
    int32_t typ;
    value_t below, lo, mid, hi, above;
};

// Whether a chunk with these bounds may match `op v`; asks the function directly.
int decide(int32_t typ, int op, const value_t& v, const value_t& lo, const value_t& hi) {
    lens_t ln;
    memset(&ln, 0, sizeof(ln));
    ln.op = op;
    switch (cvn_storage(typ)) {
        case CVN_TYP_BOOL: ln.val.I = static_cast<uint8_t>(v.bytes[0]); break;
        case CVN_TYP_INT16: ln.val.I = load<int16_t>(v.bytes, 0); break;
        case CVN_TYP_INT32: ln.val.I = load<int32_t>(v.bytes, 0); break;
        case CVN_TYP_FLOAT: ln.val.F = load<float>(v.bytes, 0); break;
        case CVN_TYP_CSTR: ln.val.t = v.bytes.c_str(); break;
        default: memcpy(&ln.val, v.bytes.data(), v.bytes.size());
    }
    cvn_datum_t l, h;
    memset(&l, 0, sizeof(l));
    memset(&h, 0, sizeof(h));
    memcpy(&l, lo.bytes.data(), std::min<size_t>(lo.bytes.size(), 40));
    memcpy(&h, hi.bytes.data(), std::min<size_t>(hi.bytes.size(), 40));
    return qualify(&ln, typ, 10, 1, &l, &h);
}

const std::vector<bounds_case_t>& cases() {
    static const std::vector<bounds_case_t> all = {
        {CVN_TYP_INT16, i16(-300), i16(-200), i16(0), i16(200), i16(300)},
        {CVN_TYP_INT32, i32(9), i32(10), i32(15), i32(20), i32(21)},
        {CVN_TYP_INT64, i64(INT64_MIN), i64(-5), i64(0), i64(int64_t{1} << 40), i64(INT64_MAX)},
        {CVN_TYP_INT128, i128(-(static_cast<cvn_int128_t>(1) << 100)), i128(-1), i128(0),
         i128((static_cast<cvn_int128_t>(1) << 64) - 1), i128(static_cast<cvn_int128_t>(1) << 64)},
        {CVN_TYP_FLOAT, f32(-1e30f), f32(-1.5f), f32(0), f32(1.5f), f32(HUGE_VALF)},
        {CVN_TYP_DOUBLE, f64(-HUGE_VAL), f64(-1.5), f64(0), f64(1e300), f64(1.1e300)},
        {CVN_TYP_CSTR, text(""), text("b"), text("ba"), text("c\xc3"), text("c\xc3\xa9")},
        {CVN_TYP_DEC64, dec64("0.9"), dec64("1.00"), dec64("1.5"), dec64("1E+2"), dec64("100.1")},
        {CVN_TYP_DEC128, dec128("-1E+6000"), dec128("-0.1"), dec128("0"), dec128("7"), dec128("7.0000001")},
        {CVN_TYP_DATE, i32(-2), i32(-1), i32(5), i32(20000), i32(20001)},
        {CVN_TYP_TIME_MILLIS, i32(-2), i32(-1), i32(5), i32(20000), i32(20001)},
        {CVN_TYP_TIMESTAMP_MILLIS, i64(-2), i64(-1), i64(5), i64(20000), i64(20001)},
    };
    return all;
}

TEST(CvnQualify, FollowsTheTableForEveryOrderedType) {
    for (const bounds_case_t& k : cases()) {
        SCOPED_TRACE(cvn_typ_str(k.typ));
        const value_t* v[5] = {&k.below, &k.lo, &k.mid, &k.hi, &k.above};
        static constexpr int WANT[7][5] = {
            {},
            {0, 1, 1, 1, 0},  // equal
            {1, 1, 1, 1, 1},  // not equal
            {1, 1, 1, 0, 0},  // greater
            {1, 1, 1, 1, 0},  // greater or equal
            {0, 0, 1, 1, 1},  // less
            {0, 1, 1, 1, 1},  // less or equal
        };
        for (int op = CVN_OP_EQ; op <= CVN_OP_LE; op++)
            for (int i = 0; i < 5; i++)
                EXPECT_EQ(WANT[op][i], decide(k.typ, op, *v[i], k.lo, k.hi)) << op << " " << i;
        // Both bounds equal: only then can "not equal" rule a chunk out.
        static constexpr int ONE[7][3] = {{},        {0, 1, 0}, {1, 0, 1}, {1, 0, 0},
                                          {1, 1, 0}, {0, 0, 1}, {0, 1, 1}};
        const value_t* u[3] = {&k.lo, &k.mid, &k.hi};
        for (int op = CVN_OP_EQ; op <= CVN_OP_LE; op++)
            for (int i = 0; i < 3; i++)
                EXPECT_EQ(ONE[op][i], decide(k.typ, op, *u[i], k.mid, k.mid)) << op << " " << i;
    }
}

TEST(CvnQualify, DecidesAboutBoundsOf10And20) {
    const auto d = [](int op, int v) { return decide(CVN_TYP_INT32, op, i32(v), i32(10), i32(20)); };
    EXPECT_EQ(0, d(CVN_OP_GT, 20));
    EXPECT_EQ(1, d(CVN_OP_GE, 20));
    EXPECT_EQ(0, d(CVN_OP_LT, 10));
    EXPECT_EQ(1, d(CVN_OP_LE, 10));
    EXPECT_EQ(1, d(CVN_OP_NE, 15));
    EXPECT_EQ(1, d(CVN_OP_NE, 10));
    EXPECT_EQ(0, decide(CVN_TYP_INT32, CVN_OP_NE, i32(10), i32(10), i32(10)));
}

TEST(CvnQualify, ReadsBoolBoundsUnsigned) {
    const value_t t = boolean(true), f = boolean(false), wild{false, "\xff"};
    EXPECT_EQ(1, decide(CVN_TYP_BOOL, CVN_OP_EQ, t, f, t));
    EXPECT_EQ(0, decide(CVN_TYP_BOOL, CVN_OP_EQ, t, f, f));
    EXPECT_EQ(0, decide(CVN_TYP_BOOL, CVN_OP_NE, t, t, t));
    EXPECT_EQ(0, decide(CVN_TYP_BOOL, CVN_OP_LT, f, f, t));
    EXPECT_EQ(1, decide(CVN_TYP_BOOL, CVN_OP_GT, t, f, wild)) << "255, not -1";
}

TEST(CvnQualify, AnswersTheNullTestsFromTheCounts) {
    lens_t ln{};
    cvn_datum_t d{};
    ln.op = CVN_OP_ISNULL;
    EXPECT_EQ(0, qualify(&ln, CVN_TYP_INT32, 10, 0, &d, &d));
    EXPECT_EQ(1, qualify(&ln, CVN_TYP_INT32, 10, 1, nullptr, nullptr));
    EXPECT_EQ(1, qualify(&ln, CVN_TYP_INT32, 10, -1, nullptr, nullptr));
    ln.op = CVN_OP_ISNOTNULL;
    EXPECT_EQ(0, qualify(&ln, CVN_TYP_INT32, 10, 10, nullptr, nullptr));
    EXPECT_EQ(1, qualify(&ln, CVN_TYP_INT32, 10, 9, &d, &d));
    EXPECT_EQ(1, qualify(&ln, 0, 10, 0, &d, &d)) << "whatever the type";
}

TEST(CvnQualify, QualifiesWithoutBounds) {
    lens_t ln{};
    for (int op = CVN_OP_EQ; op <= CVN_OP_LE; op++) {
        ln.op = op;
        for (const int32_t typ : {0, 1, 8, 9, 11, 12})
            EXPECT_EQ(1, qualify(&ln, typ, 10, 0, nullptr, nullptr));
    }
}

TEST(CvnQualify, RefusesTypesWithoutAnOrder) {
    lens_t ln{};
    cvn_datum_t d{};
    for (int op = CVN_OP_EQ; op <= CVN_OP_LE; op++) {
        ln.op = op;
        for (const int32_t typ : {0, CVN_TYP_BYTEA + 0, 12, 0x10000, 0x10008, 0xffff, -1})
            EXPECT_EQ(-6, qualify(&ln, typ, 10, 0, &d, &d)) << typ;
    }
}

TEST(CvnQualify, QualifiesCodesAboveSix) {
    lens_t ln{};
    cvn_datum_t d{};
    for (const int op : {9, 10, INT_MAX}) {
        ln.op = op;
        EXPECT_EQ(1, qualify(&ln, CVN_TYP_INT32, 10, 0, &d, &d));
        EXPECT_EQ(-6, qualify(&ln, CVN_TYP_BYTEA, 10, 0, &d, &d)) << "the type is looked at first";
    }
}

TEST(CvnQualify, ComparesNaNsByTheRulesOfFloats) {
    const double nan = std::nan("");
    for (int op = CVN_OP_EQ; op <= CVN_OP_LE; op++) {
        const int want = op == CVN_OP_NE;
        EXPECT_EQ(want, decide(CVN_TYP_DOUBLE, op, f64(nan), f64(1), f64(2))) << op;
        EXPECT_EQ(want, decide(CVN_TYP_DOUBLE, op, f64(1), f64(nan), f64(nan))) << op;
        EXPECT_EQ(want, decide(CVN_TYP_FLOAT, op, f32(std::nanf("")), f32(1), f32(2))) << op;
    }
    EXPECT_EQ(1, decide(CVN_TYP_DOUBLE, CVN_OP_GT, f64(1), f64(nan), f64(2)))
        << "only the upper bound counts";
}

TEST(CvnQualify, FindsADecimalNaNEqualToEveryBound) {
    EXPECT_EQ(1, decide(CVN_TYP_DEC64, CVN_OP_EQ, dec64("NaN"), dec64("1"), dec64("2")));
    EXPECT_EQ(0, decide(CVN_TYP_DEC64, CVN_OP_NE, dec64("NaN"), dec64("1"), dec64("2")));
    EXPECT_EQ(0, decide(CVN_TYP_DEC64, CVN_OP_GT, dec64("NaN"), dec64("1"), dec64("2")));
    EXPECT_EQ(1, decide(CVN_TYP_DEC128, CVN_OP_GE, dec128("NaN"), dec128("1"), dec128("2")));
}

TEST(CvnQualify, WidensFloatBoundsToDouble) {
    lens_t ln{};
    ln.op = CVN_OP_EQ;
    ln.val.F = 0.1;  // not the float 0.1
    cvn_datum_t d{};
    d.f = 0.1f;
    EXPECT_EQ(0, qualify(&ln, CVN_TYP_FLOAT, 1, 0, &d, &d));
    ln.val.F = 0.1f;
    EXPECT_EQ(1, qualify(&ln, CVN_TYP_FLOAT, 1, 0, &d, &d));
}

TEST(CvnQualify, ComparesLongTextsOnTheirFirst39Characters) {
    const std::string head(39, 'k');
    const value_t bound = text(head + "m");  // its image of 40 bytes has no NUL within 40
    for (const char* tail : {"a", "m", "z", "zzzz"}) {
        const value_t v = text(head + tail);
        ASSERT_GT(v.bytes.size(), 39u);
        for (int op = CVN_OP_EQ; op <= CVN_OP_LE; op++)
            EXPECT_EQ(1, decide(CVN_TYP_CSTR, op, v, bound, bound)) << op << " " << tail;
    }
    const value_t low = text(std::string(40, 'j')), high = text(std::string(40, 'l'));
    static constexpr int WANT_LOW[7] = {0, 0, 1, 1, 1, 0, 0};
    static constexpr int WANT_HIGH[7] = {0, 0, 1, 0, 0, 1, 1};
    for (int op = CVN_OP_EQ; op <= CVN_OP_LE; op++) {
        EXPECT_EQ(WANT_LOW[op], decide(CVN_TYP_CSTR, op, low, bound, bound)) << op;
        EXPECT_EQ(WANT_HIGH[op], decide(CVN_TYP_CSTR, op, high, bound, bound)) << op;
    }
}

TEST(CvnQualify, TellsLongTextsApartByTheir39thCharacter) {
    const std::string head(38, 'k');
    const value_t bound = text(head + "mm");
    static constexpr int WANT_LOW[7] = {0, 0, 1, 1, 1, 0, 0};
    static constexpr int WANT_HIGH[7] = {0, 0, 1, 0, 0, 1, 1};
    for (int op = CVN_OP_EQ; op <= CVN_OP_LE; op++) {
        EXPECT_EQ(WANT_LOW[op], decide(CVN_TYP_CSTR, op, text(head + "lm"), bound, bound)) << op;
        EXPECT_EQ(WANT_HIGH[op], decide(CVN_TYP_CSTR, op, text(head + "nm"), bound, bound)) << op;
    }
}

TEST(CvnQualify, ComparesTextsOf39CharactersWhole) {
    const std::string v(39, 'k');
    const value_t bound = text(v + "m");
    EXPECT_EQ(0, decide(CVN_TYP_CSTR, CVN_OP_EQ, text(v), bound, bound))
        << "the bound is longer and so above";
    EXPECT_EQ(1, decide(CVN_TYP_CSTR, CVN_OP_GT, text(v), bound, bound));
    EXPECT_EQ(0, decide(CVN_TYP_CSTR, CVN_OP_LE, text(v), bound, bound));
    EXPECT_EQ(0, decide(CVN_TYP_CSTR, CVN_OP_NE, text(v), text(v), text(v)));
    EXPECT_EQ(0, decide(CVN_TYP_CSTR, CVN_OP_LT, text(v), text(v), text(v)));
}

// Through the scan.

// groups.cvn: n is {1,2,3}, {NULL,NULL}, {10}, {-4}; t keeps no bounds and has one NULL in the second row
// group.
std::vector<int> groups_matching(const char* name, int op, const std::vector<cvn_datum_t>& arg) {
    const scan_t sc(TESTS_DIR "/golden/groups.cvn");
    EXPECT_EQ(0, cvn_scan_add_required(sc, "n"));
    EXPECT_EQ(0, cvn_scan_add_required(sc, "t"));
    std::vector<cvn_datum_t> a = arg;
    EXPECT_EQ(0, cvn_scan_add_lens(sc, name, op, static_cast<int>(a.size()), a.data()));
    std::vector<int> groups;
    int n;
    cvn_page_t** page;
    int code;
    while ((code = cvn_scan_next(sc, &n, &page, false)) == 0)
        groups.push_back(static_cast<int>(sc->qualify_index[sc->qualify_cur - 1]));
    EXPECT_EQ(-4, code);
    return groups;
}

TEST(CvnPrune, SkipsRowGroupsByTheirBounds) {
    const auto n = [](int op, int v) { return groups_matching("n", op, {datum(CVN_TYP_INT32, i32(v))}); };
    using groups_t = std::vector<int>;
    // The all-NULL row group keeps no bounds, so it always qualifies.
    EXPECT_EQ((groups_t{0, 1}), n(CVN_OP_EQ, 2));
    EXPECT_EQ((groups_t{0, 1, 3}), n(CVN_OP_NE, 10));
    EXPECT_EQ((groups_t{1, 2}), n(CVN_OP_GT, 3));
    EXPECT_EQ((groups_t{0, 1, 2}), n(CVN_OP_GE, 3));
    EXPECT_EQ((groups_t{1, 3}), n(CVN_OP_LT, 1));
    EXPECT_EQ((groups_t{0, 1, 3}), n(CVN_OP_LE, 1));
}

TEST(CvnPrune, RulesTheWholeFileOut) {
    const auto n = [](int op, int v) { return groups_matching("n", op, {datum(CVN_TYP_INT32, i32(v))}); };
    EXPECT_TRUE(n(CVN_OP_EQ, 11).empty());
    EXPECT_TRUE(n(CVN_OP_GT, 10).empty());
    EXPECT_TRUE(n(CVN_OP_LT, -4).empty());
    const scan_t sc(TESTS_DIR "/golden/groups.cvn");
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    cvn_datum_t d = datum(CVN_TYP_INT32, i32(11));
    ASSERT_EQ(0, cvn_scan_add_lens(sc, "n", CVN_OP_GE, 1, &d));
    int npage;
    cvn_page_t** page;
    EXPECT_EQ(-4, cvn_scan_next(sc, &npage, &page, false));
    EXPECT_FALSE(sc->started) << "a file that is ruled out does not start the scan";
    EXPECT_EQ(-4, cvn_scan_next(sc, &npage, &page, false));
}

TEST(CvnPrune, AnswersNullTestsPerRowGroup) {
    using groups_t = std::vector<int>;
    EXPECT_EQ((groups_t{1}), groups_matching("n", CVN_OP_ISNULL, {}));
    EXPECT_EQ((groups_t{0, 2, 3}), groups_matching("n", CVN_OP_ISNOTNULL, {}))
        << "an all-NULL row group is ruled out";
    EXPECT_EQ((groups_t{1}), groups_matching("t", CVN_OP_ISNULL, {}));
    EXPECT_EQ((groups_t{0, 1, 2, 3}), groups_matching("t", CVN_OP_ISNOTNULL, {}));
}

TEST(CvnPrune, QualifiesEverythingWhereNoBoundsAreKept) {
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3}),
              groups_matching("t", CVN_OP_EQ, {datum(CVN_TYP_CSTR, text("nowhere"))}));
}

TEST(CvnPrune, TreatsAListAsARange) {
    const cvn_datum_t a = datum(CVN_TYP_INT32, i32(-4)), b = datum(CVN_TYP_INT32, i32(1)),
                      five = datum(CVN_TYP_INT32, i32(5));
    using groups_t = std::vector<int>;
    EXPECT_EQ((groups_t{0, 1, 3}), groups_matching("n", CVN_OP_IN, {b, a}));
    EXPECT_EQ((groups_t{1}), groups_matching("n", CVN_OP_IN, {five}));
}

TEST(CvnPrune, WantsAllPredicatesToHold) {
    const scan_t sc(TESTS_DIR "/golden/groups.cvn");
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    cvn_datum_t d = datum(CVN_TYP_INT32, i32(2));
    ASSERT_EQ(0, cvn_scan_add_lens(sc, "n", CVN_OP_GE, 1, &d));
    ASSERT_EQ(0, cvn_scan_add_lens(sc, "n", CVN_OP_ISNOTNULL, 0, nullptr));
    d = datum(CVN_TYP_INT32, i32(5));
    ASSERT_EQ(0, cvn_scan_add_lens(sc, "n", CVN_OP_LT, 1, &d));
    int n;
    cvn_page_t** page;
    ASSERT_EQ(0, cvn_scan_next(sc, &n, &page, false));
    EXPECT_EQ(0, sc->qualify_index[0]);
    EXPECT_EQ(-4, cvn_scan_next(sc, &n, &page, false));
}

TEST(CvnPrune, ReturnsTheCodeOfATypeThatCannotBeCompared) {
    const temp_dir_t dir;
    std::string file = read_file(TESTS_DIR "/golden/groups.cvn");
    const layout_t at(file);
    // The type changes to bytea, but the statistics still claim bounds.
    patch(file, at.coldef(0) + 128, int32_t{CVN_TYP_BYTEA});
    write_file(dir / "t.cvn", file);
    const scan_t sc(dir / "t.cvn");
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    const value_t x = text("x");
    cvn_datum_t d = datum(CVN_TYP_BYTEA, x);
    ASSERT_EQ(0, cvn_scan_add_lens(sc, "n", CVN_OP_EQ, 1, &d));
    int n;
    cvn_page_t** page;
    EXPECT_EQ(-6, cvn_scan_next(sc, &n, &page, false));
    // With bounds in a row group only.
    patch(file, at.colstat(0) + 8, int8_t{0});
    write_file(dir / "u.cvn", file);
    const scan_t other(dir / "u.cvn");
    ASSERT_EQ(0, cvn_scan_add_required(other, "n"));
    ASSERT_EQ(0, cvn_scan_add_lens(other, "n", CVN_OP_EQ, 1, &d));
    EXPECT_EQ(-6, cvn_scan_next(other, &n, &page, false));
}

TEST(CvnPrune, DoesNotTakeADamagedTextBoundForAString) {
    const temp_dir_t dir;
    std::string file = read_file(TESTS_DIR "/golden/text50.cvn");
    const layout_t at(file);
    for (const size_t record : {at.colstat(0) + 16, at.meta(0, 0) + 48})
        memset(file.data() + record, 0xff, 96);
    write_file(dir / "t.cvn", file);
    for (const size_t len : {1, 39, 40, 48, 200}) {
        const scan_t sc(dir / "t.cvn");
        ASSERT_EQ(0, cvn_scan_add_required(sc, "t"));
        const std::string v(len, '\xff');
        cvn_datum_t d{};
        d.t = v.c_str();
        ASSERT_EQ(0, cvn_scan_add_lens(sc, "t", CVN_OP_EQ, 1, &d));
        int n;
        cvn_page_t** page;
        // Up to 39 characters the bound, which is longer, lies above; from 40 on only 39 count.
        EXPECT_EQ(len <= 39 ? -4 : 0, cvn_scan_next(sc, &n, &page, false)) << len;
    }
}

}  // namespace
