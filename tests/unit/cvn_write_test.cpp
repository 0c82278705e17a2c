// The writer: definitions, creation, appending, row-group cuts, compression, statistics, and what is left on
// disk.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <limits.h>

#include <cmath>

#include "support.h"

namespace {

using namespace support;

// A parsed definition string that frees itself.
struct parsed_t {
    explicit parsed_t(const std::string& s) { code = cvn_coldef_parse(&def, &ndef, s.c_str()); }
    parsed_t(const parsed_t&) = delete;
    parsed_t& operator=(const parsed_t&) = delete;
    ~parsed_t() {
        if (code == 0) free(def);
    }
    cvn_coldef_t* def = reinterpret_cast<cvn_coldef_t*>(1);
    int ndef = -77;
    int code;
};

void expect_refused(const std::string& s) {
    const parsed_t p(s);
    EXPECT_EQ(-6, p.code) << s;
    EXPECT_EQ(nullptr, p.def) << s;
    EXPECT_EQ(0, p.ndef) << s;
}

TEST(CvnColdefParse, ReadsTwoColumnsAndTheEagerFlag) {
    const parsed_t p("id int64, name cstr -z");
    ASSERT_EQ(0, p.code);
    ASSERT_EQ(2, p.ndef);
    EXPECT_STREQ("id", p.def[0].name);
    EXPECT_EQ(CVN_TYP_INT64, p.def[0].typ);
    EXPECT_EQ(0, p.def[0].zflag);
    EXPECT_STREQ("name", p.def[1].name);
    EXPECT_EQ(CVN_TYP_CSTR, p.def[1].typ);
    EXPECT_EQ(1, p.def[1].zflag);
    EXPECT_EQ(0, p.def[1].nflag);
}

TEST(CvnColdefParse, SetsBothFlagsAndLetsThemRepeat) {
    const parsed_t p("a int32 -z -n");
    ASSERT_EQ(0, p.code);
    EXPECT_EQ(1, p.def[0].zflag);
    EXPECT_EQ(1, p.def[0].nflag);
    const parsed_t q("a int32 -n -n -z -n");
    ASSERT_EQ(0, q.code);
    EXPECT_EQ(1, q.def[0].zflag);
    EXPECT_EQ(1, q.def[0].nflag);
}

TEST(CvnColdefParse, KnowsAllFourteenTypeNames) {
    for (const int32_t typ : reader::ALL_TYPES) {
        const parsed_t p("c "s + cvn_typ_str(typ));
        ASSERT_EQ(0, p.code) << typ;
        EXPECT_EQ(typ, p.def[0].typ);
    }
}

TEST(CvnColdefParse, RefusesTypeNamesThatOnlyResemble) {
    for (const char* t : {"int", "Int32", "INT32", "int32x", "dat", "unknown", "timestamp", "\"int 32\""})
        expect_refused("a "s + t);
}

TEST(CvnColdefParse, RefusesAnUnknownFlag) {
    expect_refused("a int32 -x");
    expect_refused("a int32 z");
    expect_refused("a int32 -zn");
    expect_refused("a int32 -Z");
}

TEST(CvnColdefParse, RefusesAQuotedTypeThatHoldsASpace) { expect_refused("a \"int32 \""); }

TEST(CvnColdefParse, TakesAQuotedType) {
    const parsed_t p("a \"int32\" \"-z\"");
    ASSERT_EQ(0, p.code);
    EXPECT_EQ(CVN_TYP_INT32, p.def[0].typ);
    EXPECT_EQ(1, p.def[0].zflag);
}

TEST(CvnColdefParse, TakesAQuotedNameWithACommaAndASpace) {
    const parsed_t p("\"last, first\" cstr,b bool");
    ASSERT_EQ(0, p.code);
    ASSERT_EQ(2, p.ndef);
    EXPECT_STREQ("last, first", p.def[0].name);
    EXPECT_STREQ("b", p.def[1].name);
}

TEST(CvnColdefParse, TakesAnEmptyQuotedName) {
    const parsed_t p("\"\" bool");
    ASSERT_EQ(0, p.code);
    EXPECT_STREQ("", p.def[0].name);
    EXPECT_EQ(CVN_TYP_BOOL, p.def[0].typ);
}

TEST(CvnColdefParse, KeepsAQuoteInsideABareWord) {
    const parsed_t p("a\"b int32");
    ASSERT_EQ(0, p.code);
    EXPECT_STREQ("a\"b", p.def[0].name);
    const parsed_t q("x\"y,z\" bool");  // the comma ends the bare word: two words too few before it
    EXPECT_EQ(-6, q.code);
}

TEST(CvnColdefParse, BeginsANewWordRightAfterAClosingQuote) {
    const parsed_t p("\"a\"int32\t,\n\"b\"\"bool\"");
    ASSERT_EQ(0, p.code);
    ASSERT_EQ(2, p.ndef);
    EXPECT_EQ(CVN_TYP_INT32, p.def[0].typ);
    EXPECT_EQ(CVN_TYP_BOOL, p.def[1].typ);
}

TEST(CvnColdefParse, RefusesAQuoteThatStaysOpen) {
    expect_refused("\"a int32");
    expect_refused("a int32, \"");
    expect_refused("a int32 \"-z");
}

TEST(CvnColdefParse, SkipsAllWhiteSpace) {
    const parsed_t p(" \t\n\v\f\r a \t int32\n,\rb\vbool \f");
    ASSERT_EQ(0, p.code);
    ASSERT_EQ(2, p.ndef);
    EXPECT_STREQ("a", p.def[0].name);
    EXPECT_STREQ("b", p.def[1].name);
}

TEST(CvnColdefParse, YieldsNoDefinitionsForTextWithoutWords) {
    for (const char* s : {"", "  \t\n"}) {
        const parsed_t p(s);
        ASSERT_EQ(0, p.code);
        EXPECT_EQ(0, p.ndef);
        EXPECT_NE(nullptr, p.def);
        EXPECT_NE(reinterpret_cast<cvn_coldef_t*>(1), p.def);
    }
}

TEST(CvnColdefParse, RefusesALeadingOrDoubledComma) {
    expect_refused(",a int32");
    expect_refused(",");
    expect_refused("a int32,,b int32");
    expect_refused("a,b int32");
}

TEST(CvnColdefParse, LetsAQuotedCommaPartDefinitions) {
    const parsed_t p("a int32 \",\" b bool");
    ASSERT_EQ(0, p.code);
    ASSERT_EQ(2, p.ndef);
    EXPECT_STREQ("b", p.def[1].name);
    expect_refused("\",\" int32");
}

TEST(CvnColdefParse, LeavesTheLastDefinitionIncomplete) {
    const parsed_t p("a int32,");
    ASSERT_EQ(0, p.code);
    ASSERT_EQ(2, p.ndef);
    EXPECT_STREQ("", p.def[1].name);
    EXPECT_EQ(0, p.def[1].typ);
    const parsed_t q("lonely");
    ASSERT_EQ(0, q.code);
    ASSERT_EQ(1, q.ndef);
    EXPECT_STREQ("lonely", q.def[0].name);
    EXPECT_EQ(0, q.def[0].typ);
}

TEST(CvnColdefParse, DoesNotDetectDuplicateNames) {
    const parsed_t p("a int32, a int32");
    ASSERT_EQ(0, p.code);
    EXPECT_EQ(2, p.ndef);
}

TEST(CvnColdefParse, TakesANameOf127CharactersAndNoLongerOne) {
    const parsed_t p(std::string(127, 'n') + " bool");
    ASSERT_EQ(0, p.code);
    EXPECT_EQ(std::string(127, 'n'), p.def[0].name);
    expect_refused(std::string(128, 'n') + " bool");
    expect_refused("\"" + std::string(5000, 'n') + "\" bool");
}

TEST(CvnColdefParse, ZeroesWhatItDoesNotSet) {
    const parsed_t p("ab bool");
    ASSERT_EQ(0, p.code);
    std::string want = "ab"s + std::string(126, '\0') + le32(CVN_TYP_BOOL) + std::string(4, '\0');
    EXPECT_EQ(want, std::string(reinterpret_cast<const char*>(p.def), sizeof(cvn_coldef_t)));
}

// Creating.

TEST(CvnCreate, FailsWithoutAFileWhereTheFolderIsMissing) {
    const temp_dir_t dir;
    cvn_t* w = reinterpret_cast<cvn_t*>(1);
    errno = 0;
    EXPECT_EQ(-3, cvn_create(&w, (dir / "missing/a.cvn").c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(nullptr, w);
    EXPECT_TRUE(names_in(dir.str()).empty());
}

TEST(CvnCreate, StartsAFileWithItsMagicAndTruncatesWhatWasThere) {
    const temp_dir_t dir;
    const std::string path = dir / "a.cvn";
    write_file(path, std::string(10000, 'x'));
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, path.c_str()));
    EXPECT_EQ(8, w->fp_offset);
    EXPECT_EQ(0, w->ncol);
    EXPECT_EQ(0, w->nrow);
    EXPECT_EQ(0, w->nrowgroup);
    EXPECT_EQ(0, w->drop_file);
    EXPECT_STREQ(path.c_str(), w->fpath);
    fflush(w->fp);
    EXPECT_EQ("CVN1IX86", read_file(path));
    ASSERT_EQ(0, cvn_create_column(w, "a", CVN_TYP_INT32, false, false));
    ASSERT_EQ(0, cvn_close(w));
}

TEST(CvnCreateColumn, RefusesTypesWithoutStorageAndLeavesStreamAndFile) {
    for (const cvn_typ_t typ : {0, 12, 0x10000, -1}) {
        const temp_dir_t dir;
        const std::string path = dir / "a.cvn";
        cvn_t* w = nullptr;
        ASSERT_EQ(0, cvn_create(&w, path.c_str()));
        FILE* fp = w->fp;
        EXPECT_EQ(-5, cvn_create_column(w, "a", typ, false, false)) << typ;
        // The handle is gone; the stream is still open and the file still there.
        EXPECT_EQ(1u, fwrite("!", 1, 1, fp));
        EXPECT_EQ(0, fclose(fp));
        EXPECT_EQ("CVN1IX86!", read_file(path));
    }
}

TEST(CvnCreateColumn, RefusesALongNameAndEndsTheWriter) {
    const temp_dir_t dir;
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, (dir / "a.cvn").c_str()));
    FILE* fp = w->fp;
    ASSERT_EQ(0, cvn_create_column(w, std::string(127, 'n').c_str(), CVN_TYP_BOOL, false, false));
    EXPECT_EQ(1, w->ncol);
    EXPECT_EQ(-6, cvn_create_column(w, std::string(128, 'n').c_str(), CVN_TYP_BOOL, false, false));
    EXPECT_EQ(0, fclose(fp));
    EXPECT_EQ("CVN1IX86", read_file(dir / "a.cvn"));
}

