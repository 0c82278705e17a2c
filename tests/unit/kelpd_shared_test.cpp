#include "server_support.h"

namespace {
TEST(Gl, IsZeroAtTheStart) {
    EXPECT_EQ(nullptr, gl.datadir);
    EXPECT_EQ(nullptr, gl.log.fp);
    EXPECT_EQ(nullptr, gl.conf.lst);
    EXPECT_EQ(0, gl.conf.port);
    EXPECT_EQ(80u, sizeof(gl.log.fname));
}
}  // namespace
