// The scanner on good files and on files with one thing wrong: open, columns, fragments, pages, whole-file
// questions.
#include <gtest/gtest.h>

#include <limits.h>

#include "support.h"

namespace {

using namespace support;

// A scan pointer that is not null, so that an untouched result shows.
cvn_scan_t* const UNTOUCHED = reinterpret_cast<cvn_scan_t*>(1);

int open_code(const std::string& path) {
    cvn_scan_t* sc = UNTOUCHED;
    const int code = cvn_scan_open(&sc, path.c_str());
    if (code == 0) {
        cvn_scan_close(sc);
    } else {
        EXPECT_EQ(UNTOUCHED, sc) << "a failed open sets its result";
    }
    return code;
}

size_t open_descriptors() {
    size_t n = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) n += entry.exists() || true;
    return n;
}

class CvnScan : public ::testing::Test {
 protected:
    // groups.cvn: row groups of 3, 2, 1 and 1 rows; columns n int32 and t cstr (without bounds).
    const std::string groups_ = TESTS_DIR "/golden/groups.cvn";
    const std::string bytes_ = read_file(groups_);
    const layout_t at_{bytes_};
    const temp_dir_t dir_;
    const std::string path_ = dir_ / "t.cvn";

    int open_patched(const std::string& file) {
        write_file(path_, file);
        return open_code(path_);
    }
};

// Opening.

TEST_F(CvnScan, CannotOpenWhatIsNotThere) {
    const size_t before = open_descriptors();
    errno = 0;
    EXPECT_EQ(-3, open_code(dir_ / "missing.cvn"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-3, open_code(dir_.str())) << "a folder without meta.cvnx";
    EXPECT_EQ(before, open_descriptors());
}

TEST_F(CvnScan, RefusesAWrongHeadMagic) {
    for (size_t i = 0; i < 8; i++) {
        std::string file = bytes_;
        file[i] = static_cast<char>(file[i] ^ 1);
        EXPECT_EQ(-7, open_patched(file)) << i;
    }
}

TEST_F(CvnScan, RefusesAWrongTailMagic) {
    for (size_t i = 1; i <= 4; i++) {
        std::string file = bytes_;
        file[file.size() - i] = static_cast<char>(file[file.size() - i] ^ 1);
        EXPECT_EQ(-7, open_patched(file)) << i;
    }
}

TEST_F(CvnScan, RefusesATrailerLengthOf0To39AndNegativeOnes) {
    for (int64_t n = 0; n < 40; n++) {
        std::string file = bytes_;
        patch(file, file.size() - 16, n);
        EXPECT_EQ(-7, open_patched(file)) << n;
    }
    for (const int64_t n : {int64_t{-1}, int64_t{-40}, INT64_MIN, int64_t{INT32_MIN}}) {
        std::string file = bytes_;
        patch(file, file.size() - 16, n);
        EXPECT_EQ(-7, open_patched(file)) << n;
    }
}

TEST_F(CvnScan, CannotReadAFooterLongerThanTheFile) {
    const int64_t size = static_cast<int64_t>(bytes_.size());
    for (const int64_t n : {size - 15, size, size * 2, int64_t{INT32_MAX}, int64_t{1} << 32,
                            (int64_t{1} << 32) + 40, INT64_MAX}) {
        std::string file = bytes_;
        patch(file, file.size() - 16, n);
        EXPECT_EQ(-3, open_patched(file)) << n;
    }
}

TEST_F(CvnScan, RefusesAVersionOtherThan1) {
    for (const int32_t v : {0, 2, -1, 256, INT32_MIN}) {
        std::string file = bytes_;
        patch(file, at_.foot, v);
        EXPECT_EQ(-7, open_patched(file)) << v;
    }
}

TEST_F(CvnScan, RefusesRowGroupsThatDoNotEndWhereTheFooterDoes) {
    for (const int64_t n : {0, 1, 3, 5, 1000}) {
        std::string file = bytes_;
        patch(file, at_.foot + 16, n);
        EXPECT_EQ(-7, open_patched(file)) << n;
    }
    for (const int32_t d : {-144, -16, -8, -1, 1, 8, 16, 136, 144}) {
        std::string file = bytes_;
        patch(file, at_.foot + 28, 112 * 2 + d);
        EXPECT_EQ(-7, open_patched(file)) << d;
        patch(file, at_.foot + 28, 112 * 2);
        patch(file, at_.foot + 24, 136 * 2 + d);
        EXPECT_EQ(-7, open_patched(file)) << d;
    }
}

TEST_F(CvnScan, DoesNotConsultRowgroupsz) {
    for (const int64_t n : {int64_t{0}, int64_t{-1}, INT64_MAX}) {
        std::string file = bytes_;
        patch(file, at_.foot + 32, n);
        EXPECT_EQ(0, open_patched(file)) << n;
    }
}

TEST_F(CvnScan, VerifiesNoHashes) {
    std::string file = bytes_;
    patch(file, file.size() - 8, 0x12345678);
    patch(file, at_.meta(0, 0) + 32, 0x5a5a5a5a);
    EXPECT_EQ(0, open_patched(file));
    const scan_t sc(path_);
    EXPECT_EQ(0x12345678, sc->schema_hash);
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    int n;
    cvn_page_t** page;
    ASSERT_EQ(0, cvn_scan_next(sc, &n, &page, true));
    EXPECT_EQ(0x5a5a5a5a, page[0]->hash);
}

TEST_F(CvnScan, TakesAnOddColdefszLiterallyWhenTheSumsMatch) {
    // The statistics move by one byte, and the row groups with them: 1 more and 1 less.
    std::string file = bytes_;
    patch(file, at_.foot + 24, 136 * 2 + 1);
    patch(file, at_.foot + 28, 112 * 2 - 1);
    ASSERT_EQ(0, open_patched(file));
    const scan_t sc(path_);
    colstat_t stat;
    ASSERT_EQ(0, cvn_scan_colstat(sc, 0, &stat));
    EXPECT_EQ(0, memcmp(&stat, file.data() + at_.colstat(0) + 1, sizeof(stat)));
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    int n;
    cvn_page_t** page;
    EXPECT_EQ(0, cvn_scan_next(sc, &n, &page, true)) << "row groups lie where they did";
}

TEST_F(CvnScan, RefusesToOpenEveryTruncation) {
    for (size_t n = 0; n < bytes_.size(); n++) {
        const int code = open_patched(bytes_.substr(0, n));
        // Up to 15 bytes there is no room for head or trailer; later the last bytes are no trailer.
        if (n < 16) {
            EXPECT_EQ(-3, code) << n;
        } else {
            EXPECT_TRUE(code == -7) << n << " " << code;
        }
    }
}

TEST_F(CvnScan, RefusesAFileThatWasNotFinished) {
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, path_.c_str()));
    ASSERT_EQ(0, cvn_create_column(w, "a", CVN_TYP_INT32, false, false));
    fflush(w->fp);
    EXPECT_EQ(-3, open_code(path_)) << "eight bytes";
    write_file(dir_ / "u.cvn", bytes_.substr(0, 64));
    EXPECT_EQ(-7, open_code(dir_ / "u.cvn"));
    ASSERT_EQ(0, cvn_close(w));
}

