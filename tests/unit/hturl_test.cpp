#include "server_support.h"

namespace {
using namespace server_support;

std::string take(char* s) {
    if (!s) return "(null)";
    std::string copy = s;
    free(s);
    return copy;
}
std::string path(const char* url) { return take(hturl_path(url)); }
std::string query(const char* url) { return take(hturl_query(url)); }
std::string fragment(const char* url) { return take(hturl_fragment(url)); }
std::string encode(std::string s) { return take(hturl_encode(s.data())); }

TEST(HturlPath, TurnsPlusIntoSpaceAndDecodes) { EXPECT_EQ("/v1/a bA", path("/v1/a+b%41")); }
TEST(HturlPath, AnEncodedPlusStays) { EXPECT_EQ("/a+b c", path("/a%2Bb+c")); }
TEST(HturlPath, LosesSchemeAndHost) { EXPECT_EQ("/p/q", path("scheme://host:80/p/q?x=1#f")); }
TEST(HturlPath, KeepsAFragmentWithoutAQuery) { EXPECT_EQ("/a/b#f", path("/a/b#f")); }
TEST(HturlPath, EndsAtTheQuery) { EXPECT_EQ("/a", path("/a?x#y")); }
TEST(HturlPath, EndsAtAFragmentBeforeTheQuery) { EXPECT_EQ("/a", path("/a#y?x")); }
TEST(HturlPath, KeepsABadEscape) {
    EXPECT_EQ("/a%zz", path("/a%zz"));
    EXPECT_EQ("/a%4", path("/a%4"));
    EXPECT_EQ("/a%", path("/a%"));
    EXPECT_EQ("/a%%A", path("/a%%%41"));
}
TEST(HturlPath, TakesDigitsOfEitherCase) { EXPECT_EQ("/\xaf\xAf", path("/%aF%Af")); }
TEST(HturlPath, WithoutASlashIsTheWholeUrl) { EXPECT_EQ("abc", path("abc")); }
TEST(HturlPath, StartsAfterADoubledSlash) { EXPECT_EQ("/c", path("/a//b/c")); }
TEST(HturlPath, StaysWholeWhenNoSlashFollowsTheDoubledOne) { EXPECT_EQ("//b", path("//b")); }
TEST(HturlPath, ADoubledSlashInTheQueryMovesTheStartThere) { EXPECT_EQ("/c?d", path("/a?x=//b/c?d")); }
TEST(HturlPath, ADecodedNulEndsIt) { EXPECT_EQ("/a", path("/a%00b")); }
TEST(HturlPath, OfNothingIsNothing) { EXPECT_EQ("", path("")); }

TEST(HturlQuery, IsTheTextBetweenQuestionMarkAndFragment) {
    EXPECT_EQ("x=1", query("scheme://host:80/p/q?x=1#f"));
    EXPECT_EQ("x=%41+b", query("/a?x=%41+b"));
    EXPECT_EQ("x?y", query("/a?x?y#z"));
}
TEST(HturlQuery, IsEmptyWithoutOne) {
    EXPECT_EQ("", query("/a/b#f"));
    EXPECT_EQ("", query("/a#y?x"));
    EXPECT_EQ("", query("/a?"));
}
TEST(HturlFragment, IsTheTextAfterTheFirstHash) {
    EXPECT_EQ("f", fragment("scheme://host:80/p/q?x=1#f"));
    EXPECT_EQ("y?x#z", fragment("/a#y?x#z"));
    EXPECT_EQ("", fragment("/a"));
}
TEST(HturlEncode, KeepsSpacesAndTheUnreserved) { EXPECT_EQ("aZ09-._~ ", encode("aZ09-._~ ")); }
TEST(HturlEncode, WritesLowerCaseDigits) { EXPECT_EQ("%2f%2b%25%1f", encode("/+%\x1f")); }
TEST(HturlEncode, GrowsToThreeTimesTheLength) { EXPECT_EQ("%2f%2f%2f", encode("///")); }
TEST(HturlTest, HasNoEffect) {
    testing::internal::CaptureStderr();
    hturl_test();
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}
}  // namespace
