// Conditions: their grammar, the exact decision for a row, and that row groups are never skipped wrongly.
#include "rows/cond.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "rows/file.h"

using namespace rows;

namespace {

cond_t parse(const std::string& text) {
    cond_t cond;
    cond_fault_t fault;
    EXPECT_TRUE(cond_parse(&cond, text, &fault)) << text << ": " << fault.what;
    return cond;
}

// What is wrong with a text; empty when nothing is. The tree is left as it was.
std::string parse_error(const std::string& text) {
    cond_t cond;
    cond.kid.emplace_back().column = "before";
    cond_fault_t fault;
    if (cond_parse(&cond, text, &fault)) return "";
    EXPECT_EQ(1u, cond.kid.size()) << text;
    EXPECT_EQ(COND_SYNTAX, fault.code) << text;
    EXPECT_NE("", fault.hint) << text;
    return fault.what;
}

std::vector<std::string> texts(const cond_t& leaf) {
    std::vector<std::string> out;
    for (const cond_const_t& c : leaf.constant) out.push_back(c.text);
    return out;
}

// A column of values as if it had been read, in memory of its own; "NULL" is NULL.
struct vec_column_t {
    std::string body;
    std::vector<int32_t> offset;
    std::string nullmap;
    column_t column;

    vec_column_t(cvn_typ_t typ, const std::vector<std::string>& text) {
        nullmap.assign((text.size() + 7) / 8, '\0');
        const int width = cvn_typlen(typ);
        int64_t nnull = 0;
        for (size_t r = 0; r < text.size(); r++) {
            value_t v;
            memset(static_cast<void*>(&v.datum), 0, sizeof(v.datum));
            const bool null = text[r] == "NULL";
            if (null) {
                nullmap[r / 8] = static_cast<char>(nullmap[r / 8] | (0x80 >> (r % 8)));
                nnull++;
            } else {
                EXPECT_EQ(nullptr, value_from_text(&v, text[r], typ)) << text[r];
            }
            const std::string bytes = null ? "" : text[r];
            if (width > 0) {
                body.append(reinterpret_cast<const char*>(&v.datum), static_cast<size_t>(width));
            } else if (width == -2) {
                offset.push_back(static_cast<int32_t>(body.size()));
                body.append(null ? "" : v.datum.t);
                body += '\0';
            } else {
                const int32_t len = null ? 0 : v.datum.a.len;
                body.append(reinterpret_cast<const char*>(&len), sizeof(len));
                offset.push_back(static_cast<int32_t>(body.size()));
                if (len > 0) body.append(v.datum.a.ptr, static_cast<size_t>(len));
            }
        }
        offset.push_back(static_cast<int32_t>(body.size() + (width == -1 ? 4 : 0)));
        column.vec = {.name = "x",
                      .typ = typ,
                      .width = width > 0 ? width : 0,
                      .nrow = static_cast<int64_t>(text.size()),
                      .nnull = nnull,
                      .value = body.data(),
                      .offset = width > 0 ? nullptr : offset.data(),
                      .gap = width == -1   ? 4
                             : width == -2 ? 1
                                           : 0,
                      .nullmap = reinterpret_cast<const uint8_t*>(nullmap.data())};
    }
    vec_column_t(const vec_column_t&) = delete;
    vec_column_t& operator=(const vec_column_t&) = delete;
};

cond_t bound(const std::string& text, cvn_typ_t typ) {
    cond_t cond = parse(text);
    const cond_column_t column[] = {{"x", typ}};
    cond_fault_t fault;
    EXPECT_TRUE(cond_bind(&cond, column, &fault)) << text << ": " << fault.what;
    return cond;
}

// Which rows of the texts satisfy the condition `rest` (an operator and what follows).
std::vector<bool> decided(cvn_typ_t typ, const std::vector<std::string>& text, const std::string& rest) {
    const vec_column_t column(typ, text);
    std::vector<uint8_t> keep(text.size(), 1);
    cond_decide(keep.data(), bound("x " + rest, typ), {&column.column, 1});
    return {keep.begin(), keep.end()};
}

// Whether the text of a value satisfies it.
bool matches(cvn_typ_t typ, const std::string& text, const std::string& rest) {
    return decided(typ, {text}, rest)[0];
}

bool null_matches(const std::string& rest) { return matches(CVN_TYP_INT32, "NULL", rest); }

}  // namespace