TEST_F(CvnScan, OpensTheSameFileThroughDoubledAndTrailingSlashes) {
    write_file(path_, bytes_);
    for (const std::string& p : {dir_.str() + "//t.cvn", dir_.str() + "///t.cvn",
                                 "//" + dir_.str() + "//t.cvn", path_ + "/", path_ + "//"}) {
        const scan_t sc(p);
        ASSERT_EQ(0, sc.code) << p;
        EXPECT_EQ(std::string::npos, std::string(sc->fpath).find("//")) << sc->fpath;
        EXPECT_NE('/', std::string(sc->fpath).back());
    }
}

TEST_F(CvnScan, OpensTheMetadataOfAFolder) {
    for (const std::string& p : {TESTS_DIR "/golden/groups.split"s, TESTS_DIR "/golden/groups.split/"s}) {
        const scan_t sc(p);
        ASSERT_EQ(0, sc.code);
        EXPECT_TRUE(sc->split_mode);
        ASSERT_NE(nullptr, sc->split_fd);
        EXPECT_EQ(-1, sc->split_fd[0]);
        EXPECT_EQ(-1, sc->split_fd[1]);
        EXPECT_EQ(static_cast<int>(strlen(sc->fpath)) + 30, sc->split_pathsz);
    }
}

TEST_F(CvnScan, HandsOutTheFootersRecords) {
    const scan_t sc(groups_);
    ASSERT_EQ(0, sc.code);
    EXPECT_EQ(static_cast<int64_t>(at_.foot_sz), sc->schema_bufsz);
    EXPECT_EQ(bytes_.substr(at_.foot, at_.foot_sz), std::string(sc->schema_buf, at_.foot_sz));
    int ncol = 0;
    EXPECT_EQ(0, cvn_scan_get_ncol(sc, &ncol));
    EXPECT_EQ(2, ncol);
    const cvn_coldef_t* def = nullptr;
    ncol = 0;
    EXPECT_EQ(0, cvn_scan_coldef(&ncol, &def, sc));
    EXPECT_EQ(2, ncol);
    EXPECT_STREQ("n", def[0].name);
    EXPECT_EQ(CVN_TYP_CSTR, def[1].typ);
    EXPECT_EQ(1, def[1].nflag);
    colstat_t stat;
    ASSERT_EQ(0, cvn_scan_colstat(sc, 0, &stat));
    EXPECT_EQ(2, stat.nnull);
    EXPECT_EQ(-4, stat.minval.i);
    EXPECT_EQ(10, stat.maxval.i);
    colmeta_t meta;
    ASSERT_EQ(0, cvn_scan_colmeta(sc, 3, 1, &meta));
    EXPECT_EQ(1, meta.nrow);
    for (const int c : {-1, 2, INT_MAX}) {
        memset(static_cast<void*>(&stat), 0x55, sizeof(stat));
        EXPECT_EQ(-6, cvn_scan_colstat(sc, c, &stat));
        EXPECT_EQ(std::string(sizeof(stat), '\0'), image(stat));
        memset(static_cast<void*>(&meta), 0x55, sizeof(meta));
        EXPECT_EQ(-6, cvn_scan_colmeta(sc, 0, c, &meta));
        EXPECT_EQ(std::string(sizeof(meta), '\0'), image(meta));
    }
    EXPECT_EQ(-6, cvn_scan_colmeta(sc, 4, 0, &meta));
    EXPECT_EQ(-6, cvn_scan_colmeta(sc, -1, 0, &meta));
}

