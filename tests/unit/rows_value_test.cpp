// Values as text: exact in both directions, and refused with a reason when they are not of the type.
#include <gtest/gtest.h>
#include <math.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <random>
#include <string>

#include "rows/value.h"

using namespace rows;

namespace {

std::string round_trip(const std::string& text, cvn_typ_t typ) {
    value_t value;
    if (const char* why = value_from_text(&value, text, typ)) return std::string("refused: ").append(why);
    std::string out;
    value_append_text(&out, value.datum, typ);
    return out;
}

bool refused(const std::string& text, cvn_typ_t typ) {
    value_t value;
    return value_from_text(&value, text, typ) != nullptr;
}

// The fast forms read from a padded buffer.
struct padded_t {
    char buf[128] = {};
    explicit padded_t(const std::string& text) { memcpy(buf, text.data(), text.size()); }
};

}  // namespace

TEST(RowsValue, GivesEveryTypeBackAsItWasWritten) {
    EXPECT_EQ("true", round_trip("T", CVN_TYP_BOOL));
    EXPECT_EQ("false", round_trip("0", CVN_TYP_BOOL));
    EXPECT_EQ("-32768", round_trip("-32768", CVN_TYP_INT16));
    EXPECT_EQ("2147483647", round_trip("+2147483647", CVN_TYP_INT32));
    EXPECT_EQ("-9223372036854775808", round_trip("-9223372036854775808", CVN_TYP_INT64));
    EXPECT_EQ("-170141183460469231731687303715884105728",
              round_trip("-170141183460469231731687303715884105728", CVN_TYP_INT128));
    EXPECT_EQ("-1", round_trip("0xffffffffffffffffffffffffffffffff", CVN_TYP_INT128));
    EXPECT_EQ("0.1", round_trip("0.1", CVN_TYP_FLOAT));
    EXPECT_EQ("-0", round_trip("-0.0", CVN_TYP_DOUBLE));
    EXPECT_EQ("NaN", round_trip("nan", CVN_TYP_DOUBLE));
    EXPECT_EQ("-inf", round_trip("-Infinity", CVN_TYP_DOUBLE));
    EXPECT_EQ("1e+300", round_trip("1e300", CVN_TYP_DOUBLE));
    EXPECT_EQ("100000", round_trip("1e5", CVN_TYP_DOUBLE));
    EXPECT_EQ("17.00", round_trip("17.00", CVN_TYP_DEC64));
    EXPECT_EQ("1E+3", round_trip("1E+3", CVN_TYP_DEC128));
    EXPECT_EQ("\\x00ff10", round_trip("\\x00FF10", CVN_TYP_BYTEA));
    EXPECT_EQ("\\x", round_trip("\\x", CVN_TYP_BYTEA));
    EXPECT_EQ("", round_trip("", CVN_TYP_CSTR));
    EXPECT_EQ("2024-02-29", round_trip("2024-02-29", CVN_TYP_DATE));
    EXPECT_EQ("-0001-12-31", round_trip("-0001-12-31", CVN_TYP_DATE));
    EXPECT_EQ("+12345-01-01", round_trip("+12345-01-01", CVN_TYP_DATE));
    EXPECT_EQ("23:59:00", round_trip("23:59", CVN_TYP_TIME_MILLIS));
    EXPECT_EQ("00:00:01.050", round_trip("00:00:01.05", CVN_TYP_TIME_MILLIS));
    EXPECT_EQ("-1ms", round_trip("-1ms", CVN_TYP_TIME_MILLIS));
    EXPECT_EQ("2024-01-31T22:30:00Z", round_trip("2024-02-01 00:00:00.000+01:30", CVN_TYP_TIMESTAMP_MILLIS));
    EXPECT_EQ("1969-12-31T23:59:59.999Z", round_trip("1969-12-31T23:59:59.999", CVN_TYP_TIMESTAMP_MILLIS));
}

