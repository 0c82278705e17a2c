// Column definitions: what is refused and why, the text that reads back, and the guessing of types.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/progress.h"
#include "tools/schema.h"
#include "tools/tool.h"

namespace {

std::string refusal(const std::string& text) {
    try {
        schema_parse(text);
    } catch (const tool_usage& error) {
        return error.what();
    }
    return "";
}

const char* guess(const std::vector<std::string>& values) {
    schema_guess_t g;
    for (const std::string& value : values) schema_guess_add(&g, value);
    return cvn_typ_str(schema_guess_type(g));
}

}  // namespace

TEST(Schema, RefusesWhatTheParserLetsPass) {
    EXPECT_NE(std::string::npos, refusal("a int32,").find("definition 2 is empty"));
    EXPECT_NE(std::string::npos, refusal("a").find("'a' has no type"));
    EXPECT_NE(std::string::npos, refusal("a int32, b int64, a date").find("two columns are named 'a'"));
    EXPECT_NE(std::string::npos, refusal("").find("no columns"));
    EXPECT_NE(std::string::npos, refusal("a int32, b int65").find("' b int65' is no column definition"));
    EXPECT_NE("", refusal("a int32 -x"));
    EXPECT_NE("", refusal("\"a int32"));
    EXPECT_NE("", refusal(std::string(128, 'n') + " int32"));
}

TEST(Schema, WritesATextThatReadsBack) {
    const auto coldef = schema_parse("id int64 -n, \"unit price, net\" dec64 -z -n, a\"b cstr");
    ASSERT_EQ(3u, coldef.size());
    bool exact = false;
    const std::string text = schema_text(coldef, &exact);
    EXPECT_TRUE(exact);
    EXPECT_EQ("id int64 -n, \"unit price, net\" dec64 -z -n, a\"b cstr", text);
    EXPECT_EQ(text, schema_text(schema_parse(text), &exact));
    const std::vector<cvn_coldef_t> odd = {schema_column("\"x", CVN_TYP_INT32)};
    schema_text(odd, &exact);
    EXPECT_FALSE(exact);
}

TEST(Counts, HaveTheNumberOfWhatTheyCount) {
    EXPECT_EQ("0 rows", tool_counted(0, "row", "rows"));
    EXPECT_EQ("1 row", tool_counted(1, "row", "rows"));
    EXPECT_EQ("1,000 rows", tool_counted(1000, "row", "rows"));
}

TEST(Counts, StopAtTheLimitsOf64Bits) {
    EXPECT_EQ(5, tool_add(2, 3));
    EXPECT_EQ(INT64_MAX, tool_add(INT64_MAX, 1));
    EXPECT_EQ(INT64_MIN, tool_add(INT64_MIN, -1));
    EXPECT_EQ(-1, tool_add(INT64_MAX, INT64_MIN));
}

TEST(Schema, RefusesNamesThatTheFormatCannotHold) {
    EXPECT_THROW(schema_column("", CVN_TYP_INT32), tool_error);
    EXPECT_THROW(schema_column(std::string(128, 'n'), CVN_TYP_INT32), tool_error);
    EXPECT_THROW(schema_column(std::string_view("a\0b", 3), CVN_TYP_INT32), tool_error);
    EXPECT_EQ(127u, schema_name(schema_column(std::string(127, 'n'), CVN_TYP_INT32)).size());
}

TEST(SchemaGuess, ChoosesTheNarrowestTypeThatGivesTheTextsBack) {
    EXPECT_STREQ("int64", guess({"1", "-20", "0"}));
    EXPECT_STREQ("int128", guess({"1", "99999999999999999999"}));
    EXPECT_STREQ("double", guess({"1", "2.5"}));
    EXPECT_STREQ("double", guess({"1.5", "NaN", "inf"}));
    EXPECT_STREQ("double", guess({"10.357019999999999"}));
    EXPECT_STREQ("dec128", guess({"0.1234567890123456789"}));
    EXPECT_STREQ("bool", guess({"true", "false"}));
    EXPECT_STREQ("date", guess({"2024-02-29", "1970-01-01"}));
    EXPECT_STREQ("time_millis", guess({"12:30", "23:59:59.999"}));
    EXPECT_STREQ("timestamp_millis", guess({"2024-02-29T12:00:00Z", "2024-02-29 12:00"}));
    EXPECT_STREQ("bytea", guess({"\\x00", "\\x"}));
    EXPECT_STREQ("cstr", guess({"a", "1"}));
}

TEST(SchemaGuess, LeavesAsTextWhatANumberWouldChange) {
    EXPECT_STREQ("cstr", guess({"007"}));
    EXPECT_STREQ("cstr", guess({"+1"}));
    EXPECT_STREQ("cstr", guess({"1", ""}));
    EXPECT_STREQ("cstr", guess({"NaN"}));
    EXPECT_STREQ("cstr", guess({"t", "f"}));
    EXPECT_STREQ("cstr", guess({"2023-02-29"}));
    EXPECT_STREQ("cstr", guess({}));
}

TEST(Progress, TellsBytesOfTheTotalAndTheRate) {
    progress_t progress;
    progress.total = 1000000;
    const std::string text = progress_text(progress, 250000, 5000, 2);
    EXPECT_NE(std::string::npos, text.find(" 25%  250.0 kB of 1.0 MB, 5,000 rows, 2,500 rows/s")) << text;
    progress.total = 0;
    EXPECT_EQ("250.0 kB, 5,000 rows, 2,500 rows/s", progress_text(progress, 250000, 5000, 2));
}

TEST(Progress, ShowsCountsOfAnySize) {
    progress_t progress;
    progress.total = INT64_MAX;
    progress.by_count = true;
    const std::string text = progress_text(progress, INT64_MAX, INT64_MAX, 1e-3);
    EXPECT_NE(std::string::npos, text.find("100%")) << text;
    EXPECT_NE(std::string::npos, text.find("1,000,000,000,000,000,000 rows/s")) << text;
}