TEST_F(CvnScan, AlignsTheRecordsOfConsistentFiles) {
    for (size_t ncol = 1; ncol <= 4; ncol++) {
        table_t t;
        for (size_t c = 0; c < ncol; c++) {
            t.column.push_back({"c"s.append(std::to_string(c)), CVN_TYP_INT128});
            t.value.push_back({i128(1), i128(2)});
        }
        write_table(path_, t);
        const scan_t sc(path_);
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(&sc->colstat[0].minval) % 16) << ncol;
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(&sc->rowgroup[0]->colmeta[0].minval) % 16) << ncol;
        EXPECT_TRUE(sc->colstat[0].minval.L == 1);
        EXPECT_TRUE(sc->rowgroup[0]->colmeta[ncol - 1].maxval.L == 2);
    }
}

TEST_F(CvnScan, TellsTheRowsOfARowGroup) {
    const scan_t sc(groups_);
    EXPECT_EQ(3, cvn_scan_get_rowgroup_size(sc, 0));
    EXPECT_EQ(2, cvn_scan_get_rowgroup_size(sc, 1));
    EXPECT_EQ(1, cvn_scan_get_rowgroup_size(sc, 3));
    for (const int64_t rg : {int64_t{-1}, int64_t{4}, INT64_MIN, INT64_MAX, int64_t{1} << 32})
        EXPECT_EQ(-1, cvn_scan_get_rowgroup_size(sc, rg)) << rg;
}

// Required columns.

TEST_F(CvnScan, RefusesAColumnTwiceOrUnknown) {
    const scan_t sc(groups_);
    EXPECT_EQ(0, cvn_scan_add_required(sc, "n"));
    EXPECT_EQ(-6, cvn_scan_add_required(sc, "n"));
    EXPECT_EQ(1, sc->nreqcol);
    for (const char* name : {"", "N", "nn", "n ", "unknown"})
        EXPECT_EQ(-6, cvn_scan_add_required(sc, name)) << name;
    EXPECT_EQ(-6, cvn_scan_add_required(sc, std::string(128, 'n').c_str()));
    EXPECT_EQ(-6, cvn_scan_add_required(sc, std::string(100000, 'n').c_str()));
    EXPECT_EQ(0, cvn_scan_add_required(sc, "t"));
    EXPECT_EQ(2, sc->nreqcol);
}

TEST_F(CvnScan, RefusesAColumnAfterAPredicateOrTheStart) {
    cvn_datum_t d{};
    const scan_t sc(groups_);
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    ASSERT_EQ(0, cvn_scan_add_lens(sc, "n", CVN_OP_GE, 1, &d));
    EXPECT_EQ(-6, cvn_scan_add_required(sc, "t"));
    EXPECT_EQ(-6, cvn_scan_add_required_ex(sc, "t", CVN_TYP_CSTR));
    const scan_t other(groups_);
    int n;
    cvn_page_t** page;
    ASSERT_EQ(0, cvn_scan_next(other, &n, &page, false));
    EXPECT_EQ(-6, cvn_scan_add_required(other, "t"));
}

TEST_F(CvnScan, WantsTheExactTypeWhenOneIsGiven) {
    table_t t{{{"d", CVN_TYP_DATE}, {"i", CVN_TYP_INT32}}, {{}, {}}};
    write_table(path_, t);
    const scan_t sc(path_);
    EXPECT_EQ(-6, cvn_scan_add_required_ex(sc, "d", CVN_TYP_INT32));
    EXPECT_EQ(-6, cvn_scan_add_required_ex(sc, "i", CVN_TYP_DATE));
    EXPECT_EQ(-6, cvn_scan_add_required_ex(sc, "x", CVN_TYP_DATE));
    EXPECT_EQ(0, cvn_scan_add_required_ex(sc, "d", CVN_TYP_DATE));
    EXPECT_EQ(-6, cvn_scan_add_required_ex(sc, "d", CVN_TYP_DATE));
    EXPECT_EQ(0, cvn_scan_add_required_ex(sc, "i", CVN_TYP_INT32));
}

TEST_F(CvnScan, TakesTheFirstOfTwoColumnsOfOneName) {
    write_table(path_, {{{"a", CVN_TYP_INT32}, {"a", CVN_TYP_CSTR}}, {{i32(7)}, {text("x")}}});
    const scan_t sc(path_);
    EXPECT_EQ(-6, cvn_scan_add_required_ex(sc, "a", CVN_TYP_CSTR));
    EXPECT_EQ(0, cvn_scan_add_required(sc, "a"));
    EXPECT_EQ(0, sc->reqcol[0]);
    EXPECT_EQ(-6, cvn_scan_add_required(sc, "a"));
}

TEST_F(CvnScan, ReturnsPagesInTheOrderOfRegistration) {
    const scan_t sc(groups_);
    ASSERT_EQ(0, cvn_scan_add_required(sc, "t"));
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    int n;
    cvn_page_t** page;
    ASSERT_EQ(0, cvn_scan_next(sc, &n, &page, false));
    ASSERT_EQ(2, n);
    EXPECT_EQ(1, page[0]->cno);
    EXPECT_EQ(CVN_TYP_CSTR, page[0]->typ);
    EXPECT_EQ(0, page[1]->cno);
    EXPECT_EQ("a\0b\0c\0\0"s, std::string(page[0]->buf, 7));
}

// Fragments.

std::vector<int64_t> rows_seen(cvn_scan_t* sc) {
    std::vector<int64_t> first;
    int n, e;
    cvn_page_t** page;
    while ((e = cvn_scan_next(sc, &n, &page, true)) == 0) {
        EXPECT_EQ(1, n);
        first.push_back(load<int32_t>({page[0]->buf, 4}, 0));
    }
    EXPECT_EQ(-4, e);
    return first;
}