TEST(RowsValue, GivesTheExtremesOfTimestampsBack) {
    for (const int64_t v : {INT64_MIN, INT64_MIN + 1, int64_t(-1), int64_t(0), INT64_MAX - 1, INT64_MAX}) {
        cvn_datum_t datum = {};
        datum.I = v;
        std::string text;
        value_append_text(&text, datum, CVN_TYP_TIMESTAMP_MILLIS);
        value_t value;
        ASSERT_EQ(nullptr, value_from_text(&value, text, CVN_TYP_TIMESTAMP_MILLIS)) << text;
        EXPECT_EQ(v, value.datum.I) << text;
    }
    for (const int32_t v : {INT32_MIN, -719529, 0, 2932897, INT32_MAX}) {
        cvn_datum_t datum = {};
        datum.i = v;
        std::string text;
        value_append_text(&text, datum, CVN_TYP_DATE);
        value_t value;
        ASSERT_EQ(nullptr, value_from_text(&value, text, CVN_TYP_DATE)) << text;
        EXPECT_EQ(v, value.datum.i) << text;
    }
}

TEST(RowsValue, RefusesWhatIsNotOfTheType) {
    for (const char* text : {"", "x", "1.0", "1e3", " 1", "1 ", "--1", "+-1", "0x", "0xg", "5x", "32768",
                             "-32769", "0x8000", "0xffffffffffffffffffffffffffffffff"})
        EXPECT_TRUE(refused(text, CVN_TYP_INT16)) << text;
    for (const char* text : {"2147483648", "-2147483649", "99999999999"})
        EXPECT_TRUE(refused(text, CVN_TYP_INT32)) << text;
    EXPECT_TRUE(refused("9223372036854775808", CVN_TYP_INT64));
    EXPECT_TRUE(refused("170141183460469231731687303715884105728", CVN_TYP_INT128));
    EXPECT_TRUE(refused("0x1ffffffffffffffffffffffffffffffff", CVN_TYP_INT128));
    for (const char* text :
         {"", ".", "-", "1e400", "1.2.3", "1,5", "1-", " 1", "+-1", "--1", "0xnan", "0x", "0x-1", "infinit"})
        EXPECT_TRUE(refused(text, CVN_TYP_DOUBLE)) << text;
    for (const char* text :
         {"2023-02-29", "2024-13-01", "2024-00-10", "2024-01-00", "2024-04-31", "1900-02-29", "24-01-01",
          "2024-1-01", "2024/01/01", "2024-01-01T", "2024-01-01x", "1.5", "2147483648", ""})
        EXPECT_TRUE(refused(text, CVN_TYP_DATE)) << text;
    for (const char* text : {"24:00", "12:60", "12:00:60", "1:00", "12:00:00.", "12:00:00.0001", "12:3",
                             "2147483648", "1.5", "ms", ""})
        EXPECT_TRUE(refused(text, CVN_TYP_TIME_MILLIS)) << text;
    for (const char* text : {"2024-01-01T", "2024-01-01T12", "2024-01-01T12:00X", "2024-01-01T12:00+25:00",
                             "2024-01-01X00:00", "2024-01-01T12:00+1", "9223372036854775808", ""})
        EXPECT_TRUE(refused(text, CVN_TYP_TIMESTAMP_MILLIS)) << text;
    for (const char* text : {"\\x0", "\\xzz", "\\X1g"}) EXPECT_TRUE(refused(text, CVN_TYP_BYTEA)) << text;
    for (const char* text : {"", "maybe", "2", "tru"}) EXPECT_TRUE(refused(text, CVN_TYP_BOOL)) << text;
    EXPECT_TRUE(refused(std::string("a\0b", 3), CVN_TYP_CSTR));
    EXPECT_TRUE(refused(std::string("1\0", 2), CVN_TYP_DEC64));
    EXPECT_TRUE(refused(std::string("1\0", 2), CVN_TYP_DEC128));
}

