// What people are shown of text from outside: nothing that steers a terminal, and no password.
#include "rows/show.h"

#include <gtest/gtest.h>

using namespace rows;
using namespace std::string_literals;

namespace {

TEST(Show, LeavesPrintableTextAsItIs) {
    for (const char* text :
         {"", "plain", "two\nlines\tand a tab", "Z\xc3\xbcrich", "\xe6\x97\xa5\xe6\x9c\xac",
          "\xf0\x9f\x90\x98", "\\x1b is four characters", "\xc2\xa0", "\xe2\x80\xa9", "\xe2\x80\xaf",
          "\xe2\x81\xa5", "\xe2\x81\xaa", "\xf4\x8f\xbf\xbf", "\xed\x9f\xbf"})
        EXPECT_EQ(text, show_escape(text));
}

TEST(Show, EscapesEveryControlOfAsciiButLineFeedAndTab) {
    for (int c = 0; c < 0x80; c++) {
        char want[8];
        snprintf(want, sizeof(want), c < 0x20 || c == 0x7f ? "a\\x%02xb" : "a%cb", c);
        if (c == '\n' || c == '\t') snprintf(want, sizeof(want), "a%cb", c);
        EXPECT_EQ(want, show_escape("a"s + static_cast<char>(c) + "b"));
    }
}

TEST(Show, EscapesEveryC1ControlAndEveryRawByteAboveAscii) {
    for (int c = 0x80; c < 0x100; c++) {
        char want[8];
        snprintf(want, sizeof(want), "a\\x%02xb", c);
        EXPECT_EQ(want, show_escape("a"s + static_cast<char>(c) + "b")) << "alone it is no UTF-8";
        if (c > 0x9f) continue;
        snprintf(want, sizeof(want), "\\u%04x", c);
        EXPECT_EQ(want, show_escape("\xc2"s + static_cast<char>(c)));
    }
}

TEST(Show, EscapesOrdersToTurnTheDirection) {
    EXPECT_EQ("\\u202a\\u202b\\u202c\\u202d\\u202e",
              show_escape("\xe2\x80\xaa\xe2\x80\xab\xe2\x80\xac\xe2\x80\xad\xe2\x80\xae"));
    EXPECT_EQ("\\u2066\\u2067\\u2068\\u2069",
              show_escape("\xe2\x81\xa6\xe2\x81\xa7\xe2\x81\xa8\xe2\x81\xa9"));
}

TEST(Show, EscapesWhatIsNoUtf8ByteByByte) {
    EXPECT_EQ("\\xc0\\x9b", show_escape("\xc0\x9b")) << "longer than need be";
    EXPECT_EQ("\\xe0\\x82\\x9b", show_escape("\xe0\x82\x9b"));
    EXPECT_EQ("\\xf0\\x80\\x82\\x9b", show_escape("\xf0\x80\x82\x9b"));
    EXPECT_EQ("\\xed\\xa0\\x80", show_escape("\xed\xa0\x80")) << "half of a pair";
    EXPECT_EQ("\\xf4\\x90\\x80\\x80", show_escape("\xf4\x90\x80\x80")) << "beyond the last character";
    EXPECT_EQ("\\xf8\\x88\\x80\\x80\\x80", show_escape("\xf8\x88\x80\x80\x80"));
    EXPECT_EQ("\\xe6\\x97", show_escape("\xe6\x97")) << "cut";
    EXPECT_EQ("\\xe6\\x97z", show_escape("\xe6\x97z"));
    EXPECT_EQ("\\xc3\xc3\xbc", show_escape("\xc3\xc3\xbc")) << "what follows is whole again";
}

TEST(Show, TellsTheSizeOfACharacter) {
    EXPECT_EQ(4u, show_next("\xf0\x9f\x90\x98z").size);
    EXPECT_EQ(0x1f418u, show_next("\xf0\x9f\x90\x98z").code);
    EXPECT_EQ(2u, show_next("\xc2\x9b[31m").size);
    EXPECT_EQ(SHOW_CONTROL, show_next("\xc2\x9b[31m").kind);
    EXPECT_EQ(1u, show_next("\x9b[31m").size);
    EXPECT_EQ(SHOW_INVALID, show_next("\x9b[31m").kind);
}

TEST(ShowWithoutPassword, HidesWhatStandsInFrontOfTheHost) {
    EXPECT_EQ("http://***@h:1/v1/a", show_without_password("http://bob:s3cret@h:1/v1/a"));
    EXPECT_EQ("kelp://***@h:1", show_without_password("kelp://bob@h:1"));
    EXPECT_EQ("http://***@h:1", show_without_password("http://bob:s3@cret@h:1")) << "the last one counts";
    EXPECT_EQ("http://***@h:1/x", show_without_password("http://bob:s3/cret@h:1/x"));
    EXPECT_EQ("http://***@h:1/x", show_without_password("http://bob:s3?c#r et@h:1/x"));
    EXPECT_EQ("***@h:1/x", show_without_password("bob:s3cret@h:1/x")) << "without a scheme as well";
    EXPECT_EQ("/***@h:1/x", show_without_password("/bob:s3cret@h:1/x"));
}

TEST(ShowWithoutPassword, LeavesUrlsWithoutOneAsTheyAre) {
    for (const char* url : {"http://h:1/v1/a@b/c", "kelp://h:1", "http://h/a@b", "a/b/c", "", "http://"})
        EXPECT_EQ(url, show_without_password(url));
}

TEST(ShowWithoutPassword, FindsEveryUrlOfAMessage) {
    EXPECT_EQ("http://***@h/x: No such file; not http://***@g",
              show_without_passwords("http://u:p@h/x: No such file; not "
                                     "http://v:q@g"));
    EXPECT_EQ("not expected: http://***@h:1/x", show_without_passwords("not expected: http://u:p w@h:1/x"));
    for (const char* text : {"http://h:80/v1/a@b: gone", "'http://h:80/' and a@b", "a@b: no such file",
                             "write kelp://host:port/database", "http://h:80: not so at http://g:81", "://"})
        EXPECT_EQ(text, show_without_passwords(text));
    EXPECT_EQ("http://***@b", show_without_passwords("http://h:80: no route to a@b")) << "rather too much";
}

}  // namespace
