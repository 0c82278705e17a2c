// The public headers as C11, C++17 and C++20 see them: one layout, C linkage, the documented sizes.
#include <gtest/gtest.h>

#include <stddef.h>

#include "support.h"

extern "C" {
int c11_round_trip(const char* path);
size_t c11_sizes(int which);
}
size_t cxx17_sizes(int which);
int extern_c_compares();

namespace {

using namespace support;

TEST(Headers, LetACProgramWriteAndReadAFile) {
    const temp_dir_t dir;
    EXPECT_EQ(0, c11_round_trip((dir / "t.cvn").c_str())) << "the line of headers_c11.c that failed";
}

TEST(Headers, GiveEveryDialectTheSameRecords) {
    const size_t here[] = {sizeof(cvn_datum_t),   sizeof(colstat_t),      sizeof(colmeta_t),
                           sizeof(schema_desc_t), sizeof(cvn_coldef_t),   sizeof(cvn_t),
                           sizeof(cvn_scan_t),    sizeof(cvn_filestat_t), sizeof(lens_t),
                           sizeof(mpool_item_t),  sizeof(cvnx_split_t),   sizeof(colbuf_t),
                           sizeof(cvn_page_t),    sizeof(cvn_trailer_t),  sizeof(cvn_dec_parts_t)};
    for (int i = 0; i < 15; i++) {
        EXPECT_EQ(here[i], c11_sizes(i)) << i;
        EXPECT_EQ(here[i], cxx17_sizes(i)) << i;
    }
}

TEST(Headers, CanBeIncludedInsideALinkageBlock) { EXPECT_EQ(-1, extern_c_compares()); }

TEST(Headers, HaveTheSizesThatFilesAndPagesHave) {
    EXPECT_EQ(48u, sizeof(cvn_datum_t));
    EXPECT_EQ(16u, alignof(cvn_datum_t));
    EXPECT_EQ(40u, sizeof(schema_desc_t));
    EXPECT_EQ(136u, sizeof(cvn_coldef_t));
    EXPECT_EQ(112u, sizeof(colstat_t));
    EXPECT_EQ(144u, sizeof(colmeta_t));
    EXPECT_EQ(16u, offsetof(rowgroup_t, colmeta));
    EXPECT_EQ(40u, offsetof(cvn_page_t, buf));
    EXPECT_EQ(44u, sizeof(cvn_page_t));
    EXPECT_EQ(16u, sizeof(cvn_trailer_t));
    EXPECT_EQ(0u, sizeof(mpool_item_t) % 16);
    EXPECT_EQ(131072u, sizeof(colbuf_t::nmap));
}

TEST(Headers, StateTheMagicBytes) {
    EXPECT_STREQ("CVN1IX86", CVN_HEAD_MAGIC);
    EXPECT_STREQ("CVN1", CVN_TAIL_MAGIC);
    EXPECT_EQ(0x19293949, CVN_PAGE_MAGIC);
    EXPECT_EQ(8, CVN_HEAD_SZ);
    EXPECT_EQ(1, CVN_FORMAT_VERSION);
    EXPECT_EQ(1048576, CVN_MAX_ROWGROUP_NROW);
}

}  // namespace