TEST(RowsValue, ReadsEverySpellingOfAWholeNumber) {
    EXPECT_EQ("10", round_trip("010", CVN_TYP_INT16));
    EXPECT_EQ("16", round_trip("0x10", CVN_TYP_INT16));
    EXPECT_EQ("-32768", round_trip("-0x8000", CVN_TYP_INT16));
    EXPECT_EQ("255", round_trip("+0XfF", CVN_TYP_INT32));
    EXPECT_EQ("9223372036854775807", round_trip("0x7fffffffffffffff", CVN_TYP_INT64));
    EXPECT_EQ("-170141183460469231731687303715884105728",
              round_trip("-0x80000000000000000000000000000000", CVN_TYP_INT128));
    EXPECT_TRUE(refused("-0x80000000000000000000000000000001", CVN_TYP_INT128));
}

TEST(RowsValue, ReadsEverySpellingOfARealNumber) {
    EXPECT_EQ("-3", round_trip("-0x1.8p1", CVN_TYP_DOUBLE));
    EXPECT_EQ("0.5", round_trip(".5", CVN_TYP_DOUBLE));
    EXPECT_EQ("1.5", round_trip("+1.5", CVN_TYP_FLOAT));
    EXPECT_EQ("inf", round_trip("+inf", CVN_TYP_FLOAT));
    EXPECT_EQ("NaN", round_trip("-NaN", CVN_TYP_FLOAT));
    EXPECT_EQ("0", round_trip("0e9", CVN_TYP_DOUBLE));
}

TEST(RowsValue, TakesTheNearestOfANumberTooSmallForItsTypeAndNoneForOneTooLarge) {
    EXPECT_EQ("0", round_trip("1e-400", CVN_TYP_DOUBLE));
    EXPECT_EQ("-0", round_trip("-1e-400", CVN_TYP_DOUBLE));
    EXPECT_EQ("0", round_trip("1e-60", CVN_TYP_FLOAT));
    EXPECT_EQ("5e-324", round_trip("4e-324", CVN_TYP_DOUBLE));
    EXPECT_EQ("0", round_trip("0x1p-2000", CVN_TYP_DOUBLE));
    for (const char* text : {"1e400", "-1e400", "0x1p2000"})
        EXPECT_TRUE(refused(text, CVN_TYP_DOUBLE)) << text;
    EXPECT_TRUE(refused("3.5e38", CVN_TYP_FLOAT));
    EXPECT_FALSE(refused("3.5e38", CVN_TYP_DOUBLE));
}

TEST(RowsValue, ReadsDaysAndMillisecondsAsNumbers) {
    EXPECT_EQ("1970-01-01", round_trip("0", CVN_TYP_DATE));
    EXPECT_EQ("1969-12-27", round_trip("-5", CVN_TYP_DATE));
    EXPECT_EQ("2021-07-04", round_trip("18812", CVN_TYP_DATE));
    EXPECT_EQ("1975-07-15", round_trip("+2021", CVN_TYP_DATE));
    EXPECT_EQ("1975-07-15", round_trip("0x7e5", CVN_TYP_DATE));
    EXPECT_EQ("00:00:05", round_trip("5000ms", CVN_TYP_TIME_MILLIS));
    EXPECT_EQ("12:34:56.789", round_trip("45296789", CVN_TYP_TIME_MILLIS));
    EXPECT_EQ("1970-01-01T00:00:00.001Z", round_trip("1", CVN_TYP_TIMESTAMP_MILLIS));
    EXPECT_EQ("2023-11-14T22:13:20Z", round_trip("1700000000000", CVN_TYP_TIMESTAMP_MILLIS));
    EXPECT_EQ("2024-01-31T00:00:00Z", round_trip("2024-01-31", CVN_TYP_TIMESTAMP_MILLIS));
}

TEST(RowsValue, RefusesANumberThatMayBeADayOrATime) {
    for (const char* text : {"2021", "1000", "9999", "20210704", "20211231"}) {
        EXPECT_TRUE(refused(text, CVN_TYP_DATE)) << text;
        EXPECT_TRUE(refused(text, CVN_TYP_TIMESTAMP_MILLIS)) << text;
    }
    EXPECT_TRUE(refused("20210704123000", CVN_TYP_TIMESTAMP_MILLIS));
    for (const char* text : {"1230", "0000", "235959"})
        EXPECT_TRUE(refused(text, CVN_TYP_TIME_MILLIS)) << text;
    for (const char* text : {"999", "20211332", "0999"}) EXPECT_FALSE(refused(text, CVN_TYP_DATE)) << text;
    for (const char* text : {"2460", "123060"}) EXPECT_FALSE(refused(text, CVN_TYP_TIME_MILLIS)) << text;
}

