// Proving pages readable: the codes are those of reading them, for pages that are read for it and for those
// that are passed over.
#include <gtest/gtest.h>

#include "support.h"

namespace {

using namespace support;

// Pages of 10 rows are read; those of 100,000 rows of 8 bytes are larger than what is.
class CvnProve : public ::testing::TestWithParam<int64_t> {
 protected:
    void SetUp() override {
        cvn_t* w = nullptr;
        ASSERT_EQ(0, cvn_create(&w, path_.c_str()));
        for (const char* name : {"a", "b", "c"})
            ASSERT_EQ(0, cvn_create_column(w, name, CVN_TYP_INT64, false, false));
        cvn_datum_t v[3] = {};
        const bool isnull[3] = {};
        for (int64_t i = 0; i < GetParam(); i++) {
            for (int64_t c = 0; c < 3; c++) v[c].I = i * (c + 1);
            ASSERT_EQ(0, cvn_append(w, 3, v, isnull));
        }
        ASSERT_EQ(0, cvn_close(w));
    }
    // A scan of b and c, in this order.
    static cvn_scan_t* scan_of(const std::string& path) {
        cvn_scan_t* sc = nullptr;
        EXPECT_EQ(0, cvn_scan_open(&sc, path.c_str()));
        EXPECT_EQ(0, cvn_scan_add_required(sc, "b"));
        EXPECT_EQ(0, cvn_scan_add_required(sc, "c"));
        return sc;
    }
    const temp_dir_t dir_;
    const std::string path_ = dir_ / "t.cvn";
};

TEST_P(CvnProve, ProvesThePagesOfAGoodFileAndLeavesNoDescriptorOpen) {
    cvn_scan_t* sc = scan_of(path_);
    const int before = dup(0);
    close(before);
    for (int first = -1; first < 4; first++) EXPECT_EQ(0, cvn_scan_prove(sc, 0, first)) << first;
    const int after = dup(0);
    close(after);
    EXPECT_EQ(before, after);
    int ncol = 0;
    cvn_page_t** page = nullptr;
    EXPECT_EQ(0, cvn_scan_next(sc, &ncol, &page, false)) << "the scan stands where it stood";
    EXPECT_EQ(2, ncol);
    cvn_scan_close(sc);
}
TEST_P(CvnProve, RefusesARowGroupThatIsNotThere) {
    cvn_scan_t* sc = scan_of(path_);
    EXPECT_EQ(-6, cvn_scan_prove(sc, 1, 0));
    EXPECT_EQ(-6, cvn_scan_prove(sc, -1, 1));
    cvn_scan_close(sc);
}
TEST_P(CvnProve, ACutPageIsFoundWhenItIsAmongThoseAskedFor) {
    cvn_scan_t* sc = scan_of(path_);
    colmeta_t b, c;
    ASSERT_EQ(0, cvn_scan_colmeta(sc, 0, 1, &b));
    ASSERT_EQ(0, cvn_scan_colmeta(sc, 0, 2, &c));
    EXPECT_EQ(GetParam() > 10, c.zbyte > 65536);
    ASSERT_EQ(0, truncate(path_.c_str(), c.file_offset + c.zbyte - 1));
    EXPECT_EQ(-3, cvn_scan_prove(sc, 0, 0));
    EXPECT_EQ(-3, cvn_scan_prove(sc, 0, 1));
    EXPECT_EQ(0, cvn_scan_prove(sc, 0, 2)) << "no page at all";
    ASSERT_EQ(0, truncate(path_.c_str(), b.file_offset + b.zbyte - 1));
    EXPECT_EQ(-3, cvn_scan_prove(sc, 0, 0));
    cvn_scan_close(sc);
}
TEST_P(CvnProve, TheColumnsOfASplitDirectoryAreProvedEachInItsFile) {
    ASSERT_EQ(0, cvnx_split((dir_ / "split").c_str(), path_.c_str()));
    cvn_scan_t* sc = scan_of(dir_ / "split");
    EXPECT_EQ(0, cvn_scan_prove(sc, 0, 0)) << "before the scan has opened them";
    colmeta_t c;
    ASSERT_EQ(0, cvn_scan_colmeta(sc, 0, 2, &c));
    ASSERT_EQ(0, truncate((dir_ / "split/2.cvnx").c_str(), c.zbyte - 1));
    EXPECT_EQ(-3, cvn_scan_prove(sc, 0, 0));
    cvn_scan_close(sc);
}
INSTANTIATE_TEST_SUITE_P(Pages, CvnProve, ::testing::Values(10, 100000),
                         [](const auto& rows) { return rows.param == 10 ? "Small" : "Large"; });

}  // namespace