TEST_F(CvnScan, RefusesBadFragments) {
    const scan_t sc(groups_);
    EXPECT_EQ(-6, cvn_scan_add_fragment(sc, 0, 0));
    EXPECT_EQ(-6, cvn_scan_add_fragment(sc, 3, 3));
    EXPECT_EQ(-6, cvn_scan_add_fragment(sc, 4, 3));
    EXPECT_EQ(-6, cvn_scan_add_fragment(sc, -1, 3));
    EXPECT_EQ(-6, cvn_scan_add_fragment(sc, 0, -1));
    EXPECT_EQ(-6, cvn_scan_add_fragment(sc, -2, -1));
    EXPECT_EQ(0, sc->nfrag);
    EXPECT_EQ(0, cvn_scan_add_fragment(sc, 2, 3));
    EXPECT_EQ(2, sc->fragid);
    EXPECT_EQ(3, sc->nfrag);
}

TEST_F(CvnScan, SeesEveryRowGroupWithoutAFragment) {
    write_file(path_, ten_groups());
    const scan_t sc(path_);
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    EXPECT_EQ((std::vector<int64_t>{0, 100, 200, 300, 400, 500, 600, 700, 800, 900}), rows_seen(sc));
}

TEST_F(CvnScan, SeesRowGroups1And4And7AsFragment1Of3) {
    write_file(path_, ten_groups());
    const scan_t sc(path_);
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    ASSERT_EQ(0, cvn_scan_add_fragment(sc, 1, 3));
    EXPECT_EQ((std::vector<int64_t>{100, 400, 700}), rows_seen(sc));
}

TEST_F(CvnScan, CoversEveryQualifyingRowGroupOnceOverAllFragments) {
    write_file(path_, ten_groups());
    for (int nfrag = 1; nfrag <= 12; nfrag++) {
        std::vector<int64_t> all;
        for (int id = 0; id < nfrag; id++) {
            const scan_t sc(path_);
            ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
            cvn_datum_t d{};
            d.i = 300;
            ASSERT_EQ(0, cvn_scan_add_lens(sc, "n", CVN_OP_GE, 1, &d));
            ASSERT_EQ(0, cvn_scan_add_fragment(sc, id, nfrag));
            for (const int64_t v : rows_seen(sc)) {
                EXPECT_EQ(id, v / 100 % nfrag) << "counted over all row groups, not over qualifying ones";
                all.push_back(v);
            }
        }
        std::sort(all.begin(), all.end());
        EXPECT_EQ((std::vector<int64_t>{300, 400, 500, 600, 700, 800, 900}), all);
    }
}

TEST_F(CvnScan, TakesTheLargestFragmentCount) {
    const scan_t sc(groups_);
    ASSERT_EQ(0, cvn_scan_add_fragment(sc, INT_MAX - 1, INT_MAX));
    int n;
    cvn_page_t** page;
    EXPECT_EQ(-4, cvn_scan_next(sc, &n, &page, false));
}

// Scanning.

TEST_F(CvnScan, CountsRowGroupsWithoutPagesWhenNoColumnIsRequired) {
    const scan_t sc(groups_);
    for (int g = 0; g < 4; g++) {
        int n = -1;
        cvn_page_t** page = nullptr;
        ASSERT_EQ(0, cvn_scan_next(sc, &n, &page, g % 2 == 0));
        EXPECT_EQ(0, n);
    }
    int n = -1;
    cvn_page_t** page = reinterpret_cast<cvn_page_t**>(1);
    EXPECT_EQ(-4, cvn_scan_next(sc, &n, &page, false));
    EXPECT_EQ(-4, cvn_scan_next(sc, &n, &page, false)) << "and ever after";
}

TEST_F(CvnScan, EndsAtOnceOnAFileOfZeroRowGroups) {
    const scan_t sc(TESTS_DIR "/golden/empty.cvn");
    ASSERT_EQ(0, cvn_scan_add_required(sc, "id"));
    int n;
    cvn_page_t** page;
    EXPECT_EQ(-4, cvn_scan_next(sc, &n, &page, true));
    EXPECT_EQ(-4, cvn_scan_next(sc, &n, &page, false));
    EXPECT_EQ(-6, cvn_scan_rowgroup(sc, 0, &n, &page, false));
}

TEST_F(CvnScan, ReturnsStoredPagesByteForByte) {
    const std::string path = TESTS_DIR "/golden/compressed.cvn";
    const std::string file = read_file(path);
    const layout_t at(file);
    const scan_t sc(path);
    for (const char* name : {"plain", "eager", "ramp"}) ASSERT_EQ(0, cvn_scan_add_required(sc, name));
    int n;
    cvn_page_t** page;
    ASSERT_EQ(0, cvn_scan_next(sc, &n, &page, false));
    ASSERT_EQ(3, n);
    for (int c = 0; c < 3; c++) {
        colmeta_t m;
        ASSERT_EQ(0, cvn_scan_colmeta(sc, 0, c, &m));
        const std::string want =
            le32(0x19293949) + le32(c) + le32(c == 2 ? CVN_TYP_INT16 : CVN_TYP_INT32) + le32(2048) + le32(0) +
            le32(m.nmapoff) + le32(m.nbyte) + le32(m.zbyte) + le32(m.hash) + le32(0) +
            file.substr(static_cast<size_t>(m.file_offset), static_cast<size_t>(m.zbyte));
        EXPECT_EQ(want, std::string(reinterpret_cast<const char*>(page[c]), want.size())) << c;
        EXPECT_EQ(c != 2, m.zbyte < m.nbyte);
    }
}

