// Splitting: the directory's bytes, the scan that reads it, and what an unfinished split leaves.
#include <gtest/gtest.h>

#include "support.h"

namespace {

using namespace support;

class CvnSplit : public ::testing::Test {
 protected:
    int split(const std::string& source) { return cvnx_split(out_.c_str(), source.c_str()); }
    const temp_dir_t dir_;
    const std::string out_ = dir_ / "out";
    const std::string source_ = dir_ / "t.cvn";
};

// meta.cvnx as it must be: head, footer with the new offsets, trailer with the same hash.
std::string expected_meta(const std::string& file) {
    const layout_t at(file);
    const int64_t ngroup = load<int64_t>(file, at.foot + 16);
    std::string meta = file.substr(0, 8) + file.substr(at.foot);
    std::vector<int64_t> offset(static_cast<size_t>(at.ncol), 0);
    for (int g = 0; g < ngroup; g++) {
        for (int c = 0; c < at.ncol; c++) {
            patch(meta, at.meta(g, c) - at.foot + 8, offset[static_cast<size_t>(c)]);
            offset[static_cast<size_t>(c)] += load<int32_t>(file, at.meta(g, c) + 20);
        }
    }
    return meta;
}

TEST_F(CvnSplit, WritesOneFileOfStoredPagesPerColumn) {
    table_t t = all_types_table(77, 3000);
    t.column.push_back({"weight", CVN_TYP_BYTEA});
    t.value.push_back(values_t(3000, text("")));
    t.value.back()[0] = t.value.back()[1000] = t.value.back()[2000] = text(std::string(17 << 20, 'w'));
    write_table(source_, t);
    const std::string file = read_file(source_);
    const layout_t at(file);
    const int64_t ngroup = load<int64_t>(file, at.foot + 16);
    ASSERT_EQ(2, ngroup);
    ASSERT_EQ(0, split(source_));
    EXPECT_EQ(16u, names_in(out_).size());
    for (int c = 0; c < at.ncol; c++) {
        std::string want;
        for (int g = 0; g < ngroup; g++)
            want += file.substr(static_cast<size_t>(load<int64_t>(file, at.meta(g, c))),
                                static_cast<size_t>(load<int32_t>(file, at.meta(g, c) + 20)));
        EXPECT_TRUE(want == read_file(out_ + "/" + std::to_string(c) + ".cvnx")) << c;
    }
    EXPECT_TRUE(expected_meta(file) == read_file(out_ + "/meta.cvnx"));
    EXPECT_TRUE(t.value == scan_table(out_).value);
}

TEST_F(CvnSplit, GivesTheSamePagesAsTheSource) {
    write_table(source_, all_types_table(78, 5000));
    ASSERT_EQ(0, split(source_));
    for (const bool uncompress : {false, true}) {
        const scan_t a(source_), b(out_ + "/");
        for (const scan_t* sc : {&a, &b})
            for (const char* name : {"dec64", "bool", "cstr", "bytea", "int128"})
                ASSERT_EQ(0, cvn_scan_add_required(*sc, name));
        int na, nb;
        cvn_page_t **pa, **pb;
        int e;
        while ((e = cvn_scan_next(a, &na, &pa, uncompress)) == 0) {
            ASSERT_EQ(0, cvn_scan_next(b, &nb, &pb, uncompress));
            ASSERT_EQ(na, nb);
            for (int k = 0; k < na; k++)
                EXPECT_EQ(0, memcmp(pa[k], pb[k], 40 + static_cast<size_t>(pa[k]->zbyte))) << k;
        }
        EXPECT_EQ(-4, e);
        EXPECT_EQ(-4, cvn_scan_next(b, &nb, &pb, uncompress));
    }
}

TEST_F(CvnSplit, KeepsTheHashOfTheSource) {
    write_table(source_, all_types_table(79, 10));
    ASSERT_EQ(0, split(source_));
    int32_t a = 1, b = 2;
    ASSERT_EQ(0, cvn_get_hash(&a, source_.c_str()));
    ASSERT_EQ(0, cvn_get_hash(&b, out_.c_str()));
    EXPECT_EQ(a, b);
    cvn_filestat_t s, d;
    ASSERT_EQ(0, cvn_filestat(&s, source_.c_str()));
    ASSERT_EQ(0, cvn_filestat(&d, out_.c_str()));
    EXPECT_EQ(s.chksum, d.chksum);
    EXPECT_EQ(s.nbyte, d.nbyte);
    EXPECT_EQ(s.zbyte, d.zbyte);
    EXPECT_EQ(s.nrow, d.nrow);
}

TEST_F(CvnSplit, MakesEmptyColumnFilesOutOfZeroRowGroups) {
    ASSERT_EQ(0, split(TESTS_DIR "/golden/empty.cvn"));
    EXPECT_EQ((std::vector<std::string>{"0.cvnx", "1.cvnx", "meta.cvnx"}), names_in(out_));
    EXPECT_EQ("", read_file(out_ + "/0.cvnx"));
    EXPECT_EQ("", read_file(out_ + "/1.cvnx"));
    EXPECT_EQ(read_file(TESTS_DIR "/golden/empty.cvn"), read_file(out_ + "/meta.cvnx"));
    const scan_t sc(out_);
    ASSERT_EQ(0, sc.code);
    int n;
    cvn_page_t** page;
    EXPECT_EQ(-4, cvn_scan_next(sc, &n, &page, true));
}

TEST_F(CvnSplit, AcceptsAFolderThatExistsAndTruncatesItsFiles) {
    fs::create_directory(out_);
    write_file(out_ + "/0.cvnx", std::string(100000, 'x'));
    write_file(out_ + "/meta.cvnx", "old");
    write_file(out_ + "/other", "kept");
    ASSERT_EQ(0, split(TESTS_DIR "/golden/groups.cvn"));
    EXPECT_EQ(32u, fs::file_size(out_ + "/0.cvnx"));
    EXPECT_EQ("kept", read_file(out_ + "/other"));
    EXPECT_EQ(read_file(TESTS_DIR "/golden/groups.split/meta.cvnx"), read_file(out_ + "/meta.cvnx"));
}

TEST_F(CvnSplit, EndsSilentlyWithoutMetadataOnASourceCutInsideItsPages) {
    std::mt19937_64 rng(1);
    write_table(source_,
                {{{"n", CVN_TYP_INT32}, {"b", CVN_TYP_BYTEA}}, {{i32(7)}, {text(random_bytes(rng, 10000))}}});
    const std::string file = read_file(source_);
    write_file(source_, file.substr(0, 100) + file.substr(layout_t(file).foot));
    EXPECT_EQ(0, split(source_)) << "kept: a page that cannot be read is no failure";
    EXPECT_EQ((std::vector<std::string>{"0.cvnx", "1.cvnx"}), names_in(out_));
    EXPECT_EQ(file.substr(8, 5), read_file(out_ + "/0.cvnx")) << "what could be read";
    EXPECT_EQ("", read_file(out_ + "/1.cvnx"));
}

TEST_F(CvnSplit, EndsSilentlyWithoutMetadataOnAPageBeyondTheEnd) {
    std::string file = read_file(TESTS_DIR "/golden/groups.cvn");
    const layout_t at(file);
    patch(file, at.meta(1, 1), static_cast<int64_t>(file.size()) - 3);
    write_file(source_, file);
    EXPECT_EQ(0, split(source_)) << "kept: a page that cannot be read is no failure";
    EXPECT_EQ((std::vector<std::string>{"0.cvnx", "1.cvnx"}), names_in(out_));
    EXPECT_EQ(13u + 9u, fs::file_size(out_ + "/0.cvnx"));
    EXPECT_EQ(7u, fs::file_size(out_ + "/1.cvnx"));
    cvn_scan_t* sc = nullptr;
    EXPECT_EQ(-3, cvn_scan_open(&sc, out_.c_str())) << "an unfinished split cannot be opened";
}

TEST_F(CvnSplit, EndsSilentlyOnEveryPageThatCannotBeRead) {
    const std::string good = read_file(TESTS_DIR "/golden/groups.cvn");
    const layout_t at(good);
    for (const int64_t off : {int64_t{-1}, INT64_MIN, INT64_MAX, static_cast<int64_t>(good.size())}) {
        std::string file = good;
        patch(file, at.meta(0, 0), off);
        write_file(source_, file);
        EXPECT_EQ(0, split(source_)) << off;
        EXPECT_FALSE(fs::exists(out_ + "/meta.cvnx"));
    }
    for (const int32_t zbyte : {-1, INT32_MIN, INT32_MAX}) {
        std::string file = good;
        patch(file, at.meta(0, 0) + 20, zbyte);
        write_file(source_, file);
        EXPECT_EQ(0, split(source_)) << zbyte;
        EXPECT_FALSE(fs::exists(out_ + "/meta.cvnx"));
    }
}

TEST_F(CvnSplit, PassesTheCodesOfOpeningOn) {
    EXPECT_EQ(-3, split(dir_ / "missing.cvn"));
    EXPECT_TRUE(fs::is_directory(out_)) << "the folder is made first";
    write_file(source_, std::string(100, 'x'));
    EXPECT_EQ(-7, split(source_));
    EXPECT_TRUE(names_in(out_).empty());
}

TEST_F(CvnSplit, RefusesTwoColumnsOfOneName) {
    write_table(source_, {{{"a", CVN_TYP_INT32}, {"a", CVN_TYP_INT32}}, {{i32(1)}, {i32(2)}}});
    EXPECT_EQ(-6, split(source_));
    EXPECT_TRUE(names_in(out_).empty());
}

TEST_F(CvnSplit, FailsWhereTheFolderCannotBe) {
    write_file(dir_ / "file", "x");
    EXPECT_EQ(-3, cvnx_split((dir_ / "file/sub").c_str(), TESTS_DIR "/golden/groups.cvn"));
    // A plain file in the folder's place passes for a folder that exists, so its column files cannot be made.
    EXPECT_EQ(-3, cvnx_split((dir_ / "file").c_str(), TESTS_DIR "/golden/groups.cvn"));
    EXPECT_EQ("x", read_file(dir_ / "file"));
}

TEST_F(CvnSplit, FailsWhereAColumnFileCannotBeMade) {
    fs::create_directories(out_ + "/1.cvnx");
    EXPECT_EQ(-3, split(TESTS_DIR "/golden/groups.cvn"));
    EXPECT_FALSE(fs::exists(out_ + "/meta.cvnx"));
}

TEST_F(CvnSplit, FailsWhereTheMetadataCannotBeMadeOrRenamed) {
    fs::create_directories(out_ + "/meta.cvnx.tmp");
    EXPECT_EQ(-3, split(TESTS_DIR "/golden/groups.cvn"));
    fs::remove(out_ + "/meta.cvnx.tmp");
    fs::create_directories(out_ + "/meta.cvnx/full");
    EXPECT_EQ(-3, split(TESTS_DIR "/golden/groups.cvn"));
    EXPECT_TRUE(fs::is_directory(out_ + "/meta.cvnx"));
}

TEST_F(CvnSplit, LeavesNoTemporaryFile) {
    ASSERT_EQ(0, split(TESTS_DIR "/golden/types.cvn"));
    EXPECT_FALSE(fs::exists(out_ + "/meta.cvnx.tmp"));
    EXPECT_EQ(15u, names_in(out_).size());
}

TEST_F(CvnSplit, ReadsARowGroupBeforeTheScanStarts) {
    const scan_t sc(TESTS_DIR "/golden/groups.split");
    ASSERT_EQ(0, cvn_scan_add_required(sc, "t"));
    int n;
    cvn_page_t** page;
    ASSERT_EQ(0, cvn_scan_rowgroup(sc, 1, &n, &page, true));
    EXPECT_EQ("d\0\0\x40"s, std::string(page[0]->buf, 4));
    EXPECT_EQ(-1, sc->split_fd[0]) << "only the file that is needed is opened";
    EXPECT_GE(sc->split_fd[1], 0);
    ASSERT_EQ(0, cvn_scan_next(sc, &n, &page, true));
    EXPECT_EQ(3, page[0]->nrow);
}

TEST_F(CvnSplit, CannotStartAScanWhoseColumnFileIsMissing) {
    ASSERT_EQ(0, split(TESTS_DIR "/golden/groups.cvn"));
    fs::remove(out_ + "/1.cvnx");
    const scan_t sc(out_);
    ASSERT_EQ(0, sc.code);
    ASSERT_EQ(0, cvn_scan_add_required(sc, "t"));
    int n;
    cvn_page_t** page;
    EXPECT_EQ(-3, cvn_scan_next(sc, &n, &page, false));
    EXPECT_EQ(-3, cvn_scan_rowgroup(sc, 0, &n, &page, false));
    const scan_t other(out_);
    ASSERT_EQ(0, cvn_scan_add_required(other, "n"));
    EXPECT_EQ(0, cvn_scan_next(other, &n, &page, false)) << "the other column does not need it";
}

TEST_F(CvnSplit, CannotReadAPageBeyondItsColumnFile) {
    ASSERT_EQ(0, split(TESTS_DIR "/golden/groups.cvn"));
    fs::resize_file(out_ + "/0.cvnx", 20);
    const scan_t sc(out_);
    ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
    int n;
    cvn_page_t** page;
    EXPECT_EQ(0, cvn_scan_next(sc, &n, &page, false));
    EXPECT_EQ(-3, cvn_scan_next(sc, &n, &page, false));
    EXPECT_EQ(0, n);
}

TEST_F(CvnSplit, LocatesPagesInTheirColumnFiles) {
    ASSERT_EQ(0, split(TESTS_DIR "/golden/groups.cvn"));
    const std::string column = read_file(out_ + "/1.cvnx");
    const scan_t sc(out_);
    int fd = -1;
    colmeta_t meta;
    ASSERT_EQ(0, cvn_scan_locate(sc, 3, 1, &fd, &meta));
    EXPECT_EQ(sc->split_fd[1], fd);
    EXPECT_EQ(-1, sc->split_fd[0]) << "only the file that is needed is opened";
    EXPECT_EQ(column.size(), static_cast<size_t>(meta.file_offset + meta.zbyte)) << "the last page";
    fs::remove(out_ + "/0.cvnx");
    EXPECT_EQ(-3, cvn_scan_locate(sc, 0, 0, &fd, &meta));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, fd);
    fs::resize_file(out_ + "/1.cvnx", column.size() - 1);
    EXPECT_EQ(-3, cvn_scan_locate(sc, 3, 1, &fd, &meta));
    EXPECT_EQ(0, cvn_scan_locate(sc, 2, 1, &fd, &meta));
}

