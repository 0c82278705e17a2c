// Files that nobody vouches for: every field of the footer patched, bits flipped, records led astray. Nothing
// may crash, hang, read outside its buffers or take memory beyond a small multiple of the file.
#include <gtest/gtest.h>

#include <limits.h>

#include <functional>

#include "colvane/colvane.h"
#include "fault/wrap.h"
#include "fuzz/exercise.h"
#include "support.h"

namespace {

using namespace support;

const std::string GROUPS = read_file(TESTS_DIR "/golden/groups.cvn");
const std::string PACKED = read_file(TESTS_DIR "/golden/compressed.cvn");
const std::string TYPES = read_file(TESTS_DIR "/golden/types.cvn");
const std::string EMPTY = read_file(TESTS_DIR "/golden/empty.cvn");

class CvnHostile : public ::testing::Test {
 protected:
    // Everything a reader may do with these bytes; the memory it takes is bounded by their number.
    void expect_contained(const std::string& file) {
        write_file(path_, file);
        const int64_t size = static_cast<int64_t>(file.size()), live = wrap::live();
        wrap::reset_peak();
        const char* bad = exercise::scan(path_.c_str(), false);
        EXPECT_EQ(nullptr, bad) << bad;
        EXPECT_LE(wrap::peak() - live, 8 * size + 65536) << "stored pages";
        wrap::reset_peak();
        bad = exercise::scan(path_.c_str(), true);
        EXPECT_EQ(nullptr, bad) << bad;
        EXPECT_LE(wrap::peak() - live, 256 * (4 * size + 65536) + 65536) << "decompressed pages";
        wrap::reset_peak();
        bad = exercise::split(path_.c_str(), out_.c_str());
        EXPECT_EQ(nullptr, bad) << bad;
        EXPECT_EQ(live, wrap::live()) << "leaked";
        std::error_code ignored;
        fs::remove_all(out_, ignored);
    }
    int open_code(const std::string& file) {
        write_file(path_, file);
        cvn_scan_t* sc = nullptr;
        const int code = cvn_scan_open(&sc, path_.c_str());
        if (code == 0) cvn_scan_close(sc);
        return code;
    }

    const temp_dir_t dir_{fast_root()};
    const std::string path_ = dir_ / "t.cvn";
    const std::string out_ = dir_ / "out";
};

struct field_t {
    size_t at;
    int size;
};

// All integer fields of footer and trailer.
std::vector<field_t> fields_of(const std::string& file) {
    const layout_t at(file);
    const int64_t ngroup = load<int64_t>(file, at.foot + 16);
    std::vector<field_t> f = {{file.size() - 16, 8}, {file.size() - 8, 4}, {file.size() - 4, 4}};
    for (const size_t o : {0, 4, 24, 28}) f.push_back({at.foot + o, 4});
    for (const size_t o : {8, 16, 32}) f.push_back({at.foot + o, 8});
    for (int c = 0; c < at.ncol; c++) {
        for (const size_t o : {0, 124, 128, 132}) f.push_back({at.coldef(c) + o, 4});
        f.push_back({at.colstat(c), 8});
        for (const size_t o : {8, 12, 16, 64}) f.push_back({at.colstat(c) + o, 4});
    }
    for (int g = 0; g < ngroup; g++) {
        for (const size_t o : {0, 4, 8, 12}) f.push_back({at.group(g) + o, 4});
        for (int c = 0; c < at.ncol; c++) {
            f.push_back({at.meta(g, c), 8});
            for (const size_t o : {8, 12, 16, 20, 24, 28, 32, 36, 48, 96})
                f.push_back({at.meta(g, c) + o, 4});
        }
    }
    return f;
}

void sweep(const std::string& file, const std::function<void(const std::string&)>& check) {
    for (const field_t& f : fields_of(file)) {
        const int64_t old = f.size == 8 ? load<int64_t>(file, f.at) : load<int32_t>(file, f.at);
        for (const int64_t v : {int64_t{0}, int64_t{1}, int64_t{-1}, old + 1, old - 1, old * 2, -old,
                                int64_t{INT32_MAX}, int64_t{INT32_MIN}, int64_t{1} << 24, INT64_MAX,
                                INT64_MIN, INT64_MAX / 144, int64_t{1} << 32}) {
            if (f.size == 4 && (v > INT32_MAX || v < INT32_MIN)) continue;
            std::string bytes = file;
            if (f.size == 8) {
                patch(bytes, f.at, v);
            } else {
                patch(bytes, f.at, static_cast<int32_t>(v));
            }
            SCOPED_TRACE(testing::Message()
                         << "field at " << f.at << " of " << file.size() << ", value " << v);
            check(bytes);
            if (testing::Test::HasFailure()) return;
        }
    }
}

TEST_F(CvnHostile, ContainsEveryPatchedFieldOfSmallRowGroups) {
    sweep(GROUPS, [&](const std::string& file) { expect_contained(file); });
}

TEST_F(CvnHostile, ContainsEveryPatchedFieldOfCompressedChunks) {
    sweep(PACKED, [&](const std::string& file) { expect_contained(file); });
}

TEST_F(CvnHostile, ContainsEveryPatchedFieldOfAFileWithoutRows) {
    sweep(EMPTY, [&](const std::string& file) { expect_contained(file); });
}

TEST_F(CvnHostile, ContainsPatchedTypesAndBoundsOfAllTypes) {
    const layout_t at(TYPES);
    for (int c = 0; c < at.ncol; c++) {
        for (const int32_t typ : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x10000, -1}) {
            std::string file = TYPES;
            patch(file, at.coldef(c) + 128, typ);
            patch(file, at.colstat(c) + 8, int8_t{1});
            patch(file, at.meta(0, c) + 15, int8_t{1});
            memset(file.data() + at.colstat(c) + 16, 0xee, 96);
            memset(file.data() + at.meta(0, c) + 48, 0xee, 96);
            expect_contained(file);
        }
    }
}

