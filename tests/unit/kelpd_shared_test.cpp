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
TEST(NumberBase, LeavesAllToStrtolButBinaryWhichIsAZero) {
    for (const char* s : {"", "0", "0x1F90", "010", "-0x1", "b1", "x0b1", "00b1", "1 0b1", "0 b1"})
        EXPECT_EQ(0, number_base(s)) << s;
    for (const char* s : {"0b1", "0B1", "0b", "0b2", "-0b1", "+0b11", " \t\n\v\f\r0b1", "  -0B1"}) {
        EXPECT_EQ(8, number_base(s)) << s;
        EXPECT_EQ(0, strtol(s, nullptr, number_base(s))) << s;
    }
}
TEST(Gl, IsZeroAtTheStart) {
    EXPECT_EQ(nullptr, gl.datadir);
    EXPECT_EQ(nullptr, gl.log.fp);
    EXPECT_EQ(nullptr, gl.conf.lst);
    EXPECT_EQ(0, gl.conf.port);
    EXPECT_EQ(80u, sizeof(gl.log.fname));
}
}  // namespace
