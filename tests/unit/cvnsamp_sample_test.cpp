// Samples of files: what comes out equals what lies in the files, bit for bit, and what is damaged or does
// not belong together is refused by name with nothing written.
#include "sampler/sample.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <cerrno>
#include <fstream>

#include "sampler/choose.h"
#include "support.h"

namespace {

using namespace support;

class CvnsampSample : public ::testing::Test {
 protected:
    // Samples into a fresh file of the test's directory; the message of a failure is kept, and then the
    // output must be empty. Nothing may stay where the sample was made.
    std::string sample(uint64_t nrow, uint64_t seed, const std::vector<std::string>& files) {
        const std::string out = dir_ / ("out" + std::to_string(++nout_) + ".cvn");
        const std::string tmp = dir_ / ("tmp" + std::to_string(nout_));
        fs::create_directory(tmp);
        const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        EXPECT_GE(fd, 0);
        error_.clear();
        chosen_ = 0;
        try {
            chosen_ = sample_files(fd, nrow, seed, files, tmp, 0);
        } catch (const sample_error& e) {
            error_ = e.what();
        }
        close(fd);
        EXPECT_TRUE(fs::is_empty(tmp));
        if (!error_.empty()) {
            EXPECT_EQ(0u, fs::file_size(out));
        }
        return out;
    }

    std::string refusal(const std::vector<std::string>& files) {
        sample(3, 1, files);
        return error_;
    }

    std::string path(const std::string& name) const { return dir_ / name; }

    // Ids from `first` on beside a text and a NULL or number.
    table_t numbered(int64_t first, size_t nrow) const {
        table_t t;
        t.column = {{"id", CVN_TYP_INT64, false, false},
                    {"note", CVN_TYP_CSTR, true, false},
                    {"qty", CVN_TYP_INT16, false, true}};
        t.value.resize(3);
        for (size_t r = 0; r < nrow; r++) {
            const int64_t id = first + static_cast<int64_t>(r);
            t.value[0].push_back(i64(id));
            t.value[1].push_back(text("row " + std::to_string(id)));
            t.value[2].push_back(id % 3 == 0 ? null_value() : i16(static_cast<int16_t>(id * 7)));
        }
        return t;
    }

    // Texts of 1 MiB, so that a few rows make three row groups.
    std::string write_large_rows() const {
        table_t t;
        t.column = {{"id", CVN_TYP_INT32, false, false}, {"body", CVN_TYP_CSTR, false, false}};
        t.value.resize(2);
        for (int32_t r = 0; r < 70; r++) {
            t.value[0].push_back(i32(r));
            t.value[1].push_back(text(std::string((1 << 20) - 1, static_cast<char>('a' + r % 26))));
        }
        write_table(path("large.cvn"), t);
        return path("large.cvn");
    }

    // Rewrites the first column's first chunk through `change` and gives it the right hash again.
    template <typename F>
    std::string damaged_chunk(const table_t& t, int column, F change) {
        write_table(path("d.cvn"), t);
        std::string file = read_file(path("d.cvn"));
        const layout_t at(file);
        const size_t meta = at.meta(0, column);
        change(file, static_cast<size_t>(load<int64_t>(file, meta)), meta);
        const auto offset = static_cast<size_t>(load<int64_t>(file, meta));
        const auto zbyte = static_cast<size_t>(load<int32_t>(file, meta + 20));
        patch(file, meta + 32, XXH32(file.data() + offset, zbyte, 0));
        write_file(path("d.cvn"), file);
        return refusal({path("d.cvn")});
    }

