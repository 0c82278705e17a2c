// Conditions: their grammar, the exact decision for a row, and that row groups are never skipped wrongly.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "tools/rows.h"
#include "tools/tool.h"
#include "tools/where.h"

namespace {

std::vector<where_term_t> parse(const std::string& text) {
    std::vector<where_term_t> terms;
    where_parse(&terms, text);
    return terms;
}

std::string parse_error(const std::string& text) {
    try {
        parse(text);
    } catch (const tool_usage& error) {
        return error.what();
    }
    return "";
}

// Whether the text of a value satisfies the condition `rest` (an operator and what follows).
bool matches(cvn_typ_t typ, const std::string& text, const std::string& rest) {
    cvn_coldef_t col = {};
    memcpy(col.name, "x", 2);
    col.typ = typ;
    const auto conds = where_bind(parse("x " + rest), &col, 1);
    value_t value;
    EXPECT_EQ(nullptr, value_from_text(&value, text, typ)) << text;
    bool all = true;
    for (const where_cond_t& cond : conds) all = all && where_match(cond, value.datum, false);
    return all;
}

bool null_matches(const std::string& rest) {
    cvn_coldef_t col = {};
    memcpy(col.name, "x", 2);
    col.typ = CVN_TYP_INT32;
    const auto conds = where_bind(parse("x " + rest), &col, 1);
    return where_match(conds[0], cvn_datum_t{}, true);
}

}  // namespace

TEST(Where, ReadsEveryFormOfTheGrammar) {
    const auto terms = parse(
        "qty>=10 AND \"a \"\"b\"\"\" = 'it''s' and c Is Not Null and d is null and e IN (1,'2' , 3) and "
        "f<>-1.5");
    ASSERT_EQ(6u, terms.size());
    EXPECT_EQ("qty", terms[0].name);
    EXPECT_EQ(CVN_OP_GE, terms[0].op);
    EXPECT_EQ("a \"b\"", terms[1].name);
    EXPECT_EQ(std::vector<std::string>{"it's"}, terms[1].text);
    EXPECT_EQ(CVN_OP_ISNOTNULL, terms[2].op);
    EXPECT_EQ(CVN_OP_ISNULL, terms[3].op);
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3"}), terms[4].text);
    EXPECT_EQ(CVN_OP_NE, terms[5].op);
    EXPECT_EQ(std::vector<std::string>{"-1.5"}, terms[5].text);
    EXPECT_EQ(CVN_OP_EQ, parse("x == 1")[0].op);
    EXPECT_EQ(CVN_OP_NE, parse("x!=1")[0].op);
    EXPECT_EQ(CVN_OP_LE, parse("x<=1")[0].op);
    EXPECT_EQ(CVN_OP_LT, parse("x<1")[0].op);
    EXPECT_EQ(CVN_OP_GT, parse("x>1")[0].op);
    EXPECT_TRUE(parse("x in ()")[0].text.empty());
}

TEST(Where, RefusesWhatIsNoConditionAndTellsThePlace) {
    for (const char* text :
         {"", "x", "x =", "= 1", "x = 1 or y = 2", "x = 1 and", "x in 1", "x in (1", "x in (1 2)", "x in (,)",
          "x is", "x is not", "x is 1", "x = 'a", "x = \"a\"", "x = null", "x => 1", "x = 1)"})
        EXPECT_NE("", parse_error(text)) << text;
    EXPECT_NE(std::string::npos, parse_error("x = 'a").find("at character 5")) << parse_error("x = 'a");
}

TEST(Where, RefusesUnknownColumnsAndConstantsOfAnotherType) {
    cvn_coldef_t col = {};
    memcpy(col.name, "x", 2);
    col.typ = CVN_TYP_DATE;
    EXPECT_THROW(where_bind(parse("y = 1"), &col, 1), tool_error);
    EXPECT_THROW(where_bind(parse("x = 17"), &col, 1), tool_error);
    EXPECT_EQ(1u, where_bind(parse("x = 2024-01-31"), &col, 1).size());
}

TEST(Where, TakesAComparisonWithNullAsUnknown) {
    for (const char* rest : {"= 1", "!= 1", "> 1", ">= 1", "< 1", "<= 1", "in (1, 2)", "is not null"})
        EXPECT_FALSE(null_matches(rest)) << rest;
    EXPECT_TRUE(null_matches("is null"));
}

