// Decimals and 128-bit integers as text, and the order of decimals.
#include "colvane/dec.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

#include <cmath>
#include <random>
#include <string>

namespace {

decDouble d64(const char* s) {
    decDouble d;
    EXPECT_EQ(0, cvn_dec64_from_string(&d, s)) << s;
    return d;
}

decQuad d128(const char* s) {
    decQuad d;
    EXPECT_EQ(0, cvn_dec128_from_string(&d, s)) << s;
    return d;
}

std::string str(const decDouble& d) {
    char buf[CVN_DEC64_STRSZ];
    EXPECT_EQ(0, cvn_dec64_to_string(buf, &d));
    return buf;
}

std::string str(const decQuad& d) {
    char buf[CVN_DEC128_STRSZ];
    EXPECT_EQ(0, cvn_dec128_to_string(buf, &d));
    return buf;
}

int cmp64(const char* a, const char* b) {
    const decDouble x = d64(a), y = d64(b);
    return cvn_dec64_cmp(&x, &y);
}

int cmp128(const char* a, const char* b) {
    const decQuad x = d128(a), y = d128(b);
    return cvn_dec128_cmp(&x, &y);
}

TEST(Dec64, RefusesSeventeenDigitsAndTakesSixteen) {
    decDouble d;
    EXPECT_EQ(-1, cvn_dec64_from_string(&d, "1.2345678901234567"));
    EXPECT_EQ(0, cvn_dec64_from_string(&d, "1.234567890123456"));
    EXPECT_EQ("1.234567890123456", str(d));
}

TEST(Dec64, WritesTheRoundedValueEvenWhenItRefuses) {
    decDouble d;
    memset(&d, 0x55, sizeof(d));
    EXPECT_EQ(-1, cvn_dec64_from_string(&d, "1.2345678901234567"));
    EXPECT_EQ("1.234567890123457", str(d));
    memset(&d, 0x55, sizeof(d));
    EXPECT_EQ(-1, cvn_dec64_from_string(&d, "gibberish"));
    EXPECT_EQ("NaN", str(d));
}

TEST(Dec64, RefusesBadSyntax) {
    decDouble d;
    for (const char* s :
         {"", " ", "1 ", " 1", "abc", "1.2.3", "--1", "1e", "1e+", "0x10", "1,5", "+", ".", "1_0"})
        EXPECT_EQ(-1, cvn_dec64_from_string(&d, s)) << "'" << s << "'";
}

TEST(Dec64, RefusesOverflowAndUnderflow) {
    decDouble d;
    EXPECT_EQ(-1, cvn_dec64_from_string(&d, "1E+385"));
    EXPECT_EQ("Infinity", str(d));
    EXPECT_EQ(-1, cvn_dec64_from_string(&d, "1E-399"));
    EXPECT_EQ(0, cvn_dec64_from_string(&d, "9.999999999999999E+384"));
}

TEST(Dec64, TakesWhatIsConvertedWithoutAStatus) {
    EXPECT_EQ("1.000000000000000", str(d64("1.0000000000000000")));
    EXPECT_EQ("1E-398", str(d64("1E-398")));
    EXPECT_EQ("Infinity", str(d64("inf")));
    EXPECT_EQ("-Infinity", str(d64("-Infinity")));
    EXPECT_EQ("NaN", str(d64("nan")));
    EXPECT_EQ("-0", str(d64("-0")));
}

TEST(Dec64, PadsTheDigitsOfANumberWhoseExponentIsTooLarge) {
    EXPECT_EQ("1.000000000000000E+384", str(d64("1E+384")));
    EXPECT_EQ("1.200000000000000E+384", str(d64("12E+383")));
    EXPECT_EQ("1.2000000000000E+382", str(d64("12E+381")));
    EXPECT_EQ("-9.00E+371", str(d64("-9E+371")));
    EXPECT_EQ("-9E+369", str(d64("-9E+369")));
    EXPECT_EQ("9.000000000000000000000000000000000E+6144", str(d128("9E+6144")));
    EXPECT_EQ("1.2000000000E+6121", str(d128("12E+6120")));
}

TEST(Dec64, PrintsScientificStrings) {
    EXPECT_EQ("0", str(d64("0")));
    EXPECT_EQ("1.00", str(d64("1.00")));
    EXPECT_EQ("1E+5", str(d64("1e5")));
    EXPECT_EQ("0.000001", str(d64("0.000001")));
    EXPECT_EQ("1E-7", str(d64("0.0000001")));
    EXPECT_EQ("-1.234567890123456E-300", str(d64("-1.234567890123456E-300")));
    EXPECT_EQ("-9.999999999999999E+384", str(d64("-9.999999999999999E384")));
}

TEST(Dec64, StoresTheDenselyPackedEncoding) {
    // Derived by hand: 1 is exponent 398 (0x18e), so combination 01000, continuation 10001110, and the last
    // declet 001.
    const decDouble one = d64("1");
    const uint8_t bytes[8] = {0x01, 0, 0, 0, 0, 0, 0x38, 0x22};
    EXPECT_EQ(0, memcmp(&one, bytes, 8));
    const decDouble zero = d64("0");
    const uint8_t zero_bytes[8] = {0, 0, 0, 0, 0, 0, 0x38, 0x22};
    EXPECT_EQ(0, memcmp(&zero, zero_bytes, 8));
}

TEST(Dec64, OrdersNumbersWhateverTheirScale) {
    EXPECT_EQ(0, cmp64("1.0", "1.00"));
    EXPECT_EQ(-1, cmp64("1.0", "1.01"));
    EXPECT_EQ(1, cmp64("1.01", "1.0"));
    EXPECT_EQ(-1, cmp64("-2", "1"));
    EXPECT_EQ(1, cmp64("-1", "-2"));
    EXPECT_EQ(0, cmp64("0", "-0"));
    EXPECT_EQ(0, cmp64("0E+10", "0E-10"));
    EXPECT_EQ(0, cmp64("1E+3", "1000"));
    EXPECT_EQ(-1, cmp64("9999999999999999", "1E+16"));
    EXPECT_EQ(1, cmp64("1E-398", "0"));
    EXPECT_EQ(-1, cmp64("-1E-398", "0"));
    EXPECT_EQ(1, cmp64("1E+384", "1E-398"));
    EXPECT_EQ(-1, cmp64("1E-398", "2E-398"));
    EXPECT_EQ(1, cmp64("Infinity", "9.999999999999999E384"));
    EXPECT_EQ(-1, cmp64("-Infinity", "-9.999999999999999E384"));
    EXPECT_EQ(0, cmp64("Infinity", "Infinity"));
    EXPECT_EQ(-1, cmp64("-Infinity", "Infinity"));
}

TEST(Dec64, FindsANaNEqualToEverything) {
    for (const char* s : {"1", "-1", "0", "Infinity", "-Infinity", "NaN", "-NaN", "sNaN"}) {
        EXPECT_EQ(0, cmp64("NaN", s)) << s;
        EXPECT_EQ(0, cmp64(s, "NaN")) << s;
        EXPECT_EQ(0, cmp64(s, "sNaN")) << s;
    }
}

// The text of a decimal is exact, so doubles with few digits order as their decimals do.
TEST(Dec64, OrdersRandomNumbersAsDoublesDo) {
    std::mt19937_64 rng(11);
    for (int i = 0; i < 20000; i++) {
        const int a = static_cast<int>(rng() % 2001) - 1000, b = static_cast<int>(rng() % 2001) - 1000;
        const int ea = static_cast<int>(rng() % 9) - 4, eb = static_cast<int>(rng() % 9) - 4;
        const std::string x = std::to_string(a) + "E" + std::to_string(ea);
        const std::string y = std::to_string(b) + "E" + std::to_string(eb);
        const double p = a * std::pow(10.0, ea + 4), q = b * std::pow(10.0, eb + 4);
        ASSERT_EQ(p < q ? -1 : p > q ? 1 : 0, cmp64(x.c_str(), y.c_str())) << x << " " << y;
        ASSERT_EQ(p < q ? -1 : p > q ? 1 : 0, cmp128(x.c_str(), y.c_str())) << x << " " << y;
    }
}

TEST(Dec128, RefusesThirtyFiveDigitsAndTakesThirtyFour) {
    decQuad d;
    EXPECT_EQ(-1, cvn_dec128_from_string(&d, "1.2345678901234567890123456789012345"));
    EXPECT_EQ(0, cvn_dec128_from_string(&d, "1.234567890123456789012345678901234"));
    EXPECT_EQ("1.234567890123456789012345678901234", str(d));
}

TEST(Dec128, PrintsItsLongestStringIntoItsRoom) {
    const std::string longest = str(d128("-1.234567890123456789012345678901234E-6143"));
    EXPECT_EQ("-1.234567890123456789012345678901234E-6143", longest);
    EXPECT_EQ(size_t{CVN_DEC128_STRSZ - 1}, longest.size());
}

TEST(Dec128, OrdersNumbersWhateverTheirScale) {
    EXPECT_EQ(0, cmp128("1.0", "1.00"));
    EXPECT_EQ(-1, cmp128("1.0", "1.01"));
    EXPECT_EQ(1, cmp128("2", "-3"));
    EXPECT_EQ(0, cmp128("NaN", "1"));
    EXPECT_EQ(0, cmp128("1", "NaN"));
    EXPECT_EQ(1, cmp128("1E+6144", "1E-6176"));
    EXPECT_EQ(-1, cmp128("-Infinity", "1"));
}

TEST(Dec128, StoresTheDenselyPackedEncoding) {
    const decQuad zero = d128("0");
    uint8_t bytes[16] = {};
    bytes[15] = 0x22;
    bytes[14] = 0x08;
    EXPECT_EQ(0, memcmp(&zero, bytes, 16));
    const decQuad ten = d128("-10");
    bytes[15] = 0xa2;
    bytes[0] = 0x10;
    EXPECT_EQ(0, memcmp(&ten, bytes, 16));
}

// A decimal as digits, a point that is not written and an exponent: what the parts say in words.
std::string parts_str(const cvn_dec_parts_t& p) {
    if (!p.finite) return (p.minus ? "-" : "") + std::string(p.nan ? "NaN" : "Infinity");
    std::string digits;
    for (cvn_uint128_t c = p.coeff; c; c /= 10) digits.insert(0, 1, static_cast<char>('0' + c % 10));
    return (p.minus ? "-" : "") + (digits.empty() ? "0" : digits) + "E" + std::to_string(p.exponent);
}

std::string parts64(const decDouble& d) {
    cvn_dec_parts_t p;
    memset(&p, 0x55, sizeof(p));
    cvn_dec64_unpack(&p, &d);
    EXPECT_EQ(p.nan, cvn_dec64_isnan(&d));
    return parts_str(p);
}

std::string parts128(const decQuad& d) {
    cvn_dec_parts_t p;
    memset(&p, 0x55, sizeof(p));
    cvn_dec128_unpack(&p, &d);
    EXPECT_EQ(p.nan, cvn_dec128_isnan(&d));
    return parts_str(p);
}

TEST(Dec64, ComesApartAsItWasWritten) {
    for (const char* s :
         {"0E0", "-0E0", "0E-3", "1E0", "-1E0", "100E-2", "7999999999999999E369", "-9999999999999999E369",
          "8000000000000000E-398", "1E-398", "123456789012345E3", "1048577E0", "999999E0", "1000000E0"})
        EXPECT_EQ(s, parts64(d64(s)));
    EXPECT_EQ("100E-2", parts64(d64("1.00")));
}

TEST(Dec128, ComesApartAsItWasWritten) {
    for (const char* s :
         {"0E0", "-0E0", "0E-3", "1E0", "-1E0", "100E-2", "9999999999999999999999999999999999E6111",
          "-7123456789012345678901234567890123E-6176", "1E-6176", "18446744073709551616E1"})
        EXPECT_EQ(s, parts128(d128(s)));
    EXPECT_EQ("100E-2", parts128(d128("1.00")));
}

TEST(Dec, TellsInfinitiesFromNaNsAndKeepsTheirSigns) {
    for (const char* s : {"Infinity", "-Infinity", "NaN", "-NaN"}) {
        EXPECT_EQ(s, parts64(d64(s)));
        EXPECT_EQ(s, parts128(d128(s)));
    }
    EXPECT_EQ("NaN", parts64(d64("sNaN")));
    EXPECT_EQ("-NaN", parts128(d128("-sNaN")));
    EXPECT_EQ("NaN", parts64(d64("NaN123"))) << "a payload is no coefficient";
    cvn_dec_parts_t p;
    const decQuad nan = d128("NaN123");
    cvn_dec128_unpack(&p, &nan);
    EXPECT_TRUE(p.coeff == 0 && p.exponent == 0 && !p.finite);
}

// decNumber prints any image, canonical or not; read back, its text must come apart as the image does.
TEST(Dec, ComesApartAsItIsPrintedWhateverItsBitsAre) {
    std::mt19937_64 rng(31);
    for (int i = 0; i < 20000; i++) {
        decDouble d, d_again;
        const uint64_t bits = rng();
        memcpy(&d, &bits, sizeof(d));
        char buf[CVN_DEC128_STRSZ];
        (void)cvn_dec64_to_string(buf, &d);
        (void)cvn_dec64_from_string(&d_again, buf);
        ASSERT_EQ(parts64(d_again), parts64(d)) << buf;
        decQuad q, q_again;
        const uint64_t halves[2] = {rng(), rng()};
        memcpy(&q, halves, sizeof(q));
        (void)cvn_dec128_to_string(buf, &q);
        (void)cvn_dec128_from_string(&q_again, buf);
        ASSERT_EQ(parts128(q_again), parts128(q)) << buf;
    }
}

TEST(Dec, HasTheSameFunctionsForValues) {
    const decDouble a = d64("1"), b = d64("2");
    EXPECT_EQ(-1, cvn_dec64_cmp(a, b));
    const decQuad p = d128("2"), q = d128("1");
    EXPECT_EQ(1, cvn_dec128_cmp(p, q));
    char buf[CVN_DEC128_STRSZ];
    EXPECT_EQ(0, cvn_dec64_to_string(buf, b));
    EXPECT_STREQ("2", buf);
    EXPECT_EQ(0, cvn_dec128_to_string(buf, q));
    EXPECT_STREQ("1", buf);
}

std::string str(cvn_int128_t v) {
    char buf[CVN_INT128_STRSZ];
    memset(buf, 'X', sizeof(buf));
    EXPECT_EQ(0, cvn_int128_to_string(buf, v));
    EXPECT_EQ('\0', buf[34]);
    return std::string(buf, 34);
}

cvn_int128_t make128(uint64_t hi, uint64_t lo) {
    return static_cast<cvn_int128_t>(static_cast<unsigned __int128>(hi) << 64 | lo);
}

TEST(Int128, PrintsThirtyTwoLowerCaseDigits) {
    EXPECT_EQ("0x00000000000000000000000000000000", str(0));
    EXPECT_EQ("0xffffffffffffffffffffffffffffffff", str(-1));
    EXPECT_EQ("0x0123456789abcdeffedcba9876543210", str(make128(0x0123456789abcdef, 0xfedcba9876543210)));
    EXPECT_EQ("0x80000000000000000000000000000000", str(make128(uint64_t{1} << 63, 0)));
}

TEST(Int128, ReadsBackWhatItPrints) {
    std::mt19937_64 rng(5);
    for (int i = 0; i < 1000; i++) {
        const cvn_int128_t v = make128(i % 3 == 0 ? 0 : i % 3 == 1 ? ~uint64_t{0} : rng(), rng());
        cvn_int128_t back = 0;
        ASSERT_EQ(0, cvn_int128_from_string(&back, str(v).c_str()));
        ASSERT_TRUE(v == back) << str(v);
    }
}

TEST(Int128, RefusesWhatDoesNotBeginWith0x) {
    cvn_int128_t v = 7;
    for (const char* s :
         {"", "0", "x", "1x00000000000000000000000000000001", "00000000000000000000000000000000001", "12",
          "-0x0000000000000000000000000000001", " 0x00000000000000000000000000000001"})
        EXPECT_EQ(-1, cvn_int128_from_string(&v, s)) << s;
    EXPECT_TRUE(v == 7);
}

TEST(Int128, RefusesTextThatIsTooShort) {
    cvn_int128_t v = 7;
    EXPECT_EQ(-1, cvn_int128_from_string(&v, "0x1"));
    EXPECT_EQ(-1, cvn_int128_from_string(&v, "0x"));
    EXPECT_EQ(-1, cvn_int128_from_string(&v, "0x000000000000001"));
    EXPECT_TRUE(v == 7);
}

TEST(Int128, StoresTheHighHalfBeforeTheLowHalfFails) {
    cvn_int128_t v = 7;
    EXPECT_EQ(-1, cvn_int128_from_string(&v, "0x00000000000000ff00000000"));
    EXPECT_EQ(uint64_t{0xff}, static_cast<uint64_t>(static_cast<unsigned __int128>(v) >> 64));
    EXPECT_EQ(-1, cvn_int128_from_string(&v, "0x00000000000000ee000000000000000g"));
    EXPECT_EQ(uint64_t{0xee}, static_cast<uint64_t>(static_cast<unsigned __int128>(v) >> 64));
}

TEST(Int128, TakesUpperCaseAndIgnoresWhatFollows) {
    cvn_int128_t v = 0;
    EXPECT_EQ(0, cvn_int128_from_string(&v, "0XABCDEF00000000000000000000000001 and more"));
    EXPECT_TRUE(v == make128(0xabcdef0000000000, 1));
}

TEST(Int128, TakesAPlusSignInEitherHalf) {
    cvn_int128_t v = 0;
    EXPECT_EQ(0, cvn_int128_from_string(&v, "0x+00000000000001a+00000000000002b"));
    EXPECT_TRUE(v == make128(0x1a, 0x2b));
}

}  // namespace