TEST(RowsCond, ReadsEveryFormOfTheGrammar) {
    const cond_t cond = parse(
        "qty>=10 AND \"a \"\"b\"\"\" = 'it''s' and c Is Not Null and d is null and e IN (1,'2' , 3) and "
        "f<>-1.5");
    EXPECT_EQ(COND_AND, cond.kind);
    ASSERT_EQ(6u, cond.kid.size());
    EXPECT_EQ("qty", cond.kid[0].column);
    EXPECT_EQ(CVN_OP_GE, cond.kid[0].op);
    EXPECT_EQ("a \"b\"", cond.kid[1].column);
    EXPECT_EQ(std::vector<std::string>{"it's"}, texts(cond.kid[1]));
    EXPECT_EQ(CVN_OP_ISNOTNULL, cond.kid[2].op);
    EXPECT_EQ(CVN_OP_ISNULL, cond.kid[3].op);
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3"}), texts(cond.kid[4]));
    EXPECT_EQ(CVN_OP_NE, cond.kid[5].op);
    EXPECT_EQ(std::vector<std::string>{"-1.5"}, texts(cond.kid[5]));
    EXPECT_EQ(CVN_OP_EQ, parse("x == 1").kid[0].op);
    EXPECT_EQ(CVN_OP_NE, parse("x!=1").kid[0].op);
    EXPECT_EQ(CVN_OP_LE, parse("x<=1").kid[0].op);
    EXPECT_EQ(CVN_OP_LT, parse("x<1").kid[0].op);
    EXPECT_EQ(CVN_OP_GT, parse("x>1").kid[0].op);
    EXPECT_EQ(CVN_OP_ISNULL, parse("x isnull").kid[0].op);
    EXPECT_EQ(CVN_OP_ISNOTNULL, parse(" x IsNotNull ").kid[0].op);
    EXPECT_TRUE(parse("x in ()").kid[0].constant.empty());
}

TEST(RowsCond, TakesABareConstantOfSeveralWords) {
    const auto value = [](const std::string& text) { return texts(parse(text).kid[0]); };
    using list_t = std::vector<std::string>;
    EXPECT_EQ(list_t{"two  words"}, value("x = two  words "));
    EXPECT_EQ(list_t{"2024-01-31 12:00"}, value("x >= 2024-01-31 12:00 and y = 1"));
    EXPECT_EQ((list_t{"a b", "c"}), value("x in (a b , c)"));
    EXPECT_EQ(list_t{"O'Brien"}, value("x = O'Brien"));
    EXPECT_EQ(list_t{"a=1"}, value("x = a=1"));
    EXPECT_EQ(list_t{"and"}, value("x = and"));
    EXPECT_EQ(list_t{"brandy"}, value("x = brandy"));
    EXPECT_EQ(list_t{"x-and-y"}, value("x = x-and-y"));
}

TEST(RowsCond, RefusesWhatIsNoConditionAndTellsThePlace) {
    for (const char* text : {"",
                             " ",
                             "x",
                             "x =",
                             "= 1",
                             "x = 1 or y = 2",
                             "x = 1 and",
                             "x in 1",
                             "x in (1",
                             "x in (,)",
                             "x in (1,)",
                             "x is",
                             "x is not",
                             "x is 1",
                             "x = 'a",
                             "x = 'a' b",
                             "x = null",
                             "x => 1",
                             "x === 1",
                             "x = !y",
                             "x >< 1",
                             "x in (=1)",
                             "x = 1)",
                             "x = a 'b'",
                             "x = a = b",
                             "x ~ 1",
                             "x like y",
                             "x isnullx",
                             "x is null y",
                             "x = a not b",
                             "x = salt or pepper",
                             "x = a like b",
                             "\"x = 1",
                             "x 'y' = 1",
                             "x = and and"})
        EXPECT_NE("", parse_error(text)) << text;
    EXPECT_NE(std::string::npos, parse_error("x = 'a").find("at character 5")) << parse_error("x = 'a");
    EXPECT_NE(std::string::npos, parse_error("x => 1").find("needs quotes")) << parse_error("x => 1");
    EXPECT_NE(std::string::npos, parse_error("x = a or b").find("needs quotes")) << parse_error("x = a or b");
    EXPECT_NE(std::string::npos, parse_error("x = null").find("is null")) << parse_error("x = null");
}

