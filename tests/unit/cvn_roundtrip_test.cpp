// Library against second reader and model writer: what one writes the other reads, and whole files are equal.
#include <gtest/gtest.h>

#include "support.h"

namespace {

using namespace support;

// Equal, without printing megabytes when not.
void expect_same_bytes(const std::string& want, const std::string& got) {
    ASSERT_EQ(want.size(), got.size());
    const auto differs = std::mismatch(want.begin(), want.end(), got.begin());
    if (differs.first != want.end())
        ADD_FAILURE() << "first difference at byte " << differs.first - want.begin() << " of " << want.size();
}

void expect_round_trip(const table_t& t) {
    const temp_dir_t dir;
    const std::string path = dir / "t.cvn";
    write_table(path, t);
    const std::string file = read_file(path);
    expect_same_bytes(reader::encode(t.column, t.value), file);
    const reader::file_t f = reader::decode(file);
    EXPECT_EQ(t.column, f.column);
    EXPECT_TRUE(t.value == f.value);
    const table_t back = scan_table(path);
    EXPECT_EQ(t.column, back.column);
    EXPECT_TRUE(t.value == back.value);
}

TEST(CvnRoundTrip, GivesBackAllTypesWithNulls) {
    for (const size_t nrow : {1, 2, 7, 8, 9, 64, 1000, 20000}) expect_round_trip(all_types_table(nrow, nrow));
}

TEST(CvnRoundTrip, GivesBackAllTypesWithoutRows) { expect_round_trip(all_types_table(1, 0)); }

TEST(CvnRoundTrip, GivesBackRandomSchemas) {
    for (uint64_t seed = 1; seed <= 120; seed++) {
        SCOPED_TRACE(seed);
        expect_round_trip(random_table(seed));
    }
}

TEST(CvnRoundTrip, GivesBackManyColumns) {
    std::mt19937_64 rng(8);
    table_t t;
    for (int c = 0; c < 300; c++) {
        t.column.push_back({std::to_string(c), reader::ALL_TYPES[c % 14]});
        t.value.push_back(random_values(rng, t.column.back().typ, 20, 10));
    }
    expect_round_trip(t);
}

TEST(CvnRoundTrip, CutsAt1048576RowsAsTheModelDoes) {
    std::mt19937_64 rng(21);
    const size_t nrow = 1048576 + 1000;
    table_t t{{{"a", CVN_TYP_INT32}, {"b", CVN_TYP_BOOL, true}, {"c", CVN_TYP_CSTR}}, {{}, {}, {}}};
    for (size_t r = 0; r < nrow; r++) {
        const uint64_t v = rng();
        t.value[0].push_back(v % 9 == 0 ? null_value() : i32(static_cast<int32_t>(v >> 32)));
        t.value[1].push_back(v % 8 == 0 ? null_value() : boolean(v & 64));
        t.value[2].push_back(text(std::to_string(v % 1000)));
    }
    expect_round_trip(t);
}

// A byte string of 17 MiB in every row makes every row after the first a row group of its own, so that the
// file's statistics are merged often for every type.
TEST(CvnRoundTrip, MergesTheStatisticsOfManyRowGroupsAsTheModelDoes) {
    table_t t = all_types_table(33, 9);
    t.column.push_back({"weight", CVN_TYP_BYTEA});
    t.value.push_back(values_t(9, text(std::string(17 << 20, 'w'))));
    expect_round_trip(t);
    EXPECT_EQ(5u, reader::decode(reader::encode(t.column, t.value)).group.size());
}

TEST(CvnRoundTrip, CutsAt32MebibytesOverSeveralColumnsAsTheModelDoes) {
    std::mt19937_64 rng(34);
    table_t t{{{"n", CVN_TYP_INT64}, {"t", CVN_TYP_CSTR, true}, {"m", CVN_TYP_DEC128}, {"b", CVN_TYP_BYTEA}},
              {{}, {}, {}, {}}};
    for (int r = 0; r < 60; r++) {
        t.value[0].push_back(i64(r));
        t.value[1].push_back(text(std::string(rng() % (2 << 20), static_cast<char>('a' + r % 26))));
        t.value[2].push_back(dec128("1.5"));
        t.value[3].push_back(r % 5 == 0 ? null_value() : text(std::string(rng() % (1 << 20), '\0')));
    }
    expect_round_trip(t);
}

TEST(CvnRoundTrip, GivesBackValuesLargerThanARowGroup) {
    table_t t{{{"t", CVN_TYP_CSTR}, {"n", CVN_TYP_INT32}, {"b", CVN_TYP_BYTEA}}, {{}, {}, {}}};
    const auto row = [&](size_t nt, size_t nb) {
        t.value[0].push_back(text(std::string(nt, 't')));
        t.value[1].push_back(i32(static_cast<int32_t>(nt)));
        t.value[2].push_back(text(std::string(nb, 'b')));
    };
    row(40 << 20, 10);  // larger than a row group, and the first row
    row(5, 5);
    row(6, 6);
    row(3, 33 << 20);
    row(7, 1 << 20);
    row((1 << 20) + 1, 7);
    expect_round_trip(t);
}

TEST(CvnRoundTrip, KeepsCountingAfterAFirstRowThatOverflowsAnEmptyRowGroup) {
    // Kept: there is nothing to write when the first row alone exceeds 32 MiB, so the count stays and the
    // second row cuts.
    table_t t{{{"t", CVN_TYP_CSTR}}, {{text(std::string(33 << 20, 'x')), text("a"), text("b"), text("c")}}};
    expect_round_trip(t);
    const reader::file_t f = reader::decode(reader::encode(t.column, t.value));
    ASSERT_EQ(2u, f.group.size());
    EXPECT_EQ(1, f.group[0].nrow);
    EXPECT_EQ(3, f.group[1].nrow);
}

// Golden files: bytes made by tests/golden/make_golden.py, the rows repeated here.

std::string golden(const std::string& name) { return TESTS_DIR "/golden/" + name; }

void expect_golden(const std::string& name, const table_t& t) {
    SCOPED_TRACE(name);
    const std::string want = read_file(golden(name));
    const temp_dir_t dir;
    write_table(dir / name, t);
    EXPECT_TRUE(want == read_file(dir / name)) << "the library writes other bytes";
    EXPECT_TRUE(want == reader::encode(t.column, t.value)) << "the model writes other bytes";
    const table_t back = scan_table(golden(name));
    EXPECT_EQ(t.column, back.column);
    EXPECT_TRUE(t.value == back.value);
    EXPECT_TRUE(t.value == reader::decode(want).value);
}

TEST(CvnGolden, WritesAndReadsTheFileWithoutRows) {
    expect_golden("empty.cvn", {{{"id", CVN_TYP_INT64}, {"name", CVN_TYP_CSTR, true, true}}, {{}, {}}});
}

table_t golden_types() {
    table_t t;
    for (const int32_t typ : reader::ALL_TYPES) t.column.push_back({cvn_typ_str(typ), typ});
    const value_t no = null_value();
    const auto big = [](uint64_t hi, uint64_t lo) {
        return i128(static_cast<cvn_int128_t>(static_cast<unsigned __int128>(hi) << 64 | lo));
    };
    t.value = {
        {boolean(true), no, boolean(false)},
        {i16(-32768), no, i16(32767)},
        {i32(INT32_MIN), no, i32(INT32_MAX)},
        {i64(INT64_MAX), no, i64(INT64_MIN)},
        {big(1, 2), no, big(~uint64_t{0}, ~uint64_t{0} - 1)},
        {f32(1.5f), no, f32(-0.25f)},
        {f64(-2.5), no, f64(1e300)},
        {text("\x00\x01\xfe\xff"s), no, text("")},
        {text("caf\xc3\xa9"), no, text("")},
        {dec64("12.34"), no, dec64("-9.999999999999999E+384")},
        {dec128("-0.000001"), no, dec128("1234567890123456789012345678901234")},
        {i32(20778), no, i32(-1)},
        {i32(86399999), no, i32(0)},
        {i64(1795219200000), no, i64(-1)},
    };
    return t;
}

TEST(CvnGolden, WritesAndReadsAllTypesWithNulls) { expect_golden("types.cvn", golden_types()); }

TEST(CvnGolden, WritesAndReadsCompressedChunks) {
    // All three are LZ4 blocks only where that pays: a ramp does not compress by a fifth.
    values_t zeros(2048, i32(0)), ramp;
    for (int r = 0; r < 2048; r++) ramp.push_back(i16(static_cast<int16_t>(r)));
    expect_golden("compressed.cvn",
                  {{{"plain", CVN_TYP_INT32}, {"eager", CVN_TYP_INT32, true}, {"ramp", CVN_TYP_INT16, true}},
                   {zeros, zeros, ramp}});
}

TEST(CvnGolden, WritesAndReadsTextsWhoseBoundsAreCut) {
    expect_golden("text50.cvn", {{{"t", CVN_TYP_CSTR}},
                                 {{text(std::string(49, 'b') + "c"), text(std::string(50, 'a')), null_value(),
                                   text(std::string(40, 'z')), text(std::string(39, 'z'))}}});
}

TEST(CvnGolden, ReadsAFileOfSeveralRowGroups) {
    // Row groups this small cannot come from the writer, which cuts at a million rows; the format allows
    // them.
    const std::string file = read_file(golden("groups.cvn"));
    const table_t want{{{"n", CVN_TYP_INT32}, {"t", CVN_TYP_CSTR, false, true}},
                       {{i32(1), i32(2), i32(3), null_value(), null_value(), i32(10), i32(-4)},
                        {text("a"), text("b"), text("c"), text("d"), null_value(), text("e"), text("")}}};
    const table_t back = scan_table(golden("groups.cvn"));
    EXPECT_EQ(want.column, back.column);
    EXPECT_TRUE(want.value == back.value);
    const reader::file_t f = reader::decode(file);
    EXPECT_TRUE(want.value == f.value);
    ASSERT_EQ(4u, f.group.size());
    EXPECT_EQ(3, f.group[0].nrow);
    EXPECT_EQ(2, f.group[1].nrow);
}

TEST(CvnGolden, SplitsIntoTheGoldenDirectory) {
    const temp_dir_t dir;
    ASSERT_EQ(0, cvnx_split((dir / "s").c_str(), golden("groups.cvn").c_str()));
    EXPECT_EQ(names_in(golden("groups.split")), names_in(dir / "s"));
    for (const std::string& name : names_in(golden("groups.split")))
        EXPECT_TRUE(read_file(golden("groups.split/" + name)) == read_file(dir / "s/" + name)) << name;
    const table_t whole = scan_table(golden("groups.cvn")), split = scan_table(golden("groups.split"));
    EXPECT_TRUE(whole.value == split.value);
}

}  // namespace
