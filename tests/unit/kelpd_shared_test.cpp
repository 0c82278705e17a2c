#include "tests/server_support.h"

namespace {
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
TEST(Gl, IsZeroAtTheStart) {
    EXPECT_EQ(nullptr, gl.datadir);
    EXPECT_EQ(nullptr, gl.log.fp);
    EXPECT_EQ(nullptr, gl.conf.lst);
    EXPECT_EQ(0, gl.conf.port);
    EXPECT_EQ(80u, sizeof(gl.log.fname));
}
}  // namespace