TEST(RowsCond, RefusesATextInDoubleQuotesThatIsAlsoAColumn) {
    const cond_column_t column[] = {{"x", CVN_TYP_CSTR}, {"y", CVN_TYP_CSTR}};
    cond_fault_t fault;
    cond_t cond = parse("x = \"y\"");
    EXPECT_FALSE(cond_bind(&cond, column, &fault));
    EXPECT_EQ(COND_VALUE, fault.code);
    EXPECT_NE(std::string::npos, fault.hint.find("single quotes"));
    for (const char* text : {"x = \"z\"", "x = 'y'", "x = y"}) {
        cond = parse(text);
        EXPECT_TRUE(cond_bind(&cond, column, &fault)) << text;
    }
}

TEST(RowsCond, RefusesUnknownColumnsUnknownTypesAndConstantsOfAnotherType) {
    const cond_column_t column[] = {{"x", CVN_TYP_DATE}, {"u", 0}};
    const auto fails = [&](const std::string& text) {
        cond_t cond = parse(text);
        cond_fault_t fault;
        EXPECT_FALSE(cond_bind(&cond, column, &fault)) << text;
        return fault;
    };
    EXPECT_EQ(COND_COLUMN, fails("x = 1 and y = 1").code);
    EXPECT_EQ("y", fails("y = 1").name);
    EXPECT_EQ(COND_TYPE, fails("u is null").code);
    const cond_fault_t value = fails("x = 2024");
    EXPECT_EQ(COND_VALUE, value.code);
    EXPECT_EQ("x", value.name);
    EXPECT_EQ("2024", value.text);
    EXPECT_EQ(CVN_TYP_DATE, value.typ);
    EXPECT_EQ(0u, value.what.find("may be a date")) << value.what;
    EXPECT_NE(std::string::npos, value.hint.find("2021-07-04"));
    cond_t cond = parse("x = 2024-01-31");
    cond_fault_t fault;
    ASSERT_TRUE(cond_bind(&cond, column, &fault));
    EXPECT_EQ(0, cond.kid[0].col);
    EXPECT_EQ(CVN_TYP_DATE, cond.kid[0].typ);
}

TEST(RowsCond, TakesComparisonsAsRecordsWithAsManyValuesAsTheirOperatorWants) {
    cond_t cond;
    cond_fault_t fault;
    const std::vector<std::string> none, one = {"1"}, two = {"1", "and"};
    EXPECT_TRUE(cond_add(&cond, "x", CVN_OP_GT, one, &fault));
    EXPECT_TRUE(cond_add(&cond, "x", CVN_OP_ISNULL, none, &fault));
    EXPECT_TRUE(cond_add(&cond, "x", CVN_OP_IN, two, &fault));
    ASSERT_EQ(3u, cond.kid.size());
    EXPECT_EQ(two, texts(cond.kid[2]));
    EXPECT_FALSE(cond_add(&cond, "x", CVN_OP_GT, two, &fault));
    EXPECT_FALSE(cond_add(&cond, "x", CVN_OP_EQ, none, &fault));
    EXPECT_FALSE(cond_add(&cond, "x", CVN_OP_ISNOTNULL, one, &fault));
    EXPECT_FALSE(cond_add(&cond, "x", 0, one, &fault));
    EXPECT_FALSE(cond_add(&cond, "x", 10, one, &fault));
    EXPECT_EQ(3u, cond.kid.size());
    EXPECT_EQ("x", fault.name);
}

