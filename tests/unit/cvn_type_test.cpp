// Type codes, names and widths, and values from text.
#include <gtest/gtest.h>

#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <cmath>
#include <string>

#include "colvane/colvane.h"

namespace {

struct row_t {
    cvn_typ_t typ;
    const char* name;
    int width;
};
constexpr row_t TYPES[] = {
    {1, "bool", 1},
    {2, "int16", 2},
    {3, "int32", 4},
    {4, "int64", 8},
    {5, "int128", 16},
    {6, "float", 4},
    {7, "double", 8},
    {8, "bytea", -1},
    {9, "cstr", -2},
    {10, "dec64", 8},
    {11, "dec128", 16},
    {65539, "date", 4},
    {131075, "time_millis", 4},
    {196612, "timestamp_millis", 8},
};

TEST(CvnType, NamesAndMeasuresTheFourteenTypes) {
    for (const row_t& r : TYPES) {
        EXPECT_STREQ(r.name, cvn_typ_str(r.typ));
        EXPECT_EQ(r.width, cvn_typlen(r.typ)) << r.name;
    }
}

TEST(CvnType, HasTheNumbersThatFilesHold) {
    EXPECT_EQ(1, CVN_TYP_BOOL);
    EXPECT_EQ(2, CVN_TYP_INT16);
    EXPECT_EQ(3, CVN_TYP_INT32);
    EXPECT_EQ(4, CVN_TYP_INT64);
    EXPECT_EQ(5, CVN_TYP_INT128);
    EXPECT_EQ(6, CVN_TYP_FLOAT);
    EXPECT_EQ(7, CVN_TYP_DOUBLE);
    EXPECT_EQ(8, CVN_TYP_BYTEA);
    EXPECT_EQ(9, CVN_TYP_CSTR);
    EXPECT_EQ(10, CVN_TYP_DEC64);
    EXPECT_EQ(11, CVN_TYP_DEC128);
    EXPECT_EQ(65539, CVN_TYP_DATE);
    EXPECT_EQ(131075, CVN_TYP_TIME_MILLIS);
    EXPECT_EQ(196612, CVN_TYP_TIMESTAMP_MILLIS);
}

TEST(CvnType, CallsEveryOtherValueUnknown) {
    for (const cvn_typ_t t :
         {0, 12, 255, 0x10000, 0x10004, 0x20004, 0x30003, 0x40003, -1, INT32_MIN, INT32_MAX})
        EXPECT_STREQ("unknown", cvn_typ_str(t)) << t;
}

TEST(CvnType, StoresByTheLowSixteenBitsWhateverTheHighOnesAre) {
    EXPECT_EQ(CVN_TYP_INT32, cvn_storage(CVN_TYP_DATE));
    EXPECT_EQ(CVN_TYP_INT64, cvn_storage(CVN_TYP_TIMESTAMP_MILLIS));
    EXPECT_EQ(CVN_TYP_DEC128, cvn_storage(CVN_TYP_DEC128));
    EXPECT_EQ(9, cvn_storage(static_cast<cvn_typ_t>(0xffff0009)));
    EXPECT_EQ(0, cvn_storage(INT32_MIN));
    EXPECT_EQ(0xffff, cvn_storage(-1)) << "never negative";
    static_assert(cvn_storage(CVN_TYP_TIME_MILLIS) == CVN_TYP_INT32, "a constant where one is needed");
}

TEST(CvnType, MeasuresByTheLowSixteenBitsAlone) {
    EXPECT_EQ(4, cvn_typlen(0x10003));
    EXPECT_EQ(8, cvn_typlen(0x7fff0004));
    EXPECT_EQ(-2, cvn_typlen(static_cast<cvn_typ_t>(0xffff0009)));
    EXPECT_EQ(0, cvn_typlen(0));
    EXPECT_EQ(0, cvn_typlen(12));
    EXPECT_EQ(0, cvn_typlen(0x10000));
    EXPECT_EQ(0, cvn_typlen(0xffff));
    EXPECT_EQ(0, cvn_typlen(-1));
}

// Parses; the datum starts as a pattern so that an untouched result shows.
int parse(cvn_datum_t* d, const char* s, cvn_typ_t typ) {
    memset(d, 0x5a, sizeof(*d));
    return cvn_datum_from_string(d, s, typ);
}

bool untouched(const cvn_datum_t& d) {
    cvn_datum_t pattern;
    memset(&pattern, 0x5a, sizeof(pattern));
    return memcmp(&d, &pattern, sizeof(d)) == 0;
}

// The datum holds `image` and zeros after it.
template <typename T>
bool holds(const cvn_datum_t& d, T image) {
    char want[48] = {};
    memcpy(want, &image, sizeof(image));
    return memcmp(&d, want, 48) == 0;
}

TEST(CvnDatum, RefusesTypesWithoutStorage) {
    cvn_datum_t d;
    for (const cvn_typ_t t : {0, 12, 0x10000, 0xffff, -1, 0x1000c}) {
        EXPECT_EQ(-6, parse(&d, "1", t)) << t;
        EXPECT_TRUE(untouched(d));
    }
}

TEST(CvnDatum, ReadsBoolAsANumber) {
    cvn_datum_t d;
    EXPECT_EQ(0, parse(&d, "1", CVN_TYP_BOOL));
    EXPECT_TRUE(holds(d, uint8_t{1}));
    EXPECT_EQ(0, parse(&d, "-256", CVN_TYP_BOOL));
    EXPECT_TRUE(holds(d, uint8_t{1}));
    for (const char* s : {"0", "", "true", "false", "t", "yes"}) {
        EXPECT_EQ(0, parse(&d, s, CVN_TYP_BOOL)) << s;
        EXPECT_TRUE(holds(d, uint8_t{0})) << s;
    }
    EXPECT_EQ(0, parse(&d, "4294967296", CVN_TYP_BOOL));
    EXPECT_TRUE(holds(d, uint8_t{0})) << "truncated to 32 bits before it is tested";
}

TEST(CvnDatum, ReadsInt16WithinItsRange) {
    cvn_datum_t d;
    EXPECT_EQ(0, parse(&d, "32767", CVN_TYP_INT16));
    EXPECT_TRUE(holds(d, int16_t{32767}));
    EXPECT_EQ(0, parse(&d, "-32768", CVN_TYP_INT16));
    EXPECT_TRUE(holds(d, int16_t{-32768}));
    for (const char* s : {"32768", "-32769", "0x8000"}) {
        EXPECT_EQ(-6, parse(&d, s, CVN_TYP_INT16)) << s;
        EXPECT_TRUE(untouched(d));
    }
    EXPECT_EQ(0, parse(&d, "abc", CVN_TYP_INT16));
    EXPECT_TRUE(holds(d, int16_t{0}));
}

TEST(CvnDatum, ReadsBinaryAsAZeroOnEveryCLibrary) {
    cvn_datum_t d;
    EXPECT_EQ(0, parse(&d, "0b11", CVN_TYP_INT16));
    EXPECT_TRUE(holds(d, int16_t{0}));
    EXPECT_EQ(0, parse(&d, " -0B11", CVN_TYP_INT32));
    EXPECT_TRUE(holds(d, int32_t{0}));
    EXPECT_EQ(0, parse(&d, "0b11", CVN_TYP_INT64));
    EXPECT_TRUE(holds(d, int64_t{0}));
}

TEST(CvnDatum, TruncatesInt16To32BitsBeforeItTestsTheRange) {
    cvn_datum_t d;
    EXPECT_EQ(0, parse(&d, "4294967301", CVN_TYP_INT16));  // 2^32 + 5
    EXPECT_TRUE(holds(d, int16_t{5}));
    // A long that clamps at its maximum is -1 in 32 bits, and so inside the range.
    EXPECT_EQ(0, parse(&d, "99999999999999999999", CVN_TYP_INT16));
    EXPECT_TRUE(holds(d, int16_t{-1}));
    // One that clamps at its minimum is 0 in 32 bits, and errno tells.
    EXPECT_EQ(-6, parse(&d, "-99999999999999999999", CVN_TYP_INT16));
    EXPECT_TRUE(untouched(d));
}

TEST(CvnDatum, TruncatesInt32WithoutARangeCheck) {
    cvn_datum_t d;
    EXPECT_EQ(0, parse(&d, "4294967296", CVN_TYP_INT32));
    EXPECT_TRUE(holds(d, int32_t{0}));
    EXPECT_EQ(0, parse(&d, "2147483648", CVN_TYP_INT32));
    EXPECT_TRUE(holds(d, INT32_MIN));
    EXPECT_EQ(0, parse(&d, "99999999999", CVN_TYP_INT32));
    EXPECT_TRUE(holds(d, static_cast<int32_t>(99999999999)));
    EXPECT_EQ(0, parse(&d, "99999999999999999999", CVN_TYP_INT32));
    EXPECT_TRUE(holds(d, int32_t{-1}));
    EXPECT_EQ(-6, parse(&d, "-99999999999999999999", CVN_TYP_INT32));  // 0 in 32 bits, and errno set
    EXPECT_TRUE(untouched(d));
}

TEST(CvnDatum, ReadsIntegersInBaseZeroAndIgnoresWhatFollows) {
    cvn_datum_t d;
    for (const cvn_typ_t t : {CVN_TYP_INT32 + 0, CVN_TYP_DATE + 0, CVN_TYP_TIME_MILLIS + 0}) {
        EXPECT_EQ(0, parse(&d, "0x1F", t));
        EXPECT_TRUE(holds(d, int32_t{31}));
        EXPECT_EQ(0, parse(&d, "017", t));
        EXPECT_TRUE(holds(d, int32_t{15}));
        EXPECT_EQ(0, parse(&d, " -12abc", t));
        EXPECT_TRUE(holds(d, int32_t{-12}));
        EXPECT_EQ(0, parse(&d, "2026-11-21", t));
        EXPECT_TRUE(holds(d, int32_t{2026}));
        EXPECT_EQ(0, parse(&d, "", t));
        EXPECT_TRUE(holds(d, int32_t{0}));
    }
}

TEST(CvnDatum, ClampsInt64) {
    cvn_datum_t d;
    for (const cvn_typ_t t : {CVN_TYP_INT64 + 0, CVN_TYP_TIMESTAMP_MILLIS + 0}) {
        EXPECT_EQ(0, parse(&d, "", t));
        EXPECT_TRUE(holds(d, int64_t{0}));
        EXPECT_EQ(0, parse(&d, "99999999999999999999", t));
        EXPECT_TRUE(holds(d, INT64_MAX));
        EXPECT_EQ(0, parse(&d, "-99999999999999999999", t));
        EXPECT_TRUE(holds(d, INT64_MIN));
        EXPECT_EQ(0, parse(&d, "0x10 rest", t));
        EXPECT_TRUE(holds(d, int64_t{16}));
    }
}

TEST(CvnDatum, IsNotMisledByAnEarlierErrno) {
    cvn_datum_t d;
    for (const cvn_typ_t t :
         {CVN_TYP_BOOL, CVN_TYP_INT16, CVN_TYP_INT32, CVN_TYP_INT64, CVN_TYP_FLOAT, CVN_TYP_DOUBLE}) {
        errno = ERANGE;
        EXPECT_EQ(0, parse(&d, "0", t)) << t;
    }
}

TEST(CvnDatum, ReadsInt128AndPassesItsFailureOn) {
    cvn_datum_t d;
    EXPECT_EQ(0, parse(&d, "0xffffffffffffffffffffffffffffffff", CVN_TYP_INT128));
    EXPECT_TRUE(holds(d, cvn_int128_t{-1}));
    EXPECT_EQ(-1, parse(&d, "12", CVN_TYP_INT128));
    EXPECT_TRUE(untouched(d));
    EXPECT_EQ(-1, parse(&d, "0x00000000000000010000", CVN_TYP_INT128));
    EXPECT_TRUE(untouched(d));
}

TEST(CvnDatum, RefusesAFloatThatUnderflowsToZero) {
    cvn_datum_t d;
    EXPECT_EQ(-6, parse(&d, "1e-50", CVN_TYP_FLOAT));
    EXPECT_TRUE(untouched(d));
    EXPECT_EQ(-6, parse(&d, "-1e-400", CVN_TYP_DOUBLE));
    EXPECT_TRUE(untouched(d));
}

TEST(CvnDatum, TakesInfinityForAFloatThatOverflows) {
    cvn_datum_t d;
    EXPECT_EQ(0, parse(&d, "1e50", CVN_TYP_FLOAT));
    EXPECT_TRUE(holds(d, HUGE_VALF));
    EXPECT_EQ(0, parse(&d, "-1e400", CVN_TYP_DOUBLE));
    EXPECT_TRUE(holds(d, -HUGE_VAL));
    EXPECT_EQ(0, parse(&d, "1e-320", CVN_TYP_DOUBLE)) << "subnormal, not zero";
    EXPECT_EQ(0, parse(&d, "1e-40", CVN_TYP_FLOAT)) << "subnormal, not zero";
}

TEST(CvnDatum, ReadsFloatsNaNsAndRubbish) {
    cvn_datum_t d;
    EXPECT_EQ(0, parse(&d, "1.5kg", CVN_TYP_FLOAT));
    EXPECT_TRUE(holds(d, 1.5f));
    EXPECT_EQ(0, parse(&d, "-2.25", CVN_TYP_DOUBLE));
    EXPECT_TRUE(holds(d, -2.25));
    EXPECT_EQ(0, parse(&d, "nan", CVN_TYP_DOUBLE));
    EXPECT_TRUE(std::isnan(d.F));
    EXPECT_EQ(0, parse(&d, "rubbish", CVN_TYP_DOUBLE));
    EXPECT_TRUE(holds(d, 0.0));
    EXPECT_EQ(0, parse(&d, "", CVN_TYP_FLOAT));
    EXPECT_TRUE(holds(d, 0.0f));
}

TEST(CvnDatum, CountsTheNulOfAByteString) {
    cvn_datum_t d;
    const std::string s = "abc";
    EXPECT_EQ(0, parse(&d, s.c_str(), CVN_TYP_BYTEA));
    EXPECT_EQ(s.c_str(), d.a.ptr);
    EXPECT_EQ(4, d.a.len);
    EXPECT_EQ(0, parse(&d, "", CVN_TYP_BYTEA));
    EXPECT_EQ(1, d.a.len);
}

TEST(CvnDatum, BorrowsAText) {
    cvn_datum_t d;
    const std::string s = "abc";
    EXPECT_EQ(0, parse(&d, s.c_str(), CVN_TYP_CSTR));
    EXPECT_TRUE(holds(d, s.c_str()));
}

TEST(CvnDatum, ReadsDecimalsExactlyOrNotAtAll) {
    cvn_datum_t d;
    char buf[CVN_DEC128_STRSZ];
    EXPECT_EQ(0, parse(&d, "1.234567890123456", CVN_TYP_DEC64));
    cvn_dec64_to_string(buf, &d.dec64);
    EXPECT_STREQ("1.234567890123456", buf);
    EXPECT_TRUE(holds(d, d.dec64));
    EXPECT_EQ(-1, parse(&d, "1.2345678901234567", CVN_TYP_DEC64));
    EXPECT_TRUE(untouched(d));
    EXPECT_EQ(-1, parse(&d, "", CVN_TYP_DEC64));
    EXPECT_EQ(0, parse(&d, "-1E+6000", CVN_TYP_DEC128));
    cvn_dec128_to_string(buf, &d.dec128);
    EXPECT_STREQ("-1E+6000", buf);
    EXPECT_TRUE(holds(d, d.dec128));
    EXPECT_EQ(-1, parse(&d, "12 ", CVN_TYP_DEC128));
    EXPECT_TRUE(untouched(d));
}

}  // namespace