TEST_F(CvnHostile, ContainsEveryTruncation) {
    for (const std::string& file : {GROUPS, EMPTY}) {
        for (size_t n = 0; n < file.size(); n++) expect_contained(file.substr(0, n));
        for (size_t n = 1; n < file.size(); n += 7) expect_contained(file.substr(n));
    }
}

TEST_F(CvnHostile, ContainsRandomBitFlips) {
    std::mt19937_64 rng(2026);
    for (int i = 0; i < 3000; i++) {
        const std::string* source[4] = {&GROUPS, &PACKED, &TYPES, &EMPTY};
        std::string file = *source[i % 4];
        const layout_t at(file);
        for (uint64_t k = 1 + rng() % 6; k > 0; --k) {
            // Mostly in the footer, where it hurts.
            const size_t from = rng() % 4 ? at.foot : 0;
            const size_t where = from + rng() % (file.size() - from);
            file[where] = static_cast<char>(file[where] ^ (1 << rng() % 8));
        }
        SCOPED_TRACE(i);
        expect_contained(file);
        if (HasFailure()) return;
    }
}

TEST_F(CvnHostile, ContainsFootersMadeOfRandomWords) {
    std::mt19937_64 rng(7);
    static constexpr int32_t WORDS[] = {0, 1, -1, 2, 8, 16, 136, 144, 112, 4096, INT32_MAX, INT32_MIN};
    for (int i = 0; i < 2000; i++) {
        std::string file = GROUPS;
        const layout_t at(file);
        for (uint64_t k = 1 + rng() % 8; k > 0; --k)
            patch(file, at.foot + 4 * (rng() % (at.foot_sz / 4)), WORDS[rng() % std::size(WORDS)]);
        patch(file, at.foot, int32_t{1});
        SCOPED_TRACE(i);
        expect_contained(file);
        if (HasFailure()) return;
    }
}

// One field each, with the code that it must give.

TEST_F(CvnHostile, RefusesColumnCountsThatTheFooterDoesNotBear) {
    const layout_t at(GROUPS);
    for (const int32_t ncol :
         {-1, -2, INT32_MIN, INT32_MIN + 1, 0, 1, 3, 8, 1 << 20, INT32_MAX, 15339168, 29826162}) {
        std::string file = GROUPS;
        patch(file, at.foot + 4, ncol);
        EXPECT_EQ(-7, open_code(file)) << ncol;
    }
}