TEST(RowsValue, TakesATextForItsBytesUnlessItBeginsLikeDigits) {
    EXPECT_EQ("\\x616263", round_trip("abc", CVN_TYP_BYTEA));
    EXPECT_EQ("\\x", round_trip("", CVN_TYP_BYTEA));
    EXPECT_EQ("\\x00ff41", round_trip("\\X00fF41", CVN_TYP_BYTEA));
    EXPECT_EQ("\\x5c", round_trip("\\", CVN_TYP_BYTEA));
}

TEST(RowsValue, TellsADecimalThatIsTooLongFromOneThatIsNone) {
    value_t value;
    EXPECT_STREQ("does not fit dec64 exactly (16 significant digits); use dec128",
                 value_from_text(&value, "1.2345678901234567", CVN_TYP_DEC64));
    EXPECT_STREQ("is not a decimal number", value_from_text(&value, "1x", CVN_TYP_DEC64));
}

TEST(RowsValueFast, ReadsEveryDayOfSixCenturiesAsTheCalendarDoes) {
    for (int64_t days = value_days(1699, 12, 1); days < value_days(2300, 2, 1); ++days) {
        int64_t year;
        unsigned month, day;
        value_civil(days, &year, &month, &day);
        ASSERT_EQ(days, value_days(year, month, day));
        char text[64];
        snprintf(text, sizeof(text), "%04d-%02u-%02u", int(year), month, day);
        int32_t fast = 0;
        ASSERT_TRUE(value_fast_date(padded_t(text).buf, 10, &fast)) << text;
        ASSERT_EQ(days, fast) << text;
    }
    int32_t fast;
    EXPECT_TRUE(value_fast_date(padded_t("0000-01-01").buf, 10, &fast));
    EXPECT_EQ(value_days(0, 1, 1), fast);
    EXPECT_TRUE(value_fast_date(padded_t("9999-12-31").buf, 10, &fast));
    EXPECT_EQ(value_days(9999, 12, 31), fast);
    EXPECT_EQ(19753, value_days(2024, 1, 31));
}

TEST(RowsValueFast, RefusesADateWithAnyByteChanged) {
    for (int at = 0; at < 10; ++at)
        for (int byte = 0; byte < 256; ++byte) {
            std::string text = "2024-12-28";
            text[size_t(at)] = char(byte);
            int32_t fast = 0;
            const bool ok = value_fast_date(padded_t(text).buf, 10, &fast);
            value_t value;
            const bool digits = (at == 4 || at == 7) ? byte == '-' : byte >= '0' && byte <= '9';
            EXPECT_TRUE(digits || !ok) << text;
            if (ok) {
                ASSERT_EQ(nullptr, value_from_text(&value, text, CVN_TYP_DATE));
                EXPECT_EQ(text, round_trip(text, CVN_TYP_DATE));
            }
        }
}

TEST(RowsValueFast, ReadsIntegersAsStrtollDoes) {
    std::mt19937_64 rng(3);
    for (int round = 0; round < 200000; ++round) {
        const uint64_t v = rng() >> (rng() % 64);
        std::string text(rng() % 3 == 0 ? 1 : 0, '-');
        text += std::to_string(v % 10000000000000000u);
        if (rng() % 4 == 0) text[rng() % text.size()] = char(rng() % 256);
        int64_t fast = 0;
        const bool ok = value_fast_int(padded_t(text).buf, uint32_t(text.size()), &fast);
        const size_t ndigit = text.size() - (text[0] == '-');
        const bool plain = text.find_first_not_of("0123456789", text[0] == '-') == std::string::npos &&
                           ndigit > 0 && ndigit <= 16;
        EXPECT_EQ(plain, ok) << text;
        if (ok) {
            EXPECT_EQ(strtoll(text.c_str(), nullptr, 10), fast) << text;
        }
    }
}