TEST(CvnCreateColumn, RefusesAColumnAfterARow) {
    const temp_dir_t dir;
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, (dir / "a.cvn").c_str()));
    FILE* fp = w->fp;
    ASSERT_EQ(0, cvn_create_column(w, "a", CVN_TYP_BOOL, false, false));
    const cvn_datum_t d{};
    const bool null = true;
    ASSERT_EQ(0, cvn_append(w, 1, &d, &null));
    EXPECT_EQ(-6, cvn_create_column(w, "b", CVN_TYP_BOOL, false, false));
    EXPECT_EQ(0, fclose(fp));
}

TEST(CvnCreateColumn, RecordsDefinitionAndAnEmptyBuffer) {
    const temp_dir_t dir;
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, (dir / "a.cvn").c_str()));
    ASSERT_EQ(0, cvn_create_column(w, "first", CVN_TYP_DATE, true, false));
    ASSERT_EQ(0, cvn_create_column(w, "second", CVN_TYP_CSTR, false, true));
    ASSERT_EQ(2, w->ncol);
    EXPECT_STREQ("first", w->coldef[0].name);
    EXPECT_EQ(CVN_TYP_DATE, w->coldef[0].typ);
    EXPECT_EQ(1, w->coldef[0].zflag);
    EXPECT_EQ(0, w->coldef[0].nflag);
    EXPECT_EQ(0, w->coldef[1].zflag);
    EXPECT_EQ(1, w->coldef[1].nflag);
    EXPECT_EQ(1048576, w->colbuf[1]->bufmax);
    EXPECT_EQ(0, w->colbuf[1]->buftop);
    EXPECT_EQ(-1, w->colbuf[1]->imin);
    EXPECT_EQ(-1, w->colbuf[1]->imax);
    ASSERT_EQ(0, cvn_close(w));
}