TEST(Where, ComparesEveryTypeInItsOwnOrder) {
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

TEST(Where, TakesNaNAsUnequalToEverything) {
    for (const cvn_typ_t typ : {CVN_TYP_FLOAT, CVN_TYP_DOUBLE, CVN_TYP_DEC64, CVN_TYP_DEC128}) {
        for (const char* rest : {"= 1", "> 1", ">= 1", "< 1", "<= 1", "= NaN", "in (1, NaN)"})
            EXPECT_FALSE(matches(typ, "NaN", rest)) << rest;
        EXPECT_TRUE(matches(typ, "NaN", "!= 1"));
        EXPECT_TRUE(matches(typ, "NaN", "!= NaN"));
    }
}

// A file of many small row groups whose columns hold NULLs, NaNs and long texts with common beginnings; every
// condition must give the rows that deciding each row by itself gives.
class WherePushDown : public testing::Test {
 protected:
    static constexpr int NROW = 240, PER_GROUP = 6;
    struct column_t {
        const char* name;
        cvn_typ_t typ;
        std::vector<std::string> pool;
    };
    std::vector<column_t> columns;
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
        char name[] = "/tmp/tool_where_XXXXXX";
        const int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        close(fd);
        path = name;
        std::mt19937 rng(13);
        cvn_t* sp = nullptr;
        ASSERT_EQ(0, cvn_create(&sp, path.c_str()));
        for (const column_t& col : columns)
            ASSERT_EQ(0, cvn_create_column(sp, col.name, col.typ, false, false));
        ASSERT_EQ(0, cvn_create_column(sp, "fill", CVN_TYP_BYTEA, false, false));
        const std::string fill(7 << 20, '\0');  // five rows or so fill the 32 MiB of a row group
        for (int r = 0; r < NROW; ++r) {
            std::vector<std::string> row;
            std::vector<value_t> value(columns.size());
            std::vector<cvn_datum_t> datum;
            bool isnull[16] = {};
            for (size_t c = 0; c < columns.size(); ++c) {
                // Neighbours resemble each other, so that statistics have something to skip.
                const auto& pool = columns[c].pool;
                row.push_back(
                    pool[(size_t(r / PER_GROUP) * 7 + c + (rng() % 3 == 0 ? rng() % 2 : 0)) % pool.size()]);
                isnull[c] = row[c] == "NULL";
                if (!isnull[c]) {
                    ASSERT_EQ(nullptr, value_from_text(&value[c], row[c], columns[c].typ));
                }
                datum.push_back(isnull[c] ? cvn_datum_t{} : value[c].datum);
            }
            cvn_datum_t last = {};
            last.a.ptr = fill.data();
            last.a.len = int32_t(fill.size());
            datum.push_back(last);
            ASSERT_EQ(0, cvn_append(sp, int(datum.size()), datum.data(), isnull));
            rows.push_back(row);
        }
        ASSERT_EQ(0, cvn_close(sp));
    }
    void TearDown() override { unlink(path.c_str()); }
};

TEST_F(WherePushDown, NeverLosesARowAndSkipsRowGroups) {
    cvn_filestat_t stat;
    ASSERT_EQ(0, cvn_filestat(&stat, path.c_str()));
    ASSERT_GT(stat.nrowgroup, 20);
    int64_t skipped = 0, selected = 0;
    for (const column_t& col : columns) {
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
        for (const std::string& text : texts) {
            cvn_scan_t* scan = nullptr;
            ASSERT_EQ(0, cvn_scan_open(&scan, path.c_str()));
            const auto conds = where_bind(parse(col.name + (" " + text)), scan->coldef, scan->schema->ncol);
            ASSERT_EQ(0, cvn_scan_add_required(scan, col.name));
            where_push_down(scan, conds);
            int64_t got = 0, want = 0, groups = 0;
            cvn_page_t** page;
            int npage, code;
            while ((code = cvn_scan_next(scan, &npage, &page, true)) == 0) {
                ++groups;
                rows_column_t column;
                ASSERT_EQ(nullptr, rows_decode(&column, col.typ, page[0]->nrow, page[0]->buf, page[0]->nbyte,
                                               page[0]->nmapoff));
                for (int64_t r = 0; r < column.nrow; ++r) {
                    cvn_datum_t datum = {};
                    const bool null = rows_isnull(column, r);
                    if (!null) rows_datum(column, r, &datum);
                    got += where_match(conds[0], datum, null);
                }
            }
            EXPECT_EQ(-4, code) << col.name << " " << text;
            ASSERT_EQ(0, cvn_scan_close(scan));
            const size_t c = size_t(&col - columns.data());
            for (const auto& row : rows) {
                value_t value;
                memset(&value.datum, 0, sizeof(value.datum));
                const bool null = row[c] == "NULL";
                if (!null) {
                    ASSERT_EQ(nullptr, value_from_text(&value, row[c], col.typ));
                }
                want += where_match(conds[0], value.datum, null);
            }
            EXPECT_EQ(want, got) << col.name << " " << text;
            skipped += stat.nrowgroup - groups;
            selected += got;
        }
    }
    EXPECT_GT(skipped, 1000);
    EXPECT_GT(selected, 1000);
}

TEST(WhereNames, PartsAListAtTheCommasOutsideQuotes) {
    const auto names = [](const std::string& text) {
        std::vector<std::string> out = {"first"};
        where_parse_names(&out, text);
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
        EXPECT_THROW(where_parse_names(&out, bad), tool_usage) << bad;
    }
}