TEST_F(CvnScan, ReturnsDecompressedPagesWithTheStoredHash) {
    const scan_t sc(TESTS_DIR "/golden/compressed.cvn");
    ASSERT_EQ(0, cvn_scan_add_required(sc, "plain"));
    int n;
    cvn_page_t** page;
    ASSERT_EQ(0, cvn_scan_next(sc, &n, &page, true));
    colmeta_t m;
    ASSERT_EQ(0, cvn_scan_colmeta(sc, 0, 0, &m));
    EXPECT_EQ(2048 * 4 + 256, page[0]->nbyte);
    EXPECT_EQ(page[0]->nbyte, page[0]->zbyte);
    EXPECT_EQ(m.hash, page[0]->hash);
    EXPECT_EQ(std::string(2048 * 4 + 256, '\0'), std::string(page[0]->buf, 2048 * 4 + 256));
}

TEST_F(CvnScan, ReadsAnyRowGroupAtAnyTime) {
    const scan_t sc(groups_);
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    int n = -1;
    cvn_page_t** page = nullptr;
    ASSERT_EQ(0, cvn_scan_rowgroup(sc, 2, &n, &page, true));
    EXPECT_EQ(1, n);
    EXPECT_EQ(10, load<int32_t>({page[0]->buf, 4}, 0));
    EXPECT_FALSE(sc->started);
    ASSERT_EQ(0, cvn_scan_next(sc, &n, &page, true));
    EXPECT_EQ(3, page[0]->nrow);
    ASSERT_EQ(0, cvn_scan_rowgroup(sc, 0, &n, &page, true));
    ASSERT_EQ(0, cvn_scan_next(sc, &n, &page, true));
    EXPECT_EQ(2, page[0]->nrow);
    EXPECT_EQ(2, page[0]->nnull);
}

TEST_F(CvnScan, RefusesARowGroupThatIsNotThereAndClearsItsResults) {
    const scan_t sc(groups_);
    for (const int64_t rg : {int64_t{-1}, int64_t{4}, int64_t{1} << 32, INT64_MAX, INT64_MIN}) {
        int n = 77;
        cvn_page_t** page = reinterpret_cast<cvn_page_t**>(1);
        EXPECT_EQ(-6, cvn_scan_rowgroup(sc, rg, &n, &page, true)) << rg;
        EXPECT_EQ(0, n);
        EXPECT_EQ(nullptr, page);
    }
}

// One field of the first chunk of groups.cvn changed; returns the codes without and with decompression.
class CvnPage : public CvnScan {
 protected:
    template <typename T>
    std::pair<int, int> codes(size_t field, T v) {
        std::string file = bytes_;
        patch(file, at_.meta(0, 0) + field, v);
        return codes_of(file);
    }
    std::pair<int, int> codes_of(const std::string& file) {
        write_file(path_, file);
        int code[2] = {99, 99};
        for (int mode = 0; mode < 2; mode++) {
            const scan_t sc(path_);
            EXPECT_EQ(0, sc.code);
            if (sc.code != 0) return {77, 77};
            EXPECT_EQ(0, cvn_scan_add_required(sc, "n"));
            int n = 77;
            cvn_page_t** page = reinterpret_cast<cvn_page_t**>(1);
            code[mode] = cvn_scan_rowgroup(sc, 0, &n, &page, mode == 1);
            if (code[mode] != 0) {
                EXPECT_EQ(0, n);
                EXPECT_EQ(nullptr, page);
            }
        }
        return {code[0], code[1]};
    }
    using codes_t = std::pair<int, int>;
};

TEST_F(CvnPage, IsRefusedWhenItIsNotCompressedButItsSizesDiffer) {
    EXPECT_EQ((codes_t{0, 0}), codes(16, int32_t{13}));
    for (const int32_t nbyte : {0, 1, 12, -1, INT32_MIN})
        EXPECT_EQ((codes_t{0, -1}), codes(16, nbyte)) << nbyte;
}

TEST_F(CvnPage, IsRefusedWhenItDoesNotDecompressToItsSize) {
    for (const int32_t nbyte : {14, 100, 13 * 255, 13 * 255 + 1, 13 * 255 + 255, 1 << 20, INT32_MAX})
        EXPECT_EQ((codes_t{0, -6}), codes(16, nbyte)) << nbyte;
}

TEST_F(CvnPage, CannotBeReadWhenItLiesOutsideTheFile) {
    const int64_t size = static_cast<int64_t>(bytes_.size());
    for (const int64_t off :
         {size - 12, size, size + 1, int64_t{-1}, int64_t{-13}, INT64_MIN, INT64_MAX, INT64_MAX - 13})
        EXPECT_EQ((codes_t{-3, -3}), codes(0, off)) << off;
    EXPECT_EQ((codes_t{0, 0}), codes(0, size - 13));
    for (const int32_t zbyte : {-1, INT32_MIN, INT32_MAX, static_cast<int32_t>(size) - 7})
        EXPECT_EQ((codes_t{-3, -3}), codes(20, zbyte)) << zbyte;
    EXPECT_EQ((codes_t{0, -1}), codes(20, static_cast<int32_t>(size) - 8));
}