TEST(RowsValueFast, ReadsDoublesBitForBitAsStrtodDoes) {
    std::mt19937_64 rng(5);
    int taken = 0;
    for (int round = 0; round < 400000; ++round) {
        std::string text(rng() % 3 == 0 ? 1 : 0, '-');
        for (unsigned i = rng() % 9; i > 0; --i) text += char('0' + rng() % 10);
        if (rng() % 4 != 0) {
            text += '.';
            for (unsigned i = rng() % 9; i > 0; --i) text += char('0' + rng() % 10);
        }
        if (rng() % 8 == 0 && !text.empty()) text[rng() % text.size()] = "x.-+e0"[rng() % 6];
        double fast = 0;
        if (!value_fast_double(padded_t(text).buf, uint32_t(text.size()), &fast)) continue;
        ++taken;
        char* end = nullptr;
        const double slow = strtod(text.c_str(), &end);
        EXPECT_EQ(text.c_str() + text.size(), end) << text;
        EXPECT_EQ(0, memcmp(&slow, &fast, sizeof(slow))) << text;
    }
    EXPECT_GT(taken, 100000);
}

TEST(RowsValue, PrintsRandomDoublesSoThatTheyComeBackBitForBit) {
    std::mt19937_64 rng(9);
    for (int round = 0; round < 100000; ++round) {
        cvn_datum_t datum = {};
        const uint64_t bits = rng();
        memcpy(&datum.F, &bits, sizeof(bits));
        if (isnan(datum.F)) continue;
        std::string text;
        value_append_text(&text, datum, CVN_TYP_DOUBLE);
        value_t value;
        ASSERT_EQ(nullptr, value_from_text(&value, text, CVN_TYP_DOUBLE)) << text;
        ASSERT_EQ(0, memcmp(&value.datum.F, &datum.F, 8)) << text;
    }
}

TEST(RowsValue, OrdersByteStringsByWhatTheyHaveInCommonAndThenByLength) {
    // What lies after the shorter one must not count.
    for (const std::string_view after : {"a", "z"}) {
        const std::string buffer = "ab" + std::string(after);
        cvn_datum_t lower = {}, higher = {};
        lower.a = {.ptr = buffer.c_str(), .len = 2};
        higher.a = {.ptr = "abm", .len = 3};
        EXPECT_EQ(-1, value_cmp(lower, higher, CVN_TYP_BYTEA)) << after;
        EXPECT_EQ(1, value_cmp(higher, lower, CVN_TYP_BYTEA)) << after;
    }
}

TEST(RowsValue, RefusesATextWhoseLengthDoesNotFitAValueWithoutLookingAtIt) {
    const size_t size = INT32_MAX;
    void* const untouchable =
        mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(MAP_FAILED, untouchable);
    value_t value;
    EXPECT_STREQ("is too long",
                 value_from_text(&value, {static_cast<const char*>(untouchable), size}, CVN_TYP_BYTEA));
    EXPECT_EQ(0, munmap(untouchable, size));
}

TEST(RowsValue, OrdersNaNNowhere) {
    for (const cvn_typ_t typ : {CVN_TYP_FLOAT, CVN_TYP_DOUBLE, CVN_TYP_DEC64, CVN_TYP_DEC128}) {
        value_t nan, one;
        ASSERT_EQ(nullptr, value_from_text(&nan, "NaN", typ));
        ASSERT_EQ(nullptr, value_from_text(&one, "1", typ));
        EXPECT_EQ(2, value_cmp(nan.datum, one.datum, typ));
        EXPECT_EQ(2, value_cmp(one.datum, nan.datum, typ));
        EXPECT_EQ(2, value_cmp(nan.datum, nan.datum, typ));
        EXPECT_EQ(0, value_cmp(one.datum, one.datum, typ));
    }
}