TEST(RowsCond, NamesItsColumnsOnceAndTakesTheirNewPlaces) {
    const cond_column_t column[] = {{"a", CVN_TYP_INT32}, {"b", CVN_TYP_INT32}, {"c", CVN_TYP_INT32}};
    cond_t cond = parse("c > 1 and a < 5 and c is not null");
    cond_fault_t fault;
    ASSERT_TRUE(cond_bind(&cond, column, &fault));
    std::vector<std::string> names;
    cond_names(&names, cond);
    EXPECT_EQ((std::vector<std::string>{"c", "a", "c"}), names);
    std::vector<int> used = {1};
    cond_columns(&used, cond);
    EXPECT_EQ((std::vector<int>{1, 2, 0}), used);
    const int place[] = {7, -1, 5};
    cond_renumber(&cond, place);
    EXPECT_EQ(5, cond.kid[0].col);
    EXPECT_EQ(7, cond.kid[1].col);
}

TEST(RowsCond, IsNeverTrueExactlyWhenAListIsEmpty) {
    EXPECT_TRUE(cond_is_never(bound("x > 1 and x in ()", CVN_TYP_INT32)));
    EXPECT_FALSE(cond_is_never(bound("x > 1 and x in (1)", CVN_TYP_INT32)));
    EXPECT_FALSE(cond_is_never(cond_t{}));
}

TEST(RowsCond, TakesAComparisonWithNullAsUnknown) {
    for (const char* rest : {"= 1", "!= 1", "> 1", ">= 1", "< 1", "<= 1", "in (1, 2)", "is not null"})
        EXPECT_FALSE(null_matches(rest)) << rest;
    EXPECT_TRUE(null_matches("is null"));
}

TEST(RowsCond, ComparesEveryTypeInItsOwnOrder) {
    EXPECT_TRUE(matches(CVN_TYP_INT16, "-5", "< 3"));
    EXPECT_TRUE(matches(CVN_TYP_INT128, "99999999999999999999", "> 9223372036854775807"));
    EXPECT_TRUE(matches(CVN_TYP_DEC64, "1.0", "= 1.00"));
    EXPECT_TRUE(matches(CVN_TYP_DEC128, "-1.5", "< -1.25"));
    EXPECT_TRUE(matches(CVN_TYP_FLOAT, "0.1", "= 0.1"));
    EXPECT_TRUE(matches(CVN_TYP_DOUBLE, "-0", "= 0"));
    EXPECT_TRUE(matches(CVN_TYP_CSTR, "b", "> 'abc'"));
    EXPECT_TRUE(matches(CVN_TYP_CSTR, "\xC3\xA4", "> 'z'"));
    EXPECT_TRUE(matches(CVN_TYP_CSTR, "", "< 'a'"));
    EXPECT_TRUE(matches(CVN_TYP_BYTEA, "\\x00ff", "> '\\x00'"));
    EXPECT_TRUE(matches(CVN_TYP_BOOL, "true", "> false"));
    EXPECT_TRUE(matches(CVN_TYP_DATE, "2024-01-31", "in (2024-01-30, 2024-01-31)"));
    EXPECT_FALSE(matches(CVN_TYP_DATE, "2024-01-29", "in (2024-01-30, 2024-01-31)"));
    EXPECT_TRUE(matches(CVN_TYP_TIMESTAMP_MILLIS, "2024-01-31T00:00Z", "= '2024-01-31 01:00+01:00'"));
    EXPECT_FALSE(matches(CVN_TYP_INT32, "1", "in ()"));
}

TEST(RowsCond, TakesNaNAsUnequalToEverything) {
    for (const cvn_typ_t typ : {CVN_TYP_FLOAT, CVN_TYP_DOUBLE, CVN_TYP_DEC64, CVN_TYP_DEC128}) {
        for (const char* rest : {"= 1", "> 1", ">= 1", "< 1", "<= 1", "= NaN", "in (1, NaN)", "in (NaN)"})
            EXPECT_FALSE(matches(typ, "NaN", rest)) << rest;
        EXPECT_TRUE(matches(typ, "NaN", "!= 1"));
        EXPECT_TRUE(matches(typ, "NaN", "!= NaN"));
    }
}

