#include "store/util.h"

#include <malloc.h>

#include "server_support.h"

namespace {
using namespace server_support;

// The joined path of a URL, or its status.
std::string joined(const char* url) {
    tblpath_t* t = reinterpret_cast<tblpath_t*>(1);  // not null, so that the clearing is seen
    if (const char* err = tblpath_parse(&t, url)) {
        EXPECT_EQ(nullptr, t);
        return err;
    }
    char* path = tblpath_join(t);
    tblpath_free(t);
    std::string copy = path;
    free(path);
    return copy;
}
const std::string BADURL = "400 Bad Request - invalid url";
const std::string BADVERSION = "400 Bad Request - invalid version";

TEST(TblpathParse, TheVersionAloneHasNoFields) {
    EXPECT_EQ("base/", joined("/v1"));
    EXPECT_EQ("base/", joined("/v1/"));
}
TEST(TblpathParse, SetsTheFieldsToItsDepth) {
    EXPECT_EQ("base/db", joined("/v1/db"));
    EXPECT_EQ("base/db/sc", joined("/v1/db/sc"));
    EXPECT_EQ("base/db/sc/en", joined("/v1/db/sc/en"));
    EXPECT_EQ("base/db/sc/en/p1.cvn", joined("/v1/db/sc/en/p1.cvn"));
    tblpath_t* t = nullptr;
    ASSERT_EQ(nullptr, tblpath_parse(&t, "/v1/a/b"));
    EXPECT_STREQ("a", t->database);
    EXPECT_STREQ("b", t->schema);
    EXPECT_EQ(nullptr, t->entity);
    EXPECT_EQ(nullptr, t->partition);
    tblpath_free(t);
}
TEST(TblpathParse, AcceptsATrailingSlashDownToTheEntity) {
    EXPECT_EQ("base/db", joined("/v1/db/"));
    EXPECT_EQ("base/db/sc/en", joined("/v1/db/sc/en/"));
    EXPECT_EQ(BADURL, joined("/v1/db/sc/en/p/"));
}
TEST(TblpathParse, RefusesAnythingBelowThePartition) { EXPECT_EQ(BADURL, joined("/v1/db/sc/en/p/x")); }
TEST(TblpathParse, RefusesOtherVersions) {
    EXPECT_EQ(BADVERSION, joined("/v2/db"));
    EXPECT_EQ(BADVERSION, joined("/V1"));
    EXPECT_EQ(BADVERSION, joined("/"));
    EXPECT_EQ(BADVERSION, joined(""));
    EXPECT_EQ(BADVERSION, joined("//"));
    EXPECT_EQ(BADVERSION, joined("v1/db"));  // read from its first slash
}
TEST(TblpathParse, RefusesAPathThatDoesNotBeginWithASlash) {
    EXPECT_EQ(BADURL, joined("abc"));
    EXPECT_EQ(BADURL, joined("v1%2Fdb"));
}
TEST(TblpathParse, RefusesEmptyAndHiddenComponents) {
    EXPECT_EQ(BADURL, joined("/v1/.hidden"));
    EXPECT_EQ(BADURL, joined("/v1/db/.."));
    EXPECT_EQ(BADURL, joined("/v1/db/%2e%2e/x"));
    EXPECT_EQ(BADURL, joined("/v1/db/sc/en/.x.cvn"));
    EXPECT_EQ(BADURL, joined("/v1%2F%2Fx"));
    EXPECT_EQ(BADURL, joined("/v1//x"));
    // What stands before the doubled slash passes for a host: "/y" is left.
    EXPECT_EQ(BADVERSION, joined("/v1//x/y"));
}
TEST(TblpathParse, DecodesBeforeItSplits) {
    EXPECT_EQ("base/my db", joined("/v1/my%20db"));
    EXPECT_EQ("base/a/b", joined("/v1/a%2Fb"));
    EXPECT_EQ("base/a", joined("/v1/a%00/../../x"));
    tblpath_t* t = nullptr;
    ASSERT_EQ(nullptr, tblpath_parse(&t, "/v1/a%2Fb"));
    EXPECT_STREQ("a", t->database);
    EXPECT_STREQ("b", t->schema);
    EXPECT_EQ(nullptr, t->entity);
    EXPECT_EQ(nullptr, t->partition);
    tblpath_free(t);
}
TEST(TblpathParse, LeavesQueryAndFragmentOut) {
    EXPECT_EQ("base/db", joined("/v1/db?x=/y/z"));
    EXPECT_EQ("base/db#f", joined("/v1/db#f"));
    EXPECT_EQ("base/db", joined("http://h:1/v1/db?x#f"));
}
TEST(TblpathFree, FreesTheRecordAndTheFieldsThatAreSetAndTakesNull) {
    const auto make_and_free = [](int nfield) {
        tblpath_t* t = static_cast<tblpath_t*>(calloc(1, sizeof(*t)));
        char** const field[4] = {&t->database, &t->schema, &t->entity, &t->partition};
        for (int i = 0; i < nfield; i++) *field[i] = strdup("name");
        tblpath_free(t);
        tblpath_free(nullptr);
    };
    // What the allocator keeps for the next time is there from then on.
    for (int i = 0; i < 100; i++) make_and_free(i % 5);
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 100; i++) make_and_free(i % 5);
    EXPECT_EQ(before, mallinfo2().uordblks);
}