// As reading goes: a file's end is no failure for 0 bytes, while a negative position is one for any number.
TEST_F(CvnPage, IsReadableWhereverItLiesWhenNothingOfItIsStored) {
    const int64_t size = static_cast<int64_t>(bytes_.size());
    for (const int64_t off : {int64_t{0}, size, size + 1, int64_t{1} << 40, INT64_MAX}) {
        std::string file = bytes_;
        patch(file, at_.meta(0, 0), off);
        patch(file, at_.meta(0, 0) + 16, int32_t{0});
        patch(file, at_.meta(0, 0) + 20, int32_t{0});
        EXPECT_EQ((codes_t{0, 0}), codes_of(file)) << off;
        patch(file, at_.meta(0, 0) + 16, int32_t{5});
        EXPECT_EQ((codes_t{0, -6}), codes_of(file)) << off << ": nothing decompresses to five bytes";
        patch(file, at_.meta(0, 0) + 16, int32_t{-1});
        EXPECT_EQ((codes_t{0, -1}), codes_of(file)) << off;
    }
    for (const int64_t off : {int64_t{-1}, INT64_MIN}) {
        std::string file = bytes_;
        patch(file, at_.meta(0, 0), off);
        patch(file, at_.meta(0, 0) + 20, int32_t{0});
        EXPECT_EQ((codes_t{-3, -3}), codes_of(file)) << off;
    }
}

TEST_F(CvnPage, IsLocatedWithItsDescriptorAndItsRecord) {
    const scan_t sc(groups_);
    for (int rg = 0; rg < 4; rg++)
        for (int c = 0; c < 2; c++) {
            int fd = -1;
            colmeta_t meta, want;
            ASSERT_EQ(0, cvn_scan_locate(sc, rg, c, &fd, &meta)) << "no column is required";
            ASSERT_EQ(0, cvn_scan_colmeta(sc, rg, c, &want));
            EXPECT_EQ(sc->fd, fd);
            EXPECT_EQ(0, memcmp(&want, &meta, sizeof(meta)));
            EXPECT_EQ(bytes_.substr(static_cast<size_t>(meta.file_offset), static_cast<size_t>(meta.zbyte)),
                      [&] {
                          std::string body(static_cast<size_t>(meta.zbyte), '\0');
                          EXPECT_EQ(meta.zbyte, pread(fd, body.data(), body.size(), meta.file_offset));
                          return body;
                      }());
        }
}

TEST_F(CvnPage, IsNotLocatedWhereThereIsNone) {
    const scan_t sc(groups_);
    const std::pair<int64_t, int> places[] = {{-1, 0}, {4, 0}, {INT64_MAX, 0}, {0, -1}, {0, 2}, {0, INT_MAX}};
    for (const auto& [rg, c] : places) {
        int fd = 77;
        colmeta_t meta;
        memset(static_cast<void*>(&meta), 0x55, sizeof(meta));
        EXPECT_EQ(-6, cvn_scan_locate(sc, rg, c, &fd, &meta)) << rg << " " << c;
        EXPECT_EQ(-1, fd);
        EXPECT_EQ(std::string(sizeof(meta), '\0'), image(meta));
    }
}

TEST_F(CvnPage, IsNotLocatedOutsideItsFile) {
    const int64_t size = static_cast<int64_t>(bytes_.size());
    for (const int64_t off : {size - 12, size, int64_t{-1}, INT64_MIN, INT64_MAX}) {
        std::string file = bytes_;
        patch(file, at_.meta(0, 0), off);
        write_file(path_, file);
        const scan_t sc(path_);
        int fd = 77;
        colmeta_t meta;
        memset(static_cast<void*>(&meta), 0x55, sizeof(meta));
        errno = EIO;
        EXPECT_EQ(-3, cvn_scan_locate(sc, 0, 0, &fd, &meta)) << off;
        EXPECT_EQ(0, errno);
        EXPECT_EQ(-1, fd);
        EXPECT_EQ(std::string(sizeof(meta), '\0'), image(meta));
        EXPECT_EQ(0, cvn_scan_locate(sc, 0, 1, &fd, &meta)) << "its neighbour is whole";
    }
}

TEST(CvnPageInFile, CountsTheLastByteAndNoFurther) {
    colmeta_t m{};
    m.file_offset = 100;
    m.zbyte = 20;
    EXPECT_TRUE(cvn_page_in_file(&m, 120));
    EXPECT_FALSE(cvn_page_in_file(&m, 119));
    EXPECT_FALSE(cvn_page_in_file(&m, 0));
    m.file_offset = INT64_MAX;
    EXPECT_FALSE(cvn_page_in_file(&m, INT64_MAX)) << "the sum does not fit";
    m.file_offset = INT64_MAX - 20;
    EXPECT_TRUE(cvn_page_in_file(&m, INT64_MAX));
    m.file_offset = -1;
    EXPECT_FALSE(cvn_page_in_file(&m, 120));
    m.file_offset = 100;
    m.zbyte = -1;
    EXPECT_FALSE(cvn_page_in_file(&m, 120));
    m.zbyte = 0;
    EXPECT_TRUE(cvn_page_in_file(&m, 0));
}