TEST(RowsCond, DecidesManyRowsLikeEachByItself) {
    const struct {
        cvn_typ_t typ;
        std::vector<std::string> text;
    } columns[] = {{CVN_TYP_BOOL, {"true", "NULL", "false"}},
                   {CVN_TYP_INT16, {"-1", "0", "NULL", "300"}},
                   {CVN_TYP_INT32, {"-1", "NULL", "0", "70000"}},
                   {CVN_TYP_INT64, {"-1", "0", "NULL", "5000000000"}},
                   {CVN_TYP_INT128, {"-1", "NULL", "99999999999999999999"}},
                   {CVN_TYP_FLOAT, {"NaN", "-0", "0", "NULL", "inf"}},
                   {CVN_TYP_DOUBLE, {"NaN", "-0", "0", "NULL", "-inf", "0.1"}},
                   {CVN_TYP_DEC64, {"NaN", "1", "1.0", "NULL", "-2.5"}},
                   {CVN_TYP_DEC128, {"NaN", "1", "1.00", "NULL", "1E+9"}},
                   {CVN_TYP_CSTR, {"", "a", "ab", "NULL", "b", "\xC3\xA4"}},
                   {CVN_TYP_BYTEA, {"\\x", "\\x00", "\\x0000", "NULL", "\\xff"}}};
    const char* const ops[] = {"=", "!=", "<", "<=", ">", ">="};
    int64_t ntrue = 0;
    for (const auto& c : columns)
        for (const std::string& text : c.text) {
            if (text == "NULL") continue;
            for (const std::string& rest :
                 {"in ('" + text + "', '" + c.text[0] + "')", std::string("is null"),
                  std::string("is not null"), ops[0] + (" '" + text + "'"), ops[1] + (" '" + text + "'"),
                  ops[2] + (" '" + text + "'"), ops[3] + (" '" + text + "'"), ops[4] + (" '" + text + "'"),
                  ops[5] + (" '" + text + "'")}) {
                const std::vector<bool> all = decided(c.typ, c.text, rest);
                for (size_t r = 0; r < c.text.size(); r++) {
                    EXPECT_EQ(matches(c.typ, c.text[r], rest), all[r])
                        << cvn_typ_str(c.typ) << " " << rest << " " << r;
                    ntrue += all[r];
                }
            }
        }
    EXPECT_GT(ntrue, 300);
}

// A file of many small row groups whose columns hold NULLs, NaNs and long texts with common beginnings; every
// condition must give the rows that deciding each row by itself gives.
class RowsCondPush : public testing::Test {
 protected:
    static constexpr int NROW = 240, PER_GROUP = 6;
    struct def_t {
        const char* name;
        cvn_typ_t typ;
        std::vector<std::string> pool;
    };
    std::vector<def_t> columns;
    std::string path;
    std::vector<std::vector<std::string>> rows;  // "NULL" is NULL

    void SetUp() override {
        const std::string a39(39, 'a'), a40(40, 'a');
        const std::vector<std::string> reals = {"1", "2", "3", "NaN", "-0", "0", "2.5", "inf", "NULL"};
        columns = {
            {"i2", CVN_TYP_INT16, {"-300", "-1", "0", "1", "255", "256", "300", "NULL"}},
            {"i4", CVN_TYP_INT32, {"-3", "0", "7", "70000", "NULL"}},
            {"i16", CVN_TYP_INT128, {"-1", "0", "99999999999999999999", "NULL"}},
            {"b", CVN_TYP_BOOL, {"true", "false", "NULL"}},
            {"f", CVN_TYP_FLOAT, reals},
            {"d", CVN_TYP_DOUBLE, reals},
            {"d64", CVN_TYP_DEC64, {"1", "1.0", "2", "3", "NaN", "-2.50", "NULL"}},
            {"d128", CVN_TYP_DEC128, {"1", "1.00", "2", "3", "NaN", "NULL"}},
            {"t", CVN_TYP_CSTR, {"", "b", a39, a39 + "b", a40, a40 + "b", a40 + "c", a39 + "bzz", "NULL"}},
            {"y", CVN_TYP_BYTEA, {"\\x", "\\x00", "\\xff", "\\xff00", "NULL"}}};
        char name[] = "/tmp/rows_cond_XXXXXX";
        const int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        path = name;
        std::mt19937 rng(13);
        cvn_t* sp = nullptr;
        ASSERT_EQ(0, cvn_create(&sp, path.c_str()));
        for (const def_t& col : columns) ASSERT_EQ(0, cvn_create_column(sp, col.name, col.typ, false, false));
        ASSERT_EQ(0, cvn_create_column(sp, "fill", CVN_TYP_BYTEA, false, false));
        const std::string fill(7 << 20, '\0');  // five rows or so fill the 32 MiB of a row group
        for (int r = 0; r < NROW; r++) {
            std::vector<std::string> row;
            std::vector<value_t> value(columns.size());
            std::vector<cvn_datum_t> datum;
            bool isnull[16] = {};
            for (size_t c = 0; c < columns.size(); c++) {
                // Neighbours resemble each other, so that statistics have something to skip.
                const auto& pool = columns[c].pool;
                row.push_back(
                    pool[(static_cast<size_t>(r / PER_GROUP) * 7 + c + (rng() % 3 == 0 ? rng() % 2 : 0)) %
                         pool.size()]);
                isnull[c] = row[c] == "NULL";
                if (!isnull[c]) {
                    ASSERT_EQ(nullptr, value_from_text(&value[c], row[c], columns[c].typ));
                }
                datum.push_back(isnull[c] ? cvn_datum_t{} : value[c].datum);
            }
            cvn_datum_t last = {};
            last.a.ptr = fill.data();
            last.a.len = static_cast<int32_t>(fill.size());
            datum.push_back(last);
            ASSERT_EQ(0, cvn_append(sp, static_cast<int>(datum.size()), datum.data(), isnull));
            rows.push_back(row);
        }
        ASSERT_EQ(0, cvn_close(sp));
    }
    void TearDown() override { unlink(path.c_str()); }
};