TEST(TextAddf, AppendsAndTerminates) {
    text_t t = {};
    ASSERT_TRUE(text_addf(&t, "%s-%d", "a", 1));
    ASSERT_TRUE(text_addf(&t, "%s", ""));
    EXPECT_STREQ("a-1", t.ptr);
    EXPECT_EQ(3u, t.len);
    text_free(&t);
    EXPECT_EQ(nullptr, t.ptr);
}
TEST(TextAddf, GrowsByDoublingAndToWhatOneCallNeeds) {
    text_t t = {};
    std::string want;
    size_t grown = 0, cap = 0;
    for (int i = 0; i < 20000; i++) {
        want += "item " + std::to_string(i) + ",";
        ASSERT_TRUE(text_addf(&t, "item %d,", i));
        grown += t.cap != cap;
        cap = t.cap;
    }
    EXPECT_EQ(want, t.ptr);
    EXPECT_LT(grown, 20u);
    const std::string big(1 << 20, 'b');
    ASSERT_TRUE(text_addf(&t, "%s", big.c_str()));
    EXPECT_TRUE(want + big == t.ptr);
    text_free(&t);
}
TEST(FileIsCvn, WantsTheSuffixInLowerCase) {
    EXPECT_EQ(1, file_is_cvn("x.cvn"));
    EXPECT_EQ(1, file_is_cvn(".cvn"));
    EXPECT_EQ(0, file_is_cvn("x.CVN"));
    EXPECT_EQ(0, file_is_cvn("x.cvnx"));
    EXPECT_EQ(0, file_is_cvn("cvn"));
    EXPECT_EQ(0, file_is_cvn(""));
    EXPECT_EQ(0, file_is_cvn("x.cvn.mismatch"));
}
TEST(FileIsCvnMismatch, WantsTheWholeSuffix) {
    EXPECT_EQ(1, file_is_cvn_mismatch("x.cvn.mismatch"));
    EXPECT_EQ(1, file_is_cvn_mismatch(".cvn.mismatch"));
    EXPECT_EQ(0, file_is_cvn_mismatch("cvn.mismatch"));
    EXPECT_EQ(0, file_is_cvn_mismatch("x.cvn"));
}
TEST(FileIsSql, WantsTheSuffixInLowerCase) {
    EXPECT_EQ(1, file_is_sql("x.sql"));
    EXPECT_EQ(1, file_is_sql(".sql"));
    EXPECT_EQ(0, file_is_sql("sql"));
    EXPECT_EQ(0, file_is_sql("x.SQL"));
}
}  // namespace