TEST_F(CvnPage, CannotBeReadFromAFileThatWasCutAfterItWasOpened) {
    write_file(path_, bytes_);
    const scan_t sc(path_);
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    fs::resize_file(path_, 10);
    int n = 77;
    cvn_page_t** page = reinterpret_cast<cvn_page_t**>(1);
    EXPECT_EQ(-3, cvn_scan_next(sc, &n, &page, false));
    EXPECT_EQ(0, n);
    EXPECT_EQ(nullptr, page);
    EXPECT_EQ(0, sc->os_errno);
}

TEST_F(CvnPage, IsRefusedWhenOneStoredByteOfItsBlockIsMissing) {
    const std::string path = TESTS_DIR "/golden/compressed.cvn";
    const std::string good = read_file(path);
    const layout_t at(good);
    const int32_t zbyte = load<int32_t>(good, at.meta(0, 0) + 20),
                  nbyte = load<int32_t>(good, at.meta(0, 0) + 16);
    const auto code = [&](int32_t z, int32_t n) {
        std::string file = good;
        patch(file, at.meta(0, 0) + 20, z);
        patch(file, at.meta(0, 0) + 16, n);
        write_file(path_, file);
        const scan_t sc(path_);
        EXPECT_EQ(0, cvn_scan_add_required(sc, "plain"));
        int npage;
        cvn_page_t** page;
        return cvn_scan_next(sc, &npage, &page, true);
    };
    EXPECT_EQ(0, code(zbyte, nbyte));
    EXPECT_EQ(-6, code(zbyte - 1, nbyte));
    EXPECT_EQ(-6, code(zbyte + 1, nbyte));
    EXPECT_EQ(-6, code(zbyte, nbyte - 1));
    EXPECT_EQ(-6, code(zbyte, nbyte + 1));
    EXPECT_EQ(-6, code(0, nbyte));
    EXPECT_EQ(-6, code(0, 1));
    EXPECT_EQ(0, code(0, 0)) << "an empty page";
}

// Whole-file questions.

TEST_F(CvnScan, SumsTheSizesOfAllChunks) {
    cvn_filestat_t st;
    memset(&st, 0x55, sizeof(st));
    ASSERT_EQ(0, cvn_filestat(&st, groups_.c_str()));
    EXPECT_EQ(2, st.ncol);
    EXPECT_EQ(7, st.nrow);
    EXPECT_EQ(4, st.nrowgroup);
    EXPECT_EQ(load<int32_t>(bytes_, bytes_.size() - 8), st.chksum);
    EXPECT_EQ(32 + 16, st.nbyte);  // the sizes of the split directory's two files
    EXPECT_EQ(32 + 16, st.zbyte);
    ASSERT_EQ(0, cvn_filestat(&st, TESTS_DIR "/golden/compressed.cvn"));
    EXPECT_EQ(2 * (2048 * 4 + 256) + 2048 * 2 + 256, st.nbyte);
    EXPECT_LT(st.zbyte, 4600);
}

TEST_F(CvnScan, SumsARowGroupsOwnColumnCountWhileItStaysInsideTheFooter) {
    const int64_t all = 48;
    const auto stat_with = [&](int g, int32_t ncol, cvn_filestat_t* st) {
        std::string file = bytes_;
        patch(file, at_.group(g) + 8, ncol);
        write_file(path_, file);
        memset(st, 0x55, sizeof(*st));
        return cvn_filestat(st, path_.c_str());
    };
    cvn_filestat_t st;
    ASSERT_EQ(0, stat_with(3, 1, &st));
    EXPECT_EQ(all - load<int32_t>(bytes_, at_.meta(3, 1) + 16), st.nbyte);
    ASSERT_EQ(0, stat_with(3, 0, &st));
    EXPECT_EQ(all - load<int32_t>(bytes_, at_.meta(3, 0) + 16) - load<int32_t>(bytes_, at_.meta(3, 1) + 16),
              st.nbyte);
    ASSERT_EQ(0, stat_with(0, -1, &st));
    EXPECT_EQ(all - load<int32_t>(bytes_, at_.meta(0, 0) + 16) - load<int32_t>(bytes_, at_.meta(0, 1) + 16),
              st.nbyte);
    // Records of 144 bytes run on into the next row group: its head and the first 128 bytes of its first
    // chunk's record.
    ASSERT_EQ(0, stat_with(0, 3, &st));
    EXPECT_EQ(all + load<int32_t>(bytes_, at_.group(1) + 16), st.nbyte);
    EXPECT_EQ(all + load<int32_t>(bytes_, at_.group(1) + 20), st.zbyte);
    // As many as fit: 4 records of 304 bytes, less one head, hold 8 of 144 bytes.
    EXPECT_EQ(0, stat_with(0, 8, &st));
    for (const int32_t ncol : {9, 1000, INT32_MAX}) {
        EXPECT_EQ(-7, stat_with(0, ncol, &st)) << ncol;
        EXPECT_EQ(0x55555555, st.ncol) << "untouched";
    }
    EXPECT_EQ(-7, stat_with(3, 3, &st));
}

TEST_F(CvnScan, PassesTheCodesOfOpeningOnFromFilestat) {
    cvn_filestat_t st;
    memset(&st, 0x55, sizeof(st));
    EXPECT_EQ(-3, cvn_filestat(&st, (dir_ / "missing").c_str()));
    write_file(path_, std::string(100, 'x'));
    EXPECT_EQ(-7, cvn_filestat(&st, path_.c_str()));
    EXPECT_EQ(0x55555555, st.ncol);
}