TEST_F(RowsCondPush, NeverLosesARowAndSkipsRowGroups) {
    cvn_filestat_t stat;
    ASSERT_EQ(0, cvn_filestat(&stat, path.c_str()));
    ASSERT_GT(stat.nrowgroup, 20);
    int64_t skipped = 0, selected = 0;
    const auto pool = std::make_shared<bufpool_t>();
    for (size_t c = 0; c < columns.size(); c++) {
        const def_t& col = columns[c];
        std::vector<std::string> texts;
        for (const std::string& text : col.pool)
            if (text != "NULL") {
                const std::string word = "'" + text + "'";
                for (const char* op : {"=", "!=", ">", ">=", "<", "<="})
                    texts.push_back(std::string(op) + " " + word);
                for (const std::string& other : col.pool)
                    if (other != "NULL") texts.push_back("in (" + word + ", '" + other + "')");
            }
        texts.insert(texts.end(), {"is null", "is not null", "in ()"});
        std::vector<std::string> all;
        for (const auto& row : rows) all.push_back(row[c]);
        for (const std::string& text : texts) {
            file_t file;
            file_fault_t fault;
            ASSERT_TRUE(file_open(&file, path, pool, &fault));
            const int want[] = {static_cast<int>(c)};
            ASSERT_TRUE(file_want(&file, want, &fault));
            cond_t cond = bound("x " + text, col.typ);
            cond_renumber(&cond, want);
            ASSERT_TRUE(file_push(&file, cond, &fault));
            cond_renumber(&cond, std::vector<int>(columns.size(), 0));
            int64_t got = 0, groups = 0;
            std::vector<column_t> column;
            for (;;) {
                int64_t rg;
                ASSERT_TRUE(file_next(&file, &rg, &fault));
                if (rg < 0) break;
                groups++;
                ASSERT_TRUE(file_read(&file, rg, &column, &fault)) << fault.what;
                got += cond_filter(column, 1, cond);
            }
            for (column_t& k : column) column_free(pool.get(), &k);
            const std::vector<bool> keep = decided(col.typ, all, text);
            const auto expected = std::count(keep.begin(), keep.end(), true);
            EXPECT_EQ(expected, got) << col.name << " " << text;
            skipped += stat.nrowgroup - groups;
            selected += got;
        }
    }
    EXPECT_GT(skipped, 1000);
    EXPECT_GT(selected, 1000);
}