TEST_F(CvnHostile, RefusesRowGroupCountsThatTheFooterDoesNotBear) {
    const layout_t at(GROUPS);
    for (const int64_t n : {int64_t{-1}, int64_t{-4}, INT64_MIN, INT64_MAX, INT64_MAX / 304, int64_t{1} << 60,
                            (int64_t{1} << 32) + 4, (int64_t{1} << 60) + 4, int64_t{5}, int64_t{3}}) {
        std::string file = GROUPS;
        patch(file, at.foot + 16, n);
        EXPECT_EQ(-7, open_code(file)) << n;
    }
}

// Without rows only the definitions can run out of the footer: it holds statistics for four columns, but
// definitions for three.
TEST_F(CvnHostile, RefusesColumnDefinitionsThatRunOutOfTheFooter) {
    const layout_t at(EMPTY);
    ASSERT_EQ(2, at.ncol);
    ASSERT_EQ(0, load<int64_t>(EMPTY, at.foot + 16));
    for (const auto& [ncol, code] : {std::pair{2, 0}, {3, 0}, {4, -7}}) {
        std::string file = EMPTY;
        patch(file, at.foot + 4, int32_t{ncol});
        patch(file, at.foot + 24, int32_t{0});
        patch(file, at.foot + 28, int32_t{248 * 2});
        EXPECT_EQ(code, open_code(file)) << ncol;
        expect_contained(file);
    }
}

TEST_F(CvnHostile, RefusesSizesThatOnlyCompensateEachOther) {
    // The sums match, but the statistics would begin before the footer or end after it.
    const layout_t at(GROUPS);
    struct row_t {
        int32_t coldefsz, colstatsz;
        int code;
    };
    const int32_t both = 136 * 2 + 112 * 2;
    for (const row_t& r :
         {row_t{-41, both + 41, -7}, row_t{-100000, both + 100000, -7}, row_t{INT32_MIN, INT32_MAX, -7},
          row_t{both + 1300, -1300, -7}, row_t{INT32_MAX, INT32_MIN, -7}, row_t{both + 100000, -100000, -7},
          // These stay inside, odd as they are, and are taken literally.
          row_t{-40, both + 40, 0}, row_t{-1, both + 1, 0}, row_t{0, both, 0}, row_t{both, 0, 0},
          row_t{both + 100, -100, 0}, row_t{both + 992, -992, 0}}) {
        std::string file = GROUPS;
        patch(file, at.foot + 24, r.coldefsz);
        patch(file, at.foot + 28, r.colstatsz);
        EXPECT_EQ(r.code, open_code(file)) << r.coldefsz;
        expect_contained(file);
    }
}

TEST_F(CvnHostile, FindsNoColumnWhoseNameHasNoNul) {
    std::string file = GROUPS;
    const layout_t at(file);
    memset(file.data() + at.coldef(0), 'n', 128);
    write_file(path_, file);
    {
        const scan_t sc(path_);
        ASSERT_EQ(0, sc.code);
        for (const size_t len : {1, 127, 128, 129, 131, 200})
            EXPECT_EQ(-6, cvn_scan_add_required(sc, std::string(len, 'n').c_str())) << len;
        EXPECT_EQ(0, cvn_scan_add_required(sc, "t"));
    }
    EXPECT_EQ(-6, cvnx_split(out_.c_str(), path_.c_str()));
    EXPECT_TRUE(names_in(out_).empty());
    expect_contained(file);
}

TEST_F(CvnHostile, TakesNoMemoryForAFooterLengthTheFileDoesNotHave) {
    for (const int64_t n : {int64_t{1} << 30, int64_t{INT32_MAX}, int64_t{1} << 40, INT64_MAX}) {
        std::string file = GROUPS;
        patch(file, file.size() - 16, n);
        const int64_t live = wrap::live();
        wrap::reset_peak();
        EXPECT_EQ(-3, open_code(file));
        EXPECT_LE(wrap::peak() - live, 65536);
    }
}

