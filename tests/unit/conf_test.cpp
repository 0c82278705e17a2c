#include "server/conf.h"

#include <errno.h>

#include "server_support.h"

namespace {
using namespace server_support;

// Loads `bytes` as a configuration file; the list is freed with the object.
struct loaded_t {
    explicit loaded_t(const std::string& bytes) {
        write_file("conf", bytes);
        testing::internal::CaptureStderr();
        err = conf_load(&lst, "conf");
        log = testing::internal::GetCapturedStderr();
    }
    ~loaded_t() { conf_free(lst); }
    loaded_t(const loaded_t&) = delete;
    loaded_t& operator=(const loaded_t&) = delete;
    // "line key=value;" for every entry.
    std::string dump() const {
        std::string s;
        for (const conf_t* p = lst; p; p = p->next)
            s += std::to_string(p->lineno) + " " + p->key + "=" + p->value + ";";
        return s;
    }
    conf_t* lst = reinterpret_cast<conf_t*>(1);  // not null, so that the clearing is seen
    int err = 0;
    std::string log;
};

class ConfLoad : public DataDir {};

TEST_F(ConfLoad, TakesEqualsAndColonWithBlanksAroundThem) {
    EXPECT_EQ("1 port=8080;2 port=8080;3 port=8080;",
              loaded_t("port=8080\nport : 8080\n\t port\t=\t8080\t \r\n").dump());
}
TEST_F(ConfLoad, SplitsAtTheFirstSeparatorOnly) {
    EXPECT_EQ("1 a=b=c;2 d=e:f;", loaded_t("a:b=c\nd=e:f\n").dump());
}
TEST_F(ConfLoad, StripsNoOtherWhiteSpace) {
    // Vertical tab and form feed stay, at both ends of key and value, and make the line no empty one.
    EXPECT_EQ("1 \vport=1;2 \fport=1;3 port\v=\v1\v;4 port\f=\f1\f;",
              loaded_t("\vport=1\n \fport=1\nport\v = \v1\v\nport\f = \f1\f\n").dump());
    const loaded_t c("\vport=1\n\v\n\v# no comment\n");
    EXPECT_EQ(nullptr, conf_get(c.lst, "port"));
    EXPECT_EQ("WARNING: conf file invalid line 2 ... ignored.WARNING: conf file invalid line 3 ... ignored.",
              c.log);
}
TEST_F(ConfLoad, WarnsOfALineWithAnEmptyKeyWithoutEndingTheLine) {
    const loaded_t c("a=1\n=5\nb=2\n");
    EXPECT_EQ(0, c.err);
    EXPECT_EQ("1 a=1;3 b=2;", c.dump());
    EXPECT_EQ("WARNING: conf file invalid line 2 ... ignored.", c.log);
}
TEST_F(ConfLoad, WarnsOfALineWithoutSeparatorAndGoesOn) {
    const loaded_t c("nothing here\n : x\nb=2");
    EXPECT_EQ("3 b=2;", c.dump());
    EXPECT_EQ("WARNING: conf file invalid line 1 ... ignored.WARNING: conf file invalid line 2 ... ignored.",
              c.log);
}
TEST_F(ConfLoad, CommentLinesDoNotShiftLaterLineNumbers) {
    const loaded_t c("# one\n  ! two = 2\n\na = 1 # not a comment\n");
    EXPECT_EQ("4 a=1 # not a comment;", c.dump());
    EXPECT_EQ("", c.log);
}
TEST_F(ConfLoad, ContinuesAValueThatEndsInABackslash) {
    EXPECT_EQ("1 a=one two=2:3;3 b=4;", loaded_t("a = one \\\n two=2:3\nb=4\n").dump());
}
TEST_F(ConfLoad, ContinuesOverSeveralLines) { EXPECT_EQ("1 a=123;", loaded_t("a=1\\\n2\\\n3\n").dump()); }
TEST_F(ConfLoad, ACommentContinuesAValueAsAnEmptyLine) {
    EXPECT_EQ("1 a=1;3 b=2;", loaded_t("a=1\\\n# gone\nb=2\n").dump());
}
TEST_F(ConfLoad, AValuePendingAtTheEndKeepsItsEscapes) {
    // The file's own line end adds one more, empty, line, which completes the entry.
    EXPECT_EQ("1 a=x\ty;", loaded_t("a=x\\ty\\\n").dump());
    EXPECT_EQ("1 a=x\\ty;", loaded_t("a=x\\ty\\").dump());
}
TEST_F(ConfLoad, TheFirstOfTwoBackslashesAtTheEndEscapesWhatIsJoined) {
    EXPECT_EQ("1 a=x\tb=1;3 c=2;", loaded_t("a=x\\\\\ntb=1\nc=2\n").dump());
}
TEST_F(ConfLoad, DecodesTheEscapes) {
    EXPECT_EQ("1 k=a\tb\nc\rd;", loaded_t("k=a\\tb\\nc\\rd").dump());
    EXPECT_EQ("1 k=A;", loaded_t("k=\\x41").dump());
    EXPECT_EQ("1 k=A;", loaded_t("k=\\101").dump());
    EXPECT_EQ("1 k=\"'q;", loaded_t("k=\\\"\\'\\q").dump());
    EXPECT_EQ("1 k=a\\tb;", loaded_t("k=a\\\\tb").dump());
}
TEST_F(ConfLoad, AShortNumberSwallowsWhatFollows) {
    EXPECT_EQ("1 k=\x04!;", loaded_t("k=\\x4z!").dump());
    EXPECT_EQ("1 k=\x01!;", loaded_t("k=\\1zz!").dump());
    EXPECT_EQ("1 k=\x04;", loaded_t("k=\\x4").dump());
    EXPECT_EQ("1 k=\x01;", loaded_t("k=\\1").dump());
}
TEST_F(ConfLoad, ANumberMayHaveBlanksAndASignBeforeIt) {
    // Blanks do not count towards the digits that are read, but they do towards the three swallowed.
    EXPECT_EQ("1 k=\nb;", loaded_t("k=\\ 12b").dump());
    EXPECT_EQ("1 k=S3b;", loaded_t("k=\\ 123b").dump());
    EXPECT_EQ("1 k=\x05!;", loaded_t("k=\\ \t5!").dump());
    EXPECT_EQ("1 k=\x04;", loaded_t("k=\\x 4").dump());
    EXPECT_EQ("1 k=\x04!;", loaded_t("k=\\x 4!").dump());
    EXPECT_EQ("1 k=A1!;", loaded_t("k=\\x 41!").dump());
    // A sign is one of the characters read, and the byte is the number's lowest.
    EXPECT_EQ("1 k=\xff;", loaded_t("k=\\-1z").dump());
    EXPECT_EQ("1 k=\xff!;", loaded_t("k=\\-1z!").dump());
    EXPECT_EQ("1 k=\xf6!;", loaded_t("k=\\-12!").dump());
    EXPECT_EQ(
        "1 k=\xf6"
        "3!;",
        loaded_t("k=\\-123!").dump());
    EXPECT_EQ("1 k=\x01!;", loaded_t("k=\\+1z!").dump());
    EXPECT_EQ("1 k=\xfc!;", loaded_t("k=\\x-4!").dump());
    EXPECT_EQ(
        "1 k=\xfc"
        "4!;",
        loaded_t("k=\\x-44!").dump());
    EXPECT_EQ("1 k=\x04!;", loaded_t("k=\\x+4!").dump());
}
TEST_F(ConfLoad, BlanksOrASignWithoutADigitAreThemselves) {
    EXPECT_EQ("1 k=-z!;", loaded_t("k=\\-z!").dump());
    EXPECT_EQ("1 k=- 1;", loaded_t("k=\\- 1").dump());
    EXPECT_EQ("1 k=-8;", loaded_t("k=\\-8").dump());
    EXPECT_EQ("1 k= 9;", loaded_t("k=\\ 9").dump());
    EXPECT_EQ("1 k=x-g;", loaded_t("k=\\x-g").dump());
    EXPECT_EQ("1 k=x g;", loaded_t("k=\\x g").dump());
}
TEST_F(ConfLoad, AnXWithoutDigitsIsTheLetter) { EXPECT_EQ("1 k=xyz;", loaded_t("k=\\xyz").dump()); }
TEST_F(ConfLoad, TakesAnEmptyFileForAnEmptyList) {
    const loaded_t c("");
    EXPECT_EQ(0, c.err);
    EXPECT_EQ(nullptr, c.lst);
}
TEST_F(ConfLoad, RefusesANulByte) {
    for (const std::string& s : {"\0"s, "\0a=1\n"s, "a=1\0\n"s, "a=1\n\0"s}) {
        const loaded_t c(s);
        EXPECT_EQ(EINVAL, c.err);
        EXPECT_EQ(nullptr, c.lst);
    }
}
TEST_F(ConfLoad, ReportsTheErrnoOfAMissingFile) {
    conf_t* lst = reinterpret_cast<conf_t*>(1);
    EXPECT_EQ(ENOENT, conf_load(&lst, "missing"));
    EXPECT_EQ(nullptr, lst);
}
TEST_F(ConfLoad, FailsOnADirectory) {
    conf_t* lst = reinterpret_cast<conf_t*>(1);
    EXPECT_NE(0, conf_load(&lst, "base"));
    EXPECT_EQ(nullptr, lst);
}
TEST_F(ConfLoad, AnEmptyValueIsAnEntry) { EXPECT_EQ("1 k=;2 l=;", loaded_t("k=\nl:  \n").dump()); }

class ConfGet : public DataDir {};

TEST_F(ConfGet, ReturnsTheFirstOfTwoNodes) {
    const loaded_t c("x=1\nport=1\nport=2\n");
    const conf_t* p = conf_get(c.lst, "port");
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(2, p->lineno);
    EXPECT_STREQ("1", p->value);
}
TEST_F(ConfGet, ComparesExactly) {
    const loaded_t c("Port=1\n");
    EXPECT_EQ(nullptr, conf_get(c.lst, "port"));
    EXPECT_EQ(nullptr, conf_get(nullptr, "port"));
}
}  // namespace