TEST(CvnCreateColumn, SeldomMovesTheColumnsSoThatManyDoNotTakeMemoryByTheirSquare) {
    const temp_dir_t dir;
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, (dir / "a.cvn").c_str()));
    int nmoved = 0;
    const cvn_coldef_t* last = nullptr;
    for (int i = 0; i < 300; i++) {
        ASSERT_EQ(0, cvn_create_column(w, ("c" + std::to_string(i)).c_str(), CVN_TYP_INT16, false, false));
        nmoved += w->coldef != last;
        last = w->coldef;
    }
    EXPECT_LE(nmoved, 10);  // 1, 2, 4 ... 512 columns
    for (int i = 0; i < 300; i++) EXPECT_EQ("c" + std::to_string(i), w->coldef[i].name);
    ASSERT_EQ(0, cvn_close(w));
}

// Appending and closing.

class CvnWrite : public ::testing::Test {
 protected:
    // Writes the table and returns the file, decoded by the second reader.
    reader::file_t written(const table_t& t) {
        write_table(path_, t);
        return reader::decode(read_file(path_));
    }
    void create(const std::vector<column_t>& column) {
        ASSERT_EQ(0, cvn_create(&w_, path_.c_str()));
        ASSERT_EQ(0, declare(w_, column));
    }
    const temp_dir_t dir_;
    const std::string path_ = dir_ / "t.cvn";
    cvn_t* w_ = nullptr;
};

TEST_F(CvnWrite, RefusesAWrongValueCountAndThenRemovesTheFile) {
    for (const int n : {0, 1, 3, -1}) {
        create({{"a", CVN_TYP_INT32}, {"b", CVN_TYP_INT32}});
        const cvn_datum_t d[3] = {};
        const bool null[3] = {};
        ASSERT_EQ(0, cvn_append(w_, 2, d, null));
        EXPECT_EQ(-6, cvn_append(w_, n, d, null));
        EXPECT_NE(0, w_->drop_file);
        EXPECT_EQ(1, w_->nrow);
        EXPECT_EQ(-6, cvn_append(w_, 2, d, null)) << "an append after a failure";
        EXPECT_EQ(0, cvn_close(w_));
        EXPECT_FALSE(fs::exists(path_));
    }
}

TEST_F(CvnWrite, RefusesANegativeLengthAndThenRemovesTheFile) {
    create({{"a", CVN_TYP_BYTEA}});
    cvn_datum_t d{};
    d.a.ptr = "x";
    d.a.len = -1;
    const bool null = false;
    EXPECT_EQ(-6, cvn_append(w_, 1, &d, &null));
    EXPECT_NE(0, w_->drop_file);
    EXPECT_EQ(0, cvn_close(w_));
    EXPECT_FALSE(fs::exists(path_));
}

// The columns before the refused value: 24 MiB of text in the first row, 24 MiB in the second, which cuts.
TEST_F(CvnWrite, WritesTheRowGroupThatTheColumnsBeforeANegativeLengthFill) {
    const std::string big((24 << 20) - 1, 'x');
    cvn_datum_t d[4] = {};
    d[0].t = big.c_str();
    d[1].I = 7;
    d[2].a.ptr = "abc";
    d[2].a.len = 3;
    const bool null[4] = {};
    const std::vector<column_t> column = {
        {"a", CVN_TYP_CSTR}, {"n", CVN_TYP_INT64}, {"b", CVN_TYP_BYTEA}, {"m", CVN_TYP_INT64}};
    FILE* fp = fopen(path_.c_str(), "wb");
    ASSERT_NE(nullptr, fp);
    ASSERT_EQ(0, cvn_create_stream(&w_, fp));
    ASSERT_EQ(0, declare(w_, column));
    ASSERT_EQ(0, cvn_append(w_, 4, d, null));
    EXPECT_EQ((24 << 20) + 8 + 7 + 8, w_->rgcur_nbyte);
    d[2].a.len = -1;
    EXPECT_EQ(-6, cvn_append(w_, 4, d, null));
    EXPECT_EQ(1, w_->nrowgroup) << "the text of the refused row did not fit in";
    EXPECT_EQ(8, w_->rgcur_nbyte) << "the number after the cut; the text before it is forgotten";
    EXPECT_EQ(1, w_->nrow);
    EXPECT_NE(0, w_->drop_file);
    const int64_t written = w_->fp_offset;
    EXPECT_EQ(0, cvn_close(w_));
    const std::string file = read_file(path_);
    EXPECT_EQ(static_cast<size_t>(written), file.size());
    d[2].a.len = 3;
    const table_t one{column, {{text(big)}, {i64(7)}, {text("abc")}, {i64(0)}}};
    EXPECT_EQ(reader::encode_stream(one.column, one.value), file);
}