TEST_F(CvnHostile, TakesNoMemoryForPagesTheFileDoesNotHave) {
    const layout_t at(GROUPS);
    for (const size_t field : {16, 20}) {
        std::string file = GROUPS;
        patch(file, at.meta(0, 0) + field, INT32_MAX - 100);
        write_file(path_, file);
        for (const bool uncompress : {false, true}) {
            const scan_t sc(path_);
            ASSERT_EQ(0, cvn_scan_add_required(sc, "n"));
            const int64_t live = wrap::live();
            wrap::reset_peak();
            int n;
            cvn_page_t** page;
            const int want = field == 20 ? -3 : uncompress ? -6 : 0;
            EXPECT_EQ(want, cvn_scan_rowgroup(sc, 0, &n, &page, uncompress));
            EXPECT_LE(wrap::peak() - live, 65536);
        }
    }
}

TEST_F(CvnHostile, TakesBoundedMemoryForPagesThatAllLieOverEachOther) {
    // 2000 columns whose pages are all the same 100 KB would be 200 MB.
    table_t t;
    for (int c = 0; c < 2000; c++) {
        t.column.push_back({std::to_string(c), CVN_TYP_BYTEA});
        t.value.push_back({text("x")});
    }
    std::string body(100000, 'y');
    t.value[0][0] = text(body);
    std::string file = reader::encode(t.column, t.value);
    const layout_t at(file);
    for (int c = 0; c < 2000; c++) {
        patch(file, at.meta(0, c), int64_t{8});
        patch(file, at.meta(0, c) + 16, int32_t{100005});
        patch(file, at.meta(0, c) + 20, int32_t{100005});
    }
    const int64_t live = wrap::live(), size = static_cast<int64_t>(file.size());
    write_file(path_, file);
    {
        const scan_t sc(path_);
        for (const column_t& c : t.column) ASSERT_EQ(0, cvn_scan_add_required(sc, c.name.c_str()));
        wrap::reset_peak();
        int n;
        cvn_page_t** page;
        EXPECT_EQ(-3, cvn_scan_rowgroup(sc, 0, &n, &page, false));
        // A large block is whole huge pages.
        EXPECT_LE(wrap::peak() - live, 8 * size + int64_t{2} * 2097152 + 65536);
    }
    // And a split does not write them all out.
    EXPECT_EQ(0, cvnx_split(out_.c_str(), path_.c_str()));
    uintmax_t written = 0;
    for (const std::string& name : names_in(out_)) written += fs::file_size(out_ + "/" + name);
    EXPECT_LE(written, static_cast<uintmax_t>(5 * size + 200000));
    EXPECT_FALSE(fs::exists(out_ + "/meta.cvnx"));
}

TEST_F(CvnHostile, AddsUpRowGroupsThatClaimEachOthersRecordsInOnePass) {
    // 2000 row groups that each claim all records after them: one by one that would be two million records.
    std::string file = "CVN1IX86", metas;
    const int32_t ngroup = 2000;
    for (int32_t g = 0; g < ngroup; g++) {
        const int64_t room = int64_t{ngroup - g} * 160 - 16;
        metas += le32(0) + le32(1) + le32(static_cast<int32_t>(room / 144)) + le32(0);
        metas += le64(8) + le32(1) + le32(0) + le32(g) + le32(2 * g) + std::string(24, '\0') +
                 std::string(96, '\0');
    }
    std::string name = "n";
    name.resize(128, '\0');
    const std::string foot = le32(1) + le32(1) + le64(ngroup) + le64(ngroup) + le32(136) + le32(112) +
                             le64(0) + name + le32(CVN_TYP_INT32) + le32(0) + std::string(112, '\0') + metas;
    file += foot + le64(static_cast<int64_t>(foot.size())) + le32(0) + "CVN1";
    // The same sums, record by record.
    int64_t want_n = 0, want_z = 0;
    const size_t base = 40 + 136 + 112;
    for (int32_t g = 0; g < ngroup; g++) {
        const size_t at = base + 160 * static_cast<size_t>(g);
        const int32_t ncol = load<int32_t>(foot, at + 8);
        for (int32_t c = 0; c < ncol; c++) {
            want_n += load<int32_t>(foot, at + 16 + 144 * static_cast<size_t>(c) + 16);
            want_z += load<int32_t>(foot, at + 16 + 144 * static_cast<size_t>(c) + 20);
        }
    }
    write_file(path_, file);
    cvn_filestat_t st;
    const int64_t live = wrap::live();
    wrap::reset_peak();
    ASSERT_EQ(0, cvn_filestat(&st, path_.c_str()));
    EXPECT_EQ(want_n, st.nbyte);
    EXPECT_EQ(want_z, st.zbyte);
    EXPECT_LE(wrap::peak() - live, 4 * static_cast<int64_t>(file.size()) + 65536);
}