TEST_F(CvnSplit, ReadsThroughTheMetadataWhenTheSourceIsADirectory) {
    // Kept: pages are read at column-file offsets from meta.cvnx itself, so the column files hold its first
    // bytes.
    ASSERT_EQ(0, split(TESTS_DIR "/golden/groups.split"));
    const std::string meta = read_file(TESTS_DIR "/golden/groups.split/meta.cvnx");
    EXPECT_EQ(meta.substr(0, 32), read_file(out_ + "/0.cvnx"));
    EXPECT_EQ(meta.substr(0, 16), read_file(out_ + "/1.cvnx"));
    EXPECT_EQ(meta, read_file(out_ + "/meta.cvnx"));
}

TEST(MkdirP, MakesAllMissingParents) {
    const temp_dir_t dir;
    EXPECT_EQ(0, mkdir_p((dir / "a/b//c/").c_str()));
    EXPECT_TRUE(fs::is_directory(dir / "a/b/c"));
    EXPECT_EQ(0, mkdir_p((dir / "a/b/c").c_str())) << "again";
    struct stat st;
    const mode_t mask = umask(0);
    EXPECT_EQ(0, mkdir_p((dir / "m/n").c_str()));
    umask(mask);
    ASSERT_EQ(0, stat((dir / "m/n").c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 07777);
    ASSERT_EQ(0, stat((dir / "m").c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 07777);
}

TEST(MkdirP, FailsWhereAFileStandsInTheWay) {
    const temp_dir_t dir;
    write_file(dir / "file", "x");
    EXPECT_EQ(-3, mkdir_p((dir / "file/sub").c_str()));
    EXPECT_EQ(0, mkdir_p((dir / "file").c_str())) << "something of that name exists";
}

TEST(MkdirP, IgnoresOneTrailingSlashEvenWhenNothingElseIsThere) {
    for (const char* nothing : {"", "/"}) {
        errno = 0;
        EXPECT_EQ(-3, mkdir_p(nothing)) << nothing;
        EXPECT_EQ(ENOENT, errno);
    }
    EXPECT_EQ(0, mkdir_p("//")) << "the root, which exists";
    const temp_dir_t dir;
    EXPECT_EQ(0, mkdir_p((dir / "a/").c_str()));
    EXPECT_TRUE(fs::is_directory(dir / "a"));
}

}  // namespace