    temp_dir_t dir_;
    int nout_ = 0;
    std::string error_;
    uint64_t chosen_ = 0;
};

TEST_F(CvnsampSample, KeepsEveryTypeEveryNullAndTheFlagsExactly) {
    const table_t a = all_types_table(1, 700);
    table_t b = all_types_table(1, 0);
    {
        table_t other = all_types_table(2, 300);
        b.value = other.value;
    }
    write_table(path("a.cvn"), a);
    write_table(path("b.cvn"), b);
    const std::string out = sample(1000000, 9, {path("a.cvn"), path("b.cvn")});
    ASSERT_EQ("", error_);
    EXPECT_EQ(1000u, chosen_);
    const table_t s = scan_table(out);
    EXPECT_EQ(a.column, s.column);
    ASSERT_EQ(1000u, s.nrow());
    for (size_t c = 0; c < a.column.size(); c++) {
        values_t all = a.value[c];
        all.insert(all.end(), b.value[c].begin(), b.value[c].end());
        EXPECT_EQ(all, s.value[c]) << a.column[c].name;
    }
    EXPECT_NO_THROW(reader::decode(read_file(out)));
}

TEST_F(CvnsampSample, TakesExactlyTheCountAndWholeRowsInTheirOrder) {
    const table_t all = numbered(0, 1200);
    write_table(path("a.cvn"), numbered(0, 700));
    write_table(path("b.cvn"), numbered(700, 0));
    write_table(path("c.cvn"), numbered(700, 500));
    const std::vector<std::string> files = {path("a.cvn"), path("b.cvn"), path("c.cvn")};
    for (const uint64_t n : {1u, 10u, 74u, 75u, 600u, 1199u, 1200u}) {
        const table_t s = scan_table(sample(n, n, files));
        ASSERT_EQ("", error_);
        EXPECT_EQ(n, chosen_);
        ASSERT_EQ(n, s.nrow());
        int64_t last = -1;
        for (size_t r = 0; r < s.nrow(); r++) {
            const auto id = load<int64_t>(s.value[0][r].bytes, 0);
            EXPECT_LT(last, id);
            last = id;
            for (size_t c = 0; c < 3; c++) EXPECT_EQ(all.value[c][static_cast<size_t>(id)], s.value[c][r]);
        }
    }
}

TEST_F(CvnsampSample, RowsOfSmallAndLargeFilesAreEquallyLikely) {
    write_table(path("a.cvn"), numbered(0, 3));
    write_table(path("b.cvn"), numbered(3, 60));
    write_table(path("c.cvn"), numbered(63, 17));
    const std::vector<std::string> files = {path("a.cvn"), path("b.cvn"), path("c.cvn")};
    for (const uint64_t n : {4u, 40u}) {  // drawn at once, and row by row
        std::vector<uint64_t> count(80);
        constexpr uint64_t RUNS = 1000;
        for (uint64_t seed = 0; seed < RUNS; seed++) {
            const table_t s = scan_table(sample(n, seed, files));
            for (const value_t& id : s.value[0]) ++count[static_cast<size_t>(load<int64_t>(id.bytes, 0))];
        }
        const double expected = static_cast<double>(RUNS * n) / 80;
        double x = 0;
        for (const uint64_t c : count)
            x += (static_cast<double>(c) - expected) * (static_cast<double>(c) - expected) / expected;
        x = x / (1 - static_cast<double>(n) / 80) * 79 / 80;
        EXPECT_LT(x, 79 + 5 * 12.6);
        EXPECT_GT(x, 79 - 5 * 12.6);
    }
}

TEST_F(CvnsampSample, TheSameSeedGivesTheSameBytes) {
    write_table(path("a.cvn"), numbered(0, 500));
    const std::string first = read_file(sample(20, 7, {path("a.cvn")}));
    EXPECT_EQ(first, read_file(sample(20, 7, {path("a.cvn")})));
    EXPECT_NE(first, read_file(sample(20, 8, {path("a.cvn")})));
}

TEST_F(CvnsampSample, FilesWithoutRowsGiveAFileWithoutRows) {
    write_table(path("a.cvn"), numbered(0, 0));
    const std::string out = sample(5, 1, {path("a.cvn"), path("a.cvn")});
    EXPECT_EQ("", error_);
    EXPECT_EQ(read_file(path("a.cvn")), read_file(out));
}

TEST_F(CvnsampSample, SamplesASplitDirectory) {
    write_table(path("a.cvn"), numbered(0, 500));
    fs::create_directory(path("split"));
    ASSERT_EQ(0, cvnx_split(path("split").c_str(), path("a.cvn").c_str()));
    EXPECT_EQ(read_file(sample(20, 7, {path("a.cvn")})), read_file(sample(20, 7, {path("split")})));
    EXPECT_EQ("", error_);
}

TEST_F(CvnsampSample, ReadsOnlyTheRowGroupsThatHoldAChosenRow) {
    const std::string large = write_large_rows();
    std::string file = read_file(large);
    const layout_t at(file);
    const auto first = static_cast<uint32_t>(load<int32_t>(file, at.group(0) + 4));
    const auto end = first + static_cast<uint32_t>(load<int32_t>(file, at.group(1) + 4));
    ASSERT_GT(first, 0u);
    ASSERT_LT(end, 70u);
    // Spoilt pages in the middle row group: only a sample that needs them notices.
    const size_t meta = at.meta(1, 1);
    const auto offset = static_cast<size_t>(load<int64_t>(file, meta));
    file[offset] = static_cast<char>(~file[offset]);
    write_file(large, file);
    const std::vector<uint64_t> group_nrow = {first, end - first, 70 - end};
    int untouched = 0, noticed = 0;
    for (uint64_t seed = 0; seed < 12; seed++) {
        const std::vector<uint64_t> all = {70};
        row_choice_t choice(seed, 1, all);
        choice.open_file(group_nrow);
        std::vector<uint32_t> rows;
        uint64_t row = 0, at_row = 0;
        for (const uint64_t n : group_nrow) {
            choice.take(static_cast<uint32_t>(n), &rows);
            if (!rows.empty()) row = at_row + rows[0];
            at_row += n;
        }
        const bool needed = row >= first && row < end;
        const std::string out = sample(1, seed, {large});
        if (needed) {
            EXPECT_EQ("'" + large + "': damaged: row group 1, column 'body': its hash does not match",
                      error_);
            ++noticed;
        } else {
            EXPECT_EQ("", error_);
            EXPECT_EQ(i32(static_cast<int32_t>(row)), scan_table(out).value[0][0]);
            ++untouched;
        }
    }
    EXPECT_GT(untouched, 0);
    EXPECT_GT(noticed, 0);
}

TEST_F(CvnsampSample, RefusesFilesOfDifferentSchemas) {
    const table_t t = numbered(0, 10);
    write_table(path("a.cvn"), t);
    const std::string prefix =
        "'" + path("b.cvn") + "': has not the same schema as '" + path("a.cvn") + "': ";
    const auto refused = [&](const table_t& other) {
        write_table(path("b.cvn"), other);
        return refusal({path("a.cvn"), path("b.cvn")});
    };
    table_t u = t;
    u.column[1].name = "Note";
    EXPECT_EQ(prefix + "column 2 is 'Note' cstr, not 'note' cstr", refused(u));
    u = t;
    u.column[0].typ = CVN_TYP_TIMESTAMP_MILLIS;
    EXPECT_EQ(prefix + "column 1 is 'id' timestamp_millis, not 'id' int64", refused(u));
    u = t;
    std::swap(u.column[0], u.column[1]);
    std::swap(u.value[0], u.value[1]);
    EXPECT_EQ(prefix + "column 1 is 'note' cstr, not 'id' int64", refused(u));
    u = t;
    u.column.pop_back();
    u.value.pop_back();
    EXPECT_EQ(prefix + "2 columns, not 3", refused(u));
    u = t;
    u.column[0].zflag = true;  // flags are the producer's choice, no part of the schema
    EXPECT_EQ("", refused(u));
}

TEST_F(CvnsampSample, RefusesWhatIsNoDataFileByItsName) {
    write_table(path("a.cvn"), numbered(0, 10));
    write_file(path("b.cvn"), "id,note\n1,x\n and some more bytes");
    EXPECT_EQ("'" + path("b.cvn") + "': damaged, or not a data file",
              refusal({path("a.cvn"), path("b.cvn")}));
    write_file(path("b.cvn"), "CVN");
    EXPECT_EQ("'" + path("b.cvn") + "': ends too early: damaged, or not a data file",
              refusal({path("a.cvn"), path("b.cvn")}));
    EXPECT_EQ("'" + path("none.cvn") + "': No such file or directory",
              refusal({path("a.cvn"), path("none.cvn")}));
    EXPECT_EQ("no data files, so there is no schema to write", refusal({}));
}

TEST_F(CvnsampSample, RefusesEveryByteOfAPageChangedUnderItsHash) {
    write_table(path("a.cvn"), numbered(0, 9));
    const std::string file = read_file(path("a.cvn"));
    const layout_t at(file);
    for (int c = 0; c < 3; c++) {
        const auto begin = static_cast<size_t>(load<int64_t>(file, at.meta(0, c)));
        const auto end = begin + static_cast<size_t>(load<int32_t>(file, at.meta(0, c) + 20));
        for (size_t i = begin; i < end; i++) {
            std::string bad = file;
            bad[i] = static_cast<char>(bad[i] ^ 1);
            write_file(path("b.cvn"), bad);
            EXPECT_NE(std::string::npos, refusal({path("b.cvn")}).find("its hash does not match")) << i;
        }
    }
}

TEST_F(CvnsampSample, RefusesEveryShorterFile) {
    write_table(path("a.cvn"), numbered(0, 3));
    const std::string file = read_file(path("a.cvn"));
    for (size_t n = 0; n < file.size(); n++) {
        write_file(path("b.cvn"), file.substr(0, n));
        EXPECT_NE(std::string::npos, refusal({path("b.cvn")}).find(path("b.cvn"))) << n;
    }
}

TEST_F(CvnsampSample, RefusesPagesThatLieAboutTheirValues) {
    const table_t t = numbered(0, 9);
    const std::string where = "'" + path("d.cvn") + "': damaged: row group 0, column ";
    // A text without its NUL: the last byte before the null bitmap.
    EXPECT_EQ(where + "'note': its values do not fit its size",
              damaged_chunk(t, 1, [](std::string& f, size_t offset, size_t meta) {
                  // Every row is wanted only when the sample is large enough: spoil the first row's NUL and
                  // all others.
                  const auto end = offset + static_cast<size_t>(load<int32_t>(f, meta + 28));
                  for (size_t i = offset; i < end; i++)
                      if (f[i] == 0) f[i] = 'x';
              }));
    EXPECT_EQ(where + "'note': its size does not fit its rows",
              damaged_chunk(t, 1, [](std::string& f, size_t, size_t meta) {
                  patch(f, meta + 28, load<int32_t>(f, meta + 28) - 1);
              }));
    EXPECT_EQ(
        where + "'note': its size does not fit its rows",
        damaged_chunk(t, 1, [](std::string& f, size_t, size_t meta) { patch(f, meta + 28, int32_t{-5}); }));
    EXPECT_EQ(
        where + "'id': its size does not fit its rows",
        damaged_chunk(t, 0, [](std::string& f, size_t, size_t meta) { patch(f, meta + 8, int32_t{8}); }));
    EXPECT_EQ(where + "'id': its size does not fit its rows",
              damaged_chunk(t, 0, [](std::string& f, size_t, size_t meta) {
                  patch(f, meta + 16, load<int32_t>(f, meta + 16) + 1);
              }));
}

TEST_F(CvnsampSample, RefusesAByteStringLongerThanItsPage) {
    table_t t;
    t.column = {{"b", CVN_TYP_BYTEA, false, false}};
    t.value = {{text("abc"), text("defg"), text("")}};
    for (const int32_t len : {-1, INT32_MIN, INT32_MAX, 100}) {
        EXPECT_EQ("'" + path("d.cvn") + "': damaged: row group 0, column 'b': its values do not fit its size",
                  damaged_chunk(t, 0, [&](std::string& f, size_t offset, size_t) { patch(f, offset, len); }));
    }
}

TEST_F(CvnsampSample, RefusesRowCountsThatDoNotAddUp) {
    write_table(path("a.cvn"), numbered(0, 9));
    const std::string file = read_file(path("a.cvn"));
    const layout_t at(file);
    std::string bad = file;
    patch(bad, at.foot + 8, int64_t{10});
    write_file(path("b.cvn"), bad);
    EXPECT_EQ("'" + path("b.cvn") + "': damaged: its row groups have 9 rows, the file claims 10",
              refusal({path("b.cvn")}));
    for (const int32_t nrow : {-1, 1048577}) {
        bad = file;
        patch(bad, at.group(0) + 4, nrow);
        write_file(path("b.cvn"), bad);
        EXPECT_EQ("'" + path("b.cvn") + "': damaged: row group 0 claims " + std::to_string(nrow) + " rows",
                  refusal({path("b.cvn")}));
    }
}

TEST_F(CvnsampSample, RefusesAnUnknownTypeAndARepeatedColumn) {
    write_table(path("a.cvn"), numbered(0, 9));
    const std::string file = read_file(path("a.cvn"));
    const layout_t at(file);
    std::string bad = file;
    patch(bad, at.coldef(0) + 128, int32_t{12});
    write_file(path("b.cvn"), bad);
    EXPECT_EQ("'" + path("b.cvn") + "': column 'id' has the unknown type 12", refusal({path("b.cvn")}));
    bad = file;
    bad.replace(at.coldef(1), 128, file.substr(at.coldef(0), 128));
    write_file(path("b.cvn"), bad);
    EXPECT_EQ("'" + path("b.cvn") + "': has more than one column 'id'", refusal({path("b.cvn")}));
}

// Bytes that this process has read through system calls so far.
int64_t bytes_read() {
    std::ifstream io("/proc/self/io");
    std::string key;
    int64_t n = 0;
    while (io >> key >> n)
        if (key == "rchar:") return n;
    return -1;
}

TEST_F(CvnsampSample, ReadsTheStoredPagesOfACompressedRowGroupOnce) {
    write_table(path("a.cvn"), numbered(0, 300000));
    const auto size = static_cast<int64_t>(fs::file_size(path("a.cvn")));
    const int64_t before = bytes_read();
    ASSERT_GE(before, 0);
    sample(3, 1, {path("a.cvn")});
    ASSERT_EQ("", error_);
    const int64_t n = bytes_read() - before;
    EXPECT_GT(n, size * 3 / 4);  // all three rows lie in the one row group
    EXPECT_LT(n, size * 3 / 2);
}

TEST_F(CvnsampSample, RefusesAPipeWithoutWaitingForItsOtherEnd) {
    write_table(path("a.cvn"), numbered(0, 9));
    ASSERT_EQ(0, mkfifo(path("f.cvn").c_str(), 0600));
    EXPECT_EQ("'" + path("f.cvn") + "': is not a regular file", refusal({path("f.cvn")}));
    ASSERT_EQ(0, cvnx_split(path("split").c_str(), path("a.cvn").c_str()));
    EXPECT_EQ("", refusal({path("split")}));
    fs::remove(path("split") + "/1.cvnx");
    ASSERT_EQ(0, mkfifo((path("split") + "/1.cvnx").c_str(), 0600));
    EXPECT_EQ("'" + path("split") + "/1.cvnx': is not a regular file", refusal({path("split")}));
}

TEST_F(CvnsampSample, MakesTheSampleInAFileThatNeverHasAName) {
    write_table(path("a.cvn"), numbered(0, 9));
    fs::create_directory(path("tmp"));
    const int probe = open(path("tmp").c_str(), O_TMPFILE | O_RDWR, 0600);
    if (probe < 0) GTEST_SKIP() << "the file system has no files without a name";
    close(probe);
    const int watch = inotify_init1(IN_NONBLOCK);
    ASSERT_GE(watch, 0);
    ASSERT_GE(inotify_add_watch(watch, path("tmp").c_str(), IN_CREATE | IN_MOVED_TO), 0);
    const int out = open(path("out.cvn").c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(out, 0);
    EXPECT_EQ(3u, sample_files(out, 3, 1, {path("a.cvn")}, path("tmp"), 0));
    close(out);
    char event[4096];
    EXPECT_EQ(-1, read(watch, event, sizeof(event)));
    EXPECT_EQ(EAGAIN, errno);
    close(watch);
    EXPECT_EQ(3u, scan_table(path("out.cvn")).nrow());
}

TEST_F(CvnsampSample, SaysThatTheOutputIsFull) {
    write_table(path("a.cvn"), numbered(0, 9));
    const int full = open("/dev/full", O_WRONLY);
    ASSERT_GE(full, 0);
    try {
        sample_files(full, 3, 1, {path("a.cvn")}, dir_.str(), 0);
        ADD_FAILURE() << "a full output was taken for a written one";
    } catch (const sample_error& e) {
        EXPECT_STREQ("cannot write to standard output: No space left on device", e.what());
    }
    close(full);
}

TEST_F(CvnsampSample, SaysThatThereIsNowhereToMakeTheSample) {
    write_table(path("a.cvn"), numbered(0, 9));
    try {
        sample_files(-1, 3, 1, {path("a.cvn")}, path("none"), 0);
        ADD_FAILURE() << "a missing directory was accepted";
    } catch (const sample_error& e) {
        EXPECT_EQ("cannot make a file in '" + path("none") + "': No such file or directory",
                  std::string(e.what()));
    }
}

}  // namespace