TEST_F(CvnHostile, RefusesARowGroupThatDecompressesWithoutEnd) {
    const layout_t at(PACKED);
    const int32_t zbyte = load<int32_t>(PACKED, at.meta(0, 0) + 20);
    for (const int32_t nbyte :
         {zbyte * 255, zbyte * 255 + 1, zbyte * 256, INT32_MAX, 0x7E000000, 0x7E000001}) {
        std::string file = PACKED;
        patch(file, at.meta(0, 0) + 16, nbyte);
        write_file(path_, file);
        const scan_t sc(path_);
        ASSERT_EQ(0, cvn_scan_add_required(sc, "plain"));
        int n;
        cvn_page_t** page;
        EXPECT_EQ(-6, cvn_scan_next(sc, &n, &page, true)) << nbyte;
    }
}

// The page decoder by itself.

TEST(CvnLz4Decode, TakesExactlyOneBlockOfExactlyItsSize) {
    // One literal, a match of 3 + 15 + 10 bytes at distance 1, and five last literals.
    const std::string block = "\x1fx\x01\x00\x09\x50zzzzz"s;
    const std::string want = std::string(1 + 28, 'x') + "zzzzz";
    std::string out(want.size(), '\0');
    ASSERT_EQ(0, cvn_lz4_decode(out.data(), static_cast<int32_t>(out.size()), block.data(),
                                static_cast<int32_t>(block.size())));
    EXPECT_EQ(want, out);
    for (int d : {-1, 1}) {
        std::string other(want.size() + 1, '\0');
        EXPECT_EQ(-6, cvn_lz4_decode(other.data(), static_cast<int32_t>(want.size()) + d, block.data(),
                                     static_cast<int32_t>(block.size())));
    }
    const std::string longer = block + "\0"s;
    EXPECT_EQ(-6, cvn_lz4_decode(out.data(), static_cast<int32_t>(out.size()), longer.data(),
                                 static_cast<int32_t>(longer.size())));
    EXPECT_EQ(-6, cvn_lz4_decode(out.data(), static_cast<int32_t>(out.size()), block.data(),
                                 static_cast<int32_t>(block.size()) - 1));
}

TEST(CvnLz4Decode, RefusesSizesThatCannotBe) {
    char out[300] = {};
    const char in[4] = {};
    EXPECT_EQ(-6, cvn_lz4_decode(out, 10, in, 0));
    EXPECT_EQ(-6, cvn_lz4_decode(out, 10, in, -1));
    EXPECT_EQ(-6, cvn_lz4_decode(out, -1, in, 4));
    EXPECT_EQ(-6, cvn_lz4_decode(out, 4, in, 4)) << "no smaller than what comes out";
    EXPECT_EQ(-6, cvn_lz4_decode(out, INT32_MAX, in, 4));
}

TEST(CvnLz4Decode, StaysInsideItsBuffersOnDamagedBlocks) {
    std::mt19937_64 rng(12);
    const layout_t at(PACKED);
    const size_t zbyte = static_cast<size_t>(load<int32_t>(PACKED, at.meta(0, 0) + 20));
    const int32_t nbyte = load<int32_t>(PACKED, at.meta(0, 0) + 16);
    for (int i = 0; i < 20000; i++) {
        // Exact allocations, so that the address sanitizer watches both ends.
        std::vector<char> block(PACKED.begin() + 8, PACKED.begin() + 8 + static_cast<long>(zbyte));
        for (uint64_t k = 1 + rng() % 4; k > 0; --k) block[rng() % zbyte] = static_cast<char>(rng());
        std::vector<char> out(static_cast<size_t>(nbyte));
        const int code = cvn_lz4_decode(out.data(), nbyte, block.data(), static_cast<int32_t>(zbyte));
        ASSERT_TRUE(code == 0 || code == -6) << code;
    }
}

}  // namespace