TEST_F(CvnScan, TellsTheHashWithoutTheFooter) {
    int32_t hash = 7;
    ASSERT_EQ(0, cvn_get_hash(&hash, groups_.c_str()));
    EXPECT_EQ(load<int32_t>(bytes_, bytes_.size() - 8), hash);
    // Only head and tail magic are looked at.
    write_file(path_, "CVN1IX86" + le32(0x0a0b0c0d) + "CVN1");
    ASSERT_EQ(0, cvn_get_hash(&hash, path_.c_str()));
    EXPECT_EQ(0x0a0b0c0d, hash);
    EXPECT_EQ(0, cvn_get_hash(&hash, (dir_.str() + "//t.cvn/").c_str()));
    EXPECT_EQ(0, cvn_get_hash(&hash, TESTS_DIR "/golden/groups.split"));
    EXPECT_EQ(load<int32_t>(bytes_, bytes_.size() - 8), hash);
}

TEST_F(CvnScan, RefusesToTellAHashWithoutTheMagics) {
    int32_t hash = 7;
    EXPECT_EQ(-3, cvn_get_hash(&hash, (dir_ / "missing").c_str()));
    EXPECT_EQ(0, hash);
    EXPECT_EQ(-3, cvn_get_hash(&hash, dir_.str().c_str())) << "a folder without meta.cvnx";
    for (const std::string& file :
         {""s, "CVN1"s, "CVN1IX86"s, "xVN1IX86abcdCVN1"s, "CVN1IX86abcdCVN2"s, "CVN1IX86xxx"s}) {
        write_file(path_, file);
        hash = 7;
        EXPECT_EQ(-7, cvn_get_hash(&hash, path_.c_str())) << file;
        EXPECT_EQ(0, hash) << file;
    }
}

// A folder's path of 4085 characters and "/meta.cvnx" are 4095 characters, one more is too many.
TEST_F(CvnScan, RefusesAFolderWhosePathLeavesNoRoomForTheMetadatasName) {
    const auto path_of = [&](size_t n) {
        std::string path = dir_.str();
        while (path.size() + 2 <= n) path += "/.";
        if (path.size() < n)
            path.replace(path.size() - 2, 2, "/..");  // its parent, which is a folder as well
        return path;
    };
    int32_t hash = 7;
    errno = 0;
    EXPECT_EQ(-3, cvn_get_hash(&hash, path_of(4085).c_str())) << "it fits, and is not there";
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, cvn_get_hash(&hash, path_of(4086).c_str()));
    EXPECT_EQ(0, hash);
}

TEST_F(CvnScan, CannotOpenAHashsPathThatIsTooLong) {
    for (const size_t n : {size_t{4096}, size_t{5000}, size_t{100000}}) {
        int32_t hash = 7;
        errno = 0;
        EXPECT_EQ(-3, cvn_get_hash(&hash, std::string(n, 'x').c_str())) << n;
        EXPECT_EQ(ENAMETOOLONG, errno);
        EXPECT_EQ(0, hash);
    }
}

TEST_F(CvnScan, JudgesTheLengthOfAPathAfterItsSlashesAreNormalised) {
    write_file(path_, bytes_);
    const std::string slashes(10000, '/');
    int32_t hash = 7;
    EXPECT_EQ(0, cvn_get_hash(&hash, (dir_.str() + slashes + "t.cvn" + slashes).c_str()));
    EXPECT_EQ(load<int32_t>(bytes_, bytes_.size() - 8), hash);
    EXPECT_EQ(0, open_code(dir_.str() + slashes + "t.cvn" + slashes));
}

TEST_F(CvnScan, LeavesNoDescriptorBehind) {
    const size_t before = open_descriptors();
    {
        const scan_t sc(TESTS_DIR "/golden/groups.split");
        ASSERT_EQ(0, cvn_scan_add_required(sc, "t"));
        int n;
        cvn_page_t** page;
        ASSERT_EQ(0, cvn_scan_next(sc, &n, &page, false));
        EXPECT_EQ(before + 2, open_descriptors()) << "the metadata and the one column that is required";
    }
    cvn_filestat_t st;
    EXPECT_EQ(0, cvn_filestat(&st, groups_.c_str()));
    std::string file = bytes_;
    patch(file, at_.foot + 16, int64_t{99});
    write_file(path_, file);
    EXPECT_EQ(-7, open_code(path_));
    int32_t hash;
    EXPECT_EQ(0, cvn_get_hash(&hash, groups_.c_str()));
    EXPECT_EQ(before, open_descriptors());
}

// A process whose standard input is closed, as the daemon is, gets 0 for a file that it opens.
TEST_F(CvnScan, ClosesDescriptor0AsWell) {
    const int input = dup(0);
    close(0);
    {
        const scan_t sc(TESTS_DIR "/golden/groups.split");
        EXPECT_EQ(0, sc->fd);
    }
    EXPECT_EQ(-1, fcntl(0, F_GETFD)) << "the metadata";
    ASSERT_EQ(0, open("/dev/null", O_RDONLY));
    {
        const scan_t sc(TESTS_DIR "/golden/groups.split");
        close(0);
        int fd = -1;
        colmeta_t meta;
        EXPECT_EQ(0, cvn_scan_locate(sc, 0, 0, &fd, &meta));
        EXPECT_EQ(0, fd);
    }
    EXPECT_EQ(-1, fcntl(0, F_GETFD)) << "a column's file";
    if (input >= 0) {
        EXPECT_EQ(0, dup2(input, 0));
        close(input);
    }
}

}  // namespace