TEST(RowsCond, TrustsBoundsAroundNaNOnlyAsFarAsItIsTold) {
    const auto pushed = [](const std::string& rest, cvn_typ_t typ, cond_trust_t trust) {
        std::vector<cond_push_t> push;
        cond_push(&push, bound("x " + rest, typ), [trust](int) { return trust; });
        return push.size();
    };
    for (const cvn_typ_t typ : {CVN_TYP_FLOAT, CVN_TYP_DOUBLE, CVN_TYP_DEC64, CVN_TYP_DEC128}) {
        for (const char* rest : {"= 1", "> 1", ">= 1", "< 1", "<= 1"}) {
            EXPECT_EQ(0u, pushed(rest, typ, COND_NEVER)) << rest;
            EXPECT_EQ(1u, pushed(rest, typ, COND_PROVED)) << rest;
            EXPECT_EQ(1u, pushed(rest, typ, COND_PROMISED)) << rest;
            EXPECT_EQ(0u, pushed(std::string(rest).replace(strlen(rest) - 1, 1, "NaN"), typ, COND_PROMISED))
                << rest;
        }
        EXPECT_EQ(0u, pushed("!= 1", typ, COND_PROVED));  // a NaN between the bounds meets it
        EXPECT_EQ(1u, pushed("!= 1", typ, COND_PROMISED));
        EXPECT_EQ(2u, pushed("in (2, NaN, 1)", typ, COND_PROVED));
        EXPECT_EQ(0u, pushed("in (NaN)", typ, COND_PROMISED));
        EXPECT_EQ(1u, pushed("is null", typ, COND_NEVER));
        EXPECT_EQ(1u, pushed("is not null", typ, COND_NEVER));
    }
    EXPECT_EQ(1u, pushed("!= 1", CVN_TYP_INT16, COND_NEVER));
    EXPECT_EQ(2u, pushed("in (3, 1, 2)", CVN_TYP_INT16, COND_NEVER));
    EXPECT_EQ(0u, pushed("= a", CVN_TYP_BYTEA, COND_PROMISED));
}

TEST(RowsCond, ComparesABoolOnlyWithZeroSinceAnyOtherByteIsTrue) {
    const auto pushed = [](const std::string& rest) {
        std::vector<cond_push_t> push;
        cond_push(&push, bound("x " + rest, CVN_TYP_BOOL), [](int) { return COND_NEVER; });
        std::vector<int> ops;
        for (const cond_push_t& p : push) {
            EXPECT_TRUE(p.has_value);
            EXPECT_FALSE(p.value.b);
            ops.push_back(p.op);
        }
        return ops;
    };
    using list_t = std::vector<int>;
    EXPECT_EQ(list_t{CVN_OP_NE}, pushed("= true"));
    EXPECT_EQ(list_t{CVN_OP_EQ}, pushed("= false"));
    EXPECT_EQ(list_t{CVN_OP_EQ}, pushed("< true"));
    EXPECT_EQ(list_t{}, pushed("in (true, false)"));
    EXPECT_EQ((list_t{CVN_OP_NE, CVN_OP_EQ}), pushed("> true"));
}

TEST(RowsNames, PartsAListAtTheCommasOutsideQuotes) {
    const auto names = [](const std::string& text) {
        std::vector<std::string> out = {"first"};
        cond_fault_t fault;
        EXPECT_TRUE(names_parse(&out, text, &fault)) << text;
        EXPECT_EQ("first", out.front());  // added to
        out.erase(out.begin());
        return out;
    };
    using list_t = std::vector<std::string>;
    EXPECT_EQ((list_t{"a", "b c", "d"}), names("a,b c,d"));
    EXPECT_EQ((list_t{"a,b", "c\"d", ""}), names("\"a,b\",\"c\"\"d\",\"\""));
    EXPECT_EQ((list_t{"a\"b\""}), names("a\"b\""));  // a quote inside a bare name
    EXPECT_EQ((list_t{"a", ""}), names("a,"));
    EXPECT_EQ((list_t{""}), names(""));
    for (const char* bad : {"\"a", "\"a\"b", "a,\"", "\"a\" ,b"}) {
        std::vector<std::string> out;
        cond_fault_t fault;
        EXPECT_FALSE(names_parse(&out, bad, &fault)) << bad;
        EXPECT_TRUE(out.empty()) << bad;
    }
}