TEST_F(CvnWrite, CountsWhatStandsBeforeANegativeLengthWithoutACut) {
    create({{"n", CVN_TYP_INT64}, {"a", CVN_TYP_BYTEA}, {"b", CVN_TYP_BYTEA}, {"m", CVN_TYP_INT64}});
    cvn_datum_t d[4] = {};
    d[1].a.ptr = "abc";
    d[1].a.len = 3;
    d[2].a.len = INT32_MIN;
    const bool null[4] = {};
    EXPECT_EQ(-6, cvn_append(w_, 4, d, null));
    EXPECT_EQ(8 + 7, w_->rgcur_nbyte);
    EXPECT_EQ(0, w_->nrow);
    EXPECT_EQ(0, w_->colbuf[0]->nrow) << "nothing is copied before all is measured";
    EXPECT_EQ(0, cvn_close(w_));
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(CvnWrite, CountsARowOfNoValuesWithoutColumnsAndStillCannotBeClosedWell) {
    ASSERT_EQ(0, cvn_create(&w_, path_.c_str()));
    EXPECT_EQ(0, cvn_append(w_, 0, nullptr, nullptr));
    EXPECT_EQ(1, w_->nrow);
    EXPECT_EQ(0, w_->drop_file);
    EXPECT_EQ(-6, cvn_close(w_));
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(CvnWrite, RefusesAValueWithoutColumns) {
    for (const int n : {1, -1}) {
        ASSERT_EQ(0, cvn_create(&w_, path_.c_str()));
        const cvn_datum_t d{};
        const bool null = false;
        EXPECT_EQ(-6, cvn_append(w_, n, &d, &null));
        EXPECT_NE(0, w_->drop_file);
        EXPECT_EQ(-6, cvn_append(w_, 0, nullptr, nullptr)) << "an append after a failure";
        EXPECT_EQ(0, w_->nrow);
        EXPECT_EQ(0, cvn_close(w_)) << "marked for dropping";
        EXPECT_FALSE(fs::exists(path_));
    }
}

// Many mebibytes that take one of memory: the same random one again and again. The compressor, which looks
// back 64 KiB, does not find it again.
class repeated_t {
 public:
    explicit repeated_t(size_t nmebibyte) : nmebibyte_(nmebibyte) {
        std::mt19937_64 rng(5);
        const std::string once = random_bytes(rng, MEBIBYTE);
        const int fd = memfd_create("repeated", MFD_CLOEXEC);
        EXPECT_EQ(static_cast<ssize_t>(MEBIBYTE), write(fd, once.data(), MEBIBYTE));
        data_ = static_cast<char*>(
            mmap(nullptr, nmebibyte * MEBIBYTE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        for (size_t i = 0; i < nmebibyte; i++)
            EXPECT_NE(MAP_FAILED,
                      mmap(data_ + i * MEBIBYTE, MEBIBYTE, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0));
        close(fd);
    }
    repeated_t(const repeated_t&) = delete;
    repeated_t& operator=(const repeated_t&) = delete;
    ~repeated_t() { munmap(data_, nmebibyte_ * MEBIBYTE); }
    char* data() const { return data_; }
    static constexpr size_t MEBIBYTE = 1 << 20;

 private:
    size_t nmebibyte_;
    char* data_;
};

// Byte strings of 432 MiB put where a row's values are collected; five of them are beyond 2 GiB by a little,
// and compress by nothing. The buffers are not the pool's, but closing only reads them.
TEST_F(CvnWrite, RefusesARowGroupBeyond2GibibytesBeforeItWritesAChunk) {
    constexpr int NCOL = 5;
    constexpr size_t NMEBIBYTE = 432;
    const repeated_t value(NMEBIBYTE);
    std::vector<column_t> column;
    column.reserve(NCOL);
    for (int c = 0; c < NCOL; c++) column.push_back({"c"s.append(std::to_string(c)), CVN_TYP_BYTEA});
    create(column);
    const cvn_datum_t d[NCOL] = {};
    const bool null[NCOL] = {true, true, true, true, true};
    ASSERT_EQ(0, cvn_append(w_, NCOL, d, null));
    for (int c = 0; c < NCOL; c++) {
        w_->colbuf[c]->buf = value.data();
        w_->colbuf[c]->bufmax = w_->colbuf[c]->buftop = static_cast<int>(NMEBIBYTE * repeated_t::MEBIBYTE);
    }
    EXPECT_EQ(-1, cvn_close(w_));
    EXPECT_EQ(8u, fs::file_size(path_)) << "the head alone";
}

TEST_F(CvnWrite, DoesNotLookAtTheValueOfANull) {
    create({{"a", CVN_TYP_CSTR}, {"b", CVN_TYP_BYTEA}, {"c", CVN_TYP_INT64}, {"d", CVN_TYP_DEC128}});
    cvn_datum_t d[4];
    memset(d, 0xff, sizeof(d));  // wild pointers and a negative length
    const bool null[4] = {true, true, true, true};
    ASSERT_EQ(0, cvn_append(w_, 4, d, null));
    ASSERT_EQ(0, cvn_close(w_));
    const reader::file_t f = reader::decode(read_file(path_));
    for (const values_t& v : f.value) EXPECT_EQ(values_t{null_value()}, v);
}

TEST_F(CvnWrite, RefusesToCloseWithoutColumnsAndRemovesTheFile) {
    ASSERT_EQ(0, cvn_create(&w_, path_.c_str()));
    EXPECT_EQ(-6, cvn_close(w_));
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(CvnWrite, MakesAFileOfZeroRowGroupsOutOfColumnsAlone) {
    for (int ncol = 1; ncol <= 4; ncol++) {
        std::vector<column_t> column;
        column.reserve(static_cast<size_t>(ncol));
        for (int c = 0; c < ncol; c++)
            column.push_back({"c"s.append(std::to_string(c)), reader::ALL_TYPES[c]});
        const reader::file_t f = written({column, std::vector<values_t>(static_cast<size_t>(ncol))});
        EXPECT_EQ(0u, f.group.size());
        EXPECT_EQ(24u + 40 + 248 * static_cast<size_t>(ncol), fs::file_size(path_));
        EXPECT_EQ(column, f.column);
    }
}

TEST_F(CvnWrite, CopiesWhatTheValuesPointAt) {
    create({{"a", CVN_TYP_CSTR}, {"b", CVN_TYP_BYTEA}});
    char text_bytes[] = "before", blob[] = "blob";
    cvn_datum_t d[2] = {};
    d[0].t = text_bytes;
    d[1].a.ptr = blob;
    d[1].a.len = 4;
    const bool null[2] = {};
    ASSERT_EQ(0, cvn_append(w_, 2, d, null));
    memset(text_bytes, 'X', 6);
    memset(blob, 'X', 4);
    ASSERT_EQ(0, cvn_close(w_));
    const reader::file_t f = reader::decode(read_file(path_));
    EXPECT_EQ("before", f.value[0][0].bytes);
    EXPECT_EQ("blob", f.value[1][0].bytes);
}

TEST_F(CvnWrite, StoresEveryTypeAsItsBytes) {
    create({{"b", CVN_TYP_BOOL}, {"s", CVN_TYP_INT16}, {"t", CVN_TYP_CSTR}, {"a", CVN_TYP_BYTEA}});
    cvn_datum_t d[4] = {};
    d[0].b = true;
    d[1].s = -2;
    d[2].t = "hey";
    d[3].a.ptr = "\0\1";
    d[3].a.len = 2;
    const bool null[4] = {}, all_null[4] = {true, true, true, true};
    ASSERT_EQ(0, cvn_append(w_, 4, d, null));
    ASSERT_EQ(0, cvn_append(w_, 4, d, all_null));
    ASSERT_EQ(0, cvn_close(w_));
    const std::string file = read_file(path_);
    EXPECT_EQ("\1\0\x40"s + std::string(5, '\0'), file.substr(8, 8));
    EXPECT_EQ("\xfe\xff\0\0\x40"s + std::string(3, '\0'), file.substr(16, 8));
    EXPECT_EQ("hey\0\0\x40"s + std::string(2, '\0'), file.substr(24, 8));
    EXPECT_EQ("\2\0\0\0\0\1\0\0\0\0\x40"s + std::string(5, '\0'), file.substr(32, 16));
}

TEST_F(CvnWrite, StoresDecimalNullsAsTheDecimalZero) {
    const reader::file_t f =
        written({{{"a", CVN_TYP_DEC64}, {"b", CVN_TYP_DEC128}}, {{null_value()}, {null_value()}}});
    const std::string file = read_file(path_);
    EXPECT_EQ("\0\0\0\0\0\0\x38\x22\x80"s, file.substr(8, 9));
    EXPECT_EQ(std::string(14, '\0') + "\x08\x22\x80"s, file.substr(24, 17));
    EXPECT_FALSE(f.bounds[0].has);
}

TEST_F(CvnWrite, KeepsNoBoundsOfAnAllNullChunk) {
    for (const int32_t typ : reader::ALL_TYPES) {
        const reader::file_t f = written({{{"a", typ}}, {values_t(11, null_value())}});
        EXPECT_FALSE(f.group[0].chunk[0].bounds.has);
        EXPECT_EQ(std::string(48, '\0'), f.group[0].chunk[0].bounds.minval);
        EXPECT_EQ(11, f.group[0].chunk[0].nnull);
        EXPECT_EQ(11, f.nnull[0]);
        EXPECT_FALSE(f.bounds[0].has);
        const std::string file = read_file(path_);
        const size_t map = 8 + static_cast<size_t>(f.group[0].chunk[0].nmapoff);
        EXPECT_EQ("\xff\xe0", file.substr(map, 2));
    }
}

TEST_F(CvnWrite, KeepsNoBoundsOfByteStringsAndOfColumnsFlaggedSo) {
    const reader::file_t f =
        written({{{"a", CVN_TYP_BYTEA}, {"b", CVN_TYP_INT32, false, true}, {"c", CVN_TYP_CSTR, true, true}},
                 {{text("x"), text("y")}, {i32(1), i32(2)}, {text("p"), text("q")}}});
    for (int c = 0; c < 3; c++) {
        EXPECT_FALSE(f.group[0].chunk[static_cast<size_t>(c)].bounds.has);
        EXPECT_FALSE(f.bounds[static_cast<size_t>(c)].has);
    }
}

std::string padded(const std::string& bytes) { return bytes + std::string(48 - bytes.size(), '\0'); }

TEST_F(CvnWrite, CutsTheImageOfALongTextAt40BytesWithoutANul) {
    const std::string lo = std::string(50, 'a'), hi = std::string(39, 'z') + "!" + std::string(10, 'z');
    const reader::file_t f = written({{{"a", CVN_TYP_CSTR}}, {{text(hi), text(lo), text("m")}}});
    EXPECT_EQ(std::string(40, 'a') + std::string(8, '\0'), f.bounds[0].minval);
    EXPECT_EQ(std::string(39, 'z') + "!" + std::string(8, '\0'), f.bounds[0].maxval);
}

TEST_F(CvnWrite, ComparesTextsBeyondTheirImageWithinAChunk) {
    const std::string head(40, 'k');
    const std::string file_bytes = [&] {
        written({{{"a", CVN_TYP_CSTR}}, {{text(head + "b"), text(head + "a"), text(head)}}});
        return read_file(path_);
    }();
    const reader::file_t f = reader::decode(file_bytes);
    EXPECT_EQ(head + std::string(8, '\0'), f.bounds[0].minval);
    EXPECT_EQ(head + std::string(8, '\0'), f.bounds[0].maxval);
}

// Texts are compared by their first eight bytes first; those that are alike there must still be told apart.
TEST_F(CvnWrite, FindsTheBoundsOfTextsThatBeginAlikeInWhateverOrderTheyCome) {
    std::vector<std::string> words = {"12345678", "12345678a", "12345678b", "12345678bb"};
    do {
        const reader::file_t f = written(
            {{{"a", CVN_TYP_CSTR}}, {{text(words[0]), text(words[1]), text(words[2]), text(words[3])}}});
        EXPECT_EQ(padded("12345678"), f.bounds[0].minval) << words[0] << words[1] << words[2];
        EXPECT_EQ(padded("12345678bb"), f.bounds[0].maxval) << words[0] << words[1] << words[2];
    } while (std::next_permutation(words.begin(), words.end()));
}

TEST_F(CvnWrite, OrdersTextsByUnsignedBytes) {
    const reader::file_t f = written({{{"a", CVN_TYP_CSTR}}, {{text("\xc3\xa9"), text("z"), text("")}}});
    EXPECT_EQ(padded(""), f.bounds[0].minval);
    EXPECT_TRUE(f.bounds[0].has);
    EXPECT_EQ(padded("\xc3\xa9"), f.bounds[0].maxval);
}

TEST_F(CvnWrite, KeepsTheFirstOfEqualValues) {
    const reader::file_t f = written({{{"d", CVN_TYP_DEC64}, {"q", CVN_TYP_DEC128}, {"f", CVN_TYP_FLOAT}},
                                      {{dec64("1.00"), dec64("1.0"), dec64("1")},
                                       {dec128("1.0"), dec128("1.00"), dec128("1")},
                                       {f32(-0.0f), f32(0.0f), f32(-0.0f)}}});
    EXPECT_EQ(padded(dec64("1.00").bytes), f.bounds[0].minval);
    EXPECT_EQ(padded(dec64("1.00").bytes), f.bounds[0].maxval);
    EXPECT_EQ(padded(dec128("1.0").bytes), f.bounds[1].minval);
    EXPECT_EQ(padded(image(-0.0f)), f.bounds[2].minval);
    EXPECT_EQ(padded(image(-0.0f)), f.bounds[2].maxval);
}

TEST_F(CvnWrite, LetsANaNThatComesFirstStayAndALaterOneDisplaceNothing) {
    const float nan = std::nanf("");
    const reader::file_t f = written({{{"first", CVN_TYP_FLOAT},
                                       {"later", CVN_TYP_FLOAT},
                                       {"double", CVN_TYP_DOUBLE},
                                       {"dec", CVN_TYP_DEC64}},
                                      {{f32(nan), f32(1), f32(-5)},
                                       {f32(1), f32(nan), f32(-5)},
                                       {f64(std::nan("")), f64(3), f64(4)},
                                       {dec64("NaN"), dec64("3"), dec64("4")}}});
    EXPECT_EQ(padded(image(nan)), f.bounds[0].minval);
    EXPECT_EQ(padded(image(nan)), f.bounds[0].maxval);
    EXPECT_EQ(padded(image(-5.0f)), f.bounds[1].minval);
    EXPECT_EQ(padded(image(1.0f)), f.bounds[1].maxval);
    EXPECT_EQ(padded(image(std::nan(""))), f.bounds[2].minval);
    EXPECT_EQ(padded(dec64("NaN").bytes), f.bounds[3].minval);
    EXPECT_EQ(padded(dec64("NaN").bytes), f.bounds[3].maxval);
}

TEST_F(CvnWrite, OrdersSignedIntegersOfEveryWidth) {
    const reader::file_t f = written({{{"s", CVN_TYP_INT16},
                                       {"i", CVN_TYP_INT32},
                                       {"I", CVN_TYP_INT64},
                                       {"L", CVN_TYP_INT128},
                                       {"b", CVN_TYP_BOOL}},
                                      {{i16(3), i16(-300), i16(200)},
                                       {i32(3), i32(INT32_MIN), i32(INT32_MAX)},
                                       {i64(0), i64(INT64_MIN), i64(INT64_MAX)},
                                       {i128(0), i128(-1), i128(static_cast<cvn_int128_t>(1) << 64)},
                                       {boolean(true), null_value(), boolean(false)}}});
    EXPECT_EQ(padded(le16(-300)), f.bounds[0].minval);
    EXPECT_EQ(padded(le16(200)), f.bounds[0].maxval);
    EXPECT_EQ(padded(le32(INT32_MIN)), f.bounds[1].minval);
    EXPECT_EQ(padded(le64(INT64_MAX)), f.bounds[2].maxval);
    EXPECT_EQ(std::string(16, '\xff') + std::string(32, '\0'), f.bounds[3].minval);
    EXPECT_EQ(padded(le64(0) + le64(1)), f.bounds[3].maxval);
    EXPECT_EQ(padded("\0"s), f.bounds[4].minval);
    EXPECT_EQ(padded("\1"), f.bounds[4].maxval);
}

// Compression.

TEST_F(CvnWrite, StoresAChunkOf4095BytesRawAndOneOf4096Compressed) {
    for (const bool z : {false, true}) {
        const reader::file_t f = written({{{"a", CVN_TYP_CSTR, z}}, {{text(std::string(4093, 'a'))}}});
        EXPECT_EQ(4095, f.group[0].chunk[0].nbyte);
        EXPECT_EQ(4095, f.group[0].chunk[0].zbyte);
        EXPECT_FALSE(f.group[0].chunk[0].zflag);
        const reader::file_t g = written({{{"a", CVN_TYP_CSTR, z}}, {{text(std::string(4094, 'a'))}}});
        EXPECT_EQ(4096, g.group[0].chunk[0].nbyte);
        EXPECT_LT(g.group[0].chunk[0].zbyte, 100);
        EXPECT_TRUE(g.group[0].chunk[0].zflag);
    }
}

TEST_F(CvnWrite, CompressesZeroBytesWithoutTheFlagAndStoresRandomOnesRawWithIt) {
    std::mt19937_64 rng(3);
    // 3855 rows of two bytes and their bitmap are 8192 bytes.
    values_t zeros(3855, i16(0)), noise;
    for (int i = 0; i < 3855; i++) noise.push_back(i16(static_cast<int16_t>(rng())));
    const reader::file_t f =
        written({{{"zeros", CVN_TYP_INT16}, {"noise", CVN_TYP_INT16, true}}, {zeros, noise}});
    EXPECT_EQ(8192, f.group[0].chunk[0].nbyte);
    EXPECT_LT(f.group[0].chunk[0].zbyte, 200);
    EXPECT_TRUE(f.group[0].chunk[0].zflag);
    EXPECT_EQ(8192, f.group[0].chunk[1].zbyte);
    EXPECT_FALSE(f.group[0].chunk[1].zflag);
}

TEST_F(CvnWrite, CompressesForAFifthWithTheFlagAndOnlyForHalfWithoutIt) {
    std::mt19937_64 rng(4);
    const auto mixed = [&](size_t noise) {
        return text(random_bytes(rng, noise) + std::string(100000 - noise, '\0'));
    };
    const value_t third_saved = mixed(67000), tenth_saved = mixed(90000), most_saved = mixed(30000);
    const reader::file_t f = written({{{"z third", CVN_TYP_BYTEA, true},
                                       {"third", CVN_TYP_BYTEA},
                                       {"z tenth", CVN_TYP_BYTEA, true},
                                       {"most", CVN_TYP_BYTEA}},
                                      {{third_saved}, {third_saved}, {tenth_saved}, {most_saved}}});
    EXPECT_TRUE(f.group[0].chunk[0].zflag);
    EXPECT_FALSE(f.group[0].chunk[1].zflag);
    EXPECT_EQ(f.group[0].chunk[1].nbyte, f.group[0].chunk[1].zbyte);
    EXPECT_FALSE(f.group[0].chunk[2].zflag);
    EXPECT_TRUE(f.group[0].chunk[3].zflag);
}

// Row groups.

std::vector<int> group_rows(const std::string& path) {
    const scan_t sc(path);
    std::vector<int> rows;
    for (int64_t g = 0; cvn_scan_get_rowgroup_size(sc, g) >= 0; g++)
        rows.push_back(static_cast<int>(cvn_scan_get_rowgroup_size(sc, g)));
    return rows;
}

TEST_F(CvnWrite, CutsTwoRowGroupsOutOf1048577Rows) {
    create({{"a", CVN_TYP_INT32}});
    const bool null = false;
    for (int r = 0; r < 1048577; r++) {
        cvn_datum_t d{};
        d.i = r;
        ASSERT_EQ(0, cvn_append(w_, 1, &d, &null));
        if (r == 1048575) {
            EXPECT_EQ(0, w_->nrowgroup) << "a full row group waits for the next row";
        }
    }
    EXPECT_EQ(1, w_->nrowgroup);
    EXPECT_EQ(1048577, w_->nrow);
    EXPECT_EQ(1, w_->colbuf[0]->nrow);
    ASSERT_EQ(0, cvn_close(w_));
    EXPECT_EQ((std::vector<int>{1048576, 1}), group_rows(path_));
}

void append_text_rows(cvn_t* w, const std::string& s, int n) {
    cvn_datum_t d{};
    d.t = s.c_str();
    const bool null = false;
    for (int r = 0; r < n; r++) ASSERT_EQ(0, cvn_append(w, 1, &d, &null));
}

TEST_F(CvnWrite, CutsTextsOfOneMebibyteIntoGroupsOf32And33And33Rows) {
    create({{"a", CVN_TYP_CSTR}});
    append_text_rows(w_, std::string((1 << 20) - 1, 'x'), 100);  // 1 MiB each with the NUL
    ASSERT_EQ(0, cvn_close(w_));
    EXPECT_EQ((std::vector<int>{32, 33, 33, 2}), group_rows(path_));
}

TEST_F(CvnWrite, CutsOnceMoreThan32MebibytesAreReserved) {
    create({{"a", CVN_TYP_CSTR}});
    append_text_rows(w_, std::string(1 << 20, 'x'), 64);  // one byte more each
    ASSERT_EQ(0, cvn_close(w_));
    EXPECT_EQ((std::vector<int>{31, 32, 1}), group_rows(path_));
}

TEST_F(CvnWrite, ForgetsWhatTheOverflowingRowHadReserved) {
    create({{"n", CVN_TYP_INT64}, {"a", CVN_TYP_CSTR}});
    const std::string big((16 << 20) - 9, 'x');  // 16 MiB - 8 with the NUL, so two rows are exactly 32 MiB
    cvn_datum_t d[2] = {};
    d[1].t = big.c_str();
    const bool null[2] = {};
    ASSERT_EQ(0, cvn_append(w_, 2, d, null));
    ASSERT_EQ(0, cvn_append(w_, 2, d, null));
    EXPECT_EQ(33554432, w_->rgcur_nbyte);
    EXPECT_EQ(0, w_->nrowgroup);
    ASSERT_EQ(
        0, cvn_append(w_, 2, d, null));  // its first value overflows and is forgotten, its second is counted
    EXPECT_EQ(1, w_->nrowgroup);
    EXPECT_EQ((16 << 20) - 8, w_->rgcur_nbyte);
    EXPECT_EQ(1, w_->colbuf[0]->nrow);
    EXPECT_EQ(1, w_->colbuf[1]->nrow) << "a row is never cut";
    ASSERT_EQ(0, cvn_close(w_));
    EXPECT_EQ((std::vector<int>{2, 1}), group_rows(path_));
}

TEST_F(CvnWrite, GrowsABufferByAFifthAndKeepsItsContents) {
    create({{"a", CVN_TYP_CSTR}});
    append_text_rows(w_, std::string(99, 'x'), 10485);  // 1,048,500 bytes
    EXPECT_EQ(1048576, w_->colbuf[0]->bufmax);
    append_text_rows(w_, std::string(99, 'x'), 1);
    // (100 + 1048576) * 1.2 = 1258411.2, rounded up to 8
    EXPECT_EQ(1258416, w_->colbuf[0]->bufmax);
    EXPECT_EQ(1048600, w_->colbuf[0]->buftop);
    ASSERT_EQ(0, cvn_close(w_));
    const reader::file_t f = reader::decode(read_file(path_));
    EXPECT_EQ(values_t(10486, text(std::string(99, 'x'))), f.value[0]);
}

TEST_F(CvnWrite, ReplacesAnEmptyBufferByOneOfExactlyTheNeed) {
    create({{"a", CVN_TYP_CSTR}});
    append_text_rows(w_, std::string((2 << 20) + 2, 'x'), 1);  // 2 MiB + 3 with the NUL
    EXPECT_EQ((2 << 20) + 8, w_->colbuf[0]->bufmax);
    ASSERT_EQ(0, cvn_close(w_));
    EXPECT_EQ((2 << 20) + 2u, reader::decode(read_file(path_)).value[0][0].bytes.size());
}

// Values of 20 MiB, each in another column: together the columns' buffers would pass what is kept of them.
TEST_F(CvnWrite, HasMemoryForTheValuesBeforeTheOneThatCutsTheRowGroup) {
    table_t t;
    t.column = {{"a", CVN_TYP_BYTEA}, {"b", CVN_TYP_BYTEA}};
    t.value = {{text(std::string(25 << 20, 'a')), text(std::string(1 << 20, 'c'))},
               {text(std::string(5 << 20, 'b')), text(std::string(5 << 20, 'd'))}};
    write_table(path_, t);
    EXPECT_TRUE(reader::encode(t.column, t.value) == read_file(path_));
    EXPECT_EQ((std::vector<int>{1, 1}), group_rows(path_));
}

TEST_F(CvnWrite, WritesTheSameFileWhereBuffersAreGivenBackBetweenRowGroups) {
    constexpr size_t NCOL = 6;
    table_t t;
    for (size_t c = 0; c < NCOL; c++) t.column.push_back({"c"s.append(std::to_string(c)), CVN_TYP_BYTEA});
    t.value.resize(NCOL);
    for (size_t r = 0; r < 2 * NCOL; r++)
        for (size_t c = 0; c < NCOL; c++)
            t.value[c].push_back(r % NCOL == c ? text(std::string(20 << 20, static_cast<char>('a' + r)))
                                               : null_value());
    write_table(path_, t);
    EXPECT_TRUE(reader::encode(t.column, t.value) == read_file(path_));
    EXPECT_LT(2u, group_rows(path_).size());
}

// Growing in small steps first, whatever the values; the capacity that is told is the one of the growth rule.
TEST_F(CvnWrite, TellsTheWholeCapacityFromTheStartAndKeepsIt) {
    create({{"n", CVN_TYP_INT16}, {"a", CVN_TYP_CSTR}, {"b", CVN_TYP_BYTEA}});
    std::mt19937_64 rng(11);
    for (int i = 0; i < 3000; i++) {
        for (int c = 0; c < 3; c++) ASSERT_EQ(1048576, w_->colbuf[c]->bufmax);
        const std::string s(rng() % 300, 'x');
        cvn_datum_t d[3] = {};
        d[1].t = s.c_str();
        d[2].a.ptr = s.data();
        d[2].a.len = static_cast<int32_t>(s.size());
        const bool null[3] = {i % 5 == 0, i % 7 == 0, i % 3 == 0};
        ASSERT_EQ(0, cvn_append(w_, 3, d, null));
    }
    EXPECT_EQ(6000, w_->colbuf[0]->buftop);
    ASSERT_EQ(0, cvn_close(w_));
    w_ = nullptr;
}

#if !defined(__SANITIZE_ADDRESS__)
// Bytes of memory of this process.
int64_t resident() {
    std::ifstream statm("/proc/self/statm");
    int64_t space = 0, pages = 0;
    statm >> space >> pages;
    return pages * sysconf(_SC_PAGESIZE);
}

TEST_F(CvnWrite, TakesLittleMemoryForColumnsWithFewRows) {
    constexpr int NCOL = 3000;
    std::vector<column_t> column;
    for (int c = 0; c < NCOL; c++) column.push_back({"c"s.append(std::to_string(c)), CVN_TYP_INT64});
    const int64_t before = resident();
    create(column);
    const std::vector<cvn_datum_t> d(NCOL);
    const auto null = std::make_unique<bool[]>(NCOL);
    for (int r = 0; r < 100; r++) ASSERT_EQ(0, cvn_append(w_, NCOL, d.data(), null.get()));
    EXPECT_LT(resident() - before, 80 << 20) << "the bitmaps alone would be 375 MiB";
    for (int c = 0; c < NCOL; c++)
        for (const size_t i : {size_t{0}, size_t{13}, sizeof(colbuf_t::nmap) - 1})
            ASSERT_EQ(0, w_->colbuf[c]->nmap[i]) << "every byte of it is there, and zero";
    ASSERT_EQ(0, cvn_close(w_));
}
#endif

TEST_F(CvnWrite, WritesOnlyChunksToACallersStream) {
    const table_t t = all_types_table(9, 500);
    FILE* fp = fopen(path_.c_str(), "wb");
    ASSERT_NE(nullptr, fp);
    ASSERT_EQ(0, cvn_create_stream(&w_, fp));
    EXPECT_EQ(nullptr, w_->fpath);
    EXPECT_EQ(0, w_->fp_offset);
    ASSERT_EQ(0, declare(w_, t.column));
    ASSERT_EQ(0, append_rows(w_, t));
    ASSERT_EQ(0, cvn_close(w_));
    EXPECT_EQ(reader::encode_stream(t.column, t.value), read_file(path_));
}

TEST_F(CvnWrite, WritesNothingToAStreamWithoutRows) {
    FILE* fp = fopen(path_.c_str(), "wb");
    ASSERT_EQ(0, cvn_create_stream(&w_, fp));
    ASSERT_EQ(0, declare(w_, {{"a", CVN_TYP_INT32}}));
    ASSERT_EQ(0, cvn_close(w_));
    EXPECT_EQ("", read_file(path_));
}

TEST_F(CvnWrite, KeepsTheFileOfAStreamThatIsDropped) {
    FILE* fp = fopen(path_.c_str(), "wb");
    ASSERT_EQ(0, cvn_create_stream(&w_, fp));
    EXPECT_EQ(-6, cvn_close(w_)) << "no columns";
    EXPECT_TRUE(fs::exists(path_)) << "a stream has no path to remove";
}

}  // namespace
