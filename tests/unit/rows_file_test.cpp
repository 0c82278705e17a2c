// Local files: what stands under a path, and that no byte of a page is used unchecked.
#include "rows/file.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support.h"

using namespace rows;

namespace {

constexpr int NROW = 3000, NGROUP = 3;

// A file of three row groups: numbers that compress, texts that do not, byte strings, NULLs in all of them.
void write_sample(const std::string& path, int64_t first = 0) {
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, path.c_str()));
    ASSERT_EQ(0, cvn_create_column(w, "id", CVN_TYP_INT64, true, false));
    ASSERT_EQ(0, cvn_create_column(w, "note", CVN_TYP_CSTR, false, false));
    ASSERT_EQ(0, cvn_create_column(w, "raw", CVN_TYP_BYTEA, false, false));
    const std::string wide(12 << 20, 'x');  // three of them fill a row group
    for (int r = 0; r < NROW; r++) {
        cvn_datum_t datum[3] = {};
        const bool isnull[3] = {false, r % 7 == 0, r % 5 == 0};
        const std::string text = std::to_string(r * 2654435761u) + "-" + std::to_string(r);
        datum[0].I = first + r;
        datum[1].t = text.c_str();
        datum[2].a.ptr = r % (NROW / NGROUP) == 3 ? wide.data() : text.data();
        datum[2].a.len = static_cast<int32_t>(r % (NROW / NGROUP) == 3 ? wide.size() : 3);
        ASSERT_EQ(0, cvn_append(w, 3, datum, isnull));
    }
    ASSERT_EQ(0, cvn_close(w));
}

// The sum of the ids that are read, -1 with the fault after a failure.
int64_t sum_of(const std::string& path, const std::string& where, file_fault_t* fault,
               int64_t* ret_nread = nullptr) {
    const auto pool = std::make_shared<bufpool_t>();
    file_t file;
    if (!file_open(&file, path, pool, fault)) return -1;
    cond_t cond;
    cond_fault_t cond_fault;
    std::vector<cond_column_t> column;
    for (const file_column_t& c : file.column) column.push_back({c.name, c.typ});
    EXPECT_TRUE(where.empty() || cond_parse(&cond, where, &cond_fault));
    EXPECT_TRUE(cond_bind(&cond, column, &cond_fault));
    const int want[] = {0, 1, 2};
    if (!file_want(&file, want, fault) || !file_push(&file, cond, fault)) return -1;
    int64_t sum = 0;
    std::vector<column_t> read;
    bool good = true;
    for (int64_t rg = 0; good;) {
        good = file_next(&file, &rg, fault);
        if (!good || rg < 0) break;
        good = file_read(&file, rg, &read, fault);
        if (!good) break;
        if (ret_nread) ++*ret_nread;
        if (cond_filter(read, 3, cond) == 0) continue;
        for (int64_t r = 0; r < read[0].vec.nrow; r++) sum += cvn_vec_get<int64_t>(read[0].vec, r);
    }
    for (column_t& c : read) column_free(pool.get(), &c);
    return good ? sum : -1;
}

constexpr int64_t SUM = int64_t{NROW} * (NROW - 1) / 2;

}  // namespace

TEST(RowsFile, ReadsAFileAndItsSplitAlike) {
    support::temp_dir_t dir;
    write_sample(dir / "a.cvn");
    ASSERT_EQ(0, cvnx_split((dir / "split").c_str(), (dir / "a.cvn").c_str()));
    file_fault_t fault;
    for (const char* name : {"a.cvn", "split", "split/"}) {
        EXPECT_EQ(SUM, sum_of(dir / name, "", &fault)) << name;
        EXPECT_EQ(5, sum_of(dir / name, "id in (2, 3)", &fault)) << name;
        EXPECT_EQ(0, sum_of(dir / name, "id in ()", &fault)) << name;
    }
}

TEST(RowsFile, PassesOverRowGroupsThatStatisticsRuleOut) {
    support::temp_dir_t dir;
    write_sample(dir / "a.cvn");
    file_fault_t fault;
    int64_t all = 0, some = 0, none = 0;
    EXPECT_EQ(SUM, sum_of(dir / "a.cvn", "", &fault, &all));
    EXPECT_EQ(NROW - 1, sum_of(dir / "a.cvn", "id >= " + std::to_string(NROW - 1), &fault, &some));
    EXPECT_EQ(0, sum_of(dir / "a.cvn", "id > 5000000", &fault, &none));
    EXPECT_GT(all, 1);
    EXPECT_EQ(1, some);
    EXPECT_EQ(0, none);
}

TEST(RowsFile, RefusesEveryFlippedByteOfAPage) {
    support::temp_dir_t dir;
    const std::string path = dir / "a.cvn", bad = dir / "bad.cvn";
    write_sample(path);
    cvn_scan_t* scan = nullptr;
    ASSERT_EQ(0, cvn_scan_open(&scan, path.c_str()));
    const std::string bytes = support::read_file(path);
    int tried = 0;
    for (int64_t rg = 0; rg < scan->schema->nrowgroup; rg++)
        for (int c = 0; c < 3; c++) {
            colmeta_t m;
            ASSERT_EQ(0, cvn_scan_colmeta(scan, rg, c, &m));
            for (int i = 0; i < 4; i++) {
                std::string damaged = bytes;
                const auto at = static_cast<size_t>(m.file_offset + int64_t{m.zbyte} * i / 4 +
                                                    (i == 3 ? m.zbyte / 4 - 1 : 0));
                damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
                support::write_file(bad, damaged);
                file_fault_t fault;
                EXPECT_EQ(-1, sum_of(bad, "", &fault)) << rg << " " << c << " " << at;
                EXPECT_EQ(FILE_PAGE, fault.kind);
                EXPECT_EQ(rg, fault.rg);
                EXPECT_EQ(c == 0 ? "id" : c == 1 ? "note" : "raw", fault.name);
                EXPECT_STREQ("its hash does not match", fault.what);
                tried++;
            }
        }
    ASSERT_EQ(0, cvn_scan_close(scan));
    EXPECT_GE(tried, 24);
}

TEST(RowsFile, TellsAFileThatIsCutFromOneThatIsNone) {
    support::temp_dir_t dir;
    write_sample(dir / "a.cvn");
    support::write_file(dir / "text.cvn", "id,qty\n1,2\n3,4\n5,6\n7,8\n9,10\n");
    file_fault_t fault;
    EXPECT_EQ(-1, sum_of(dir / "text.cvn", "", &fault));
    EXPECT_EQ(FILE_CODE, fault.kind);
    EXPECT_EQ(-7, fault.code);
    EXPECT_EQ(-1, sum_of(dir / "none.cvn", "", &fault));
    EXPECT_EQ(-3, fault.code);
    EXPECT_EQ(ENOENT, fault.err);
    // A column file of a split that lost its end.
    ASSERT_EQ(0, cvnx_split((dir / "split").c_str(), (dir / "a.cvn").c_str()));
    std::filesystem::resize_file(dir / "split/1.cvnx", 100);
    fault = {};
    EXPECT_EQ(-1, sum_of(dir / "split", "", &fault));
    EXPECT_EQ(FILE_CODE, fault.kind);
    EXPECT_EQ(-3, fault.code);
    EXPECT_EQ(0, fault.err);
    EXPECT_EQ(dir / "split", fault.path);
}

TEST(RowsFile, SaysWhyAColumnOfASplitCannotBeRead) {
    support::temp_dir_t dir;
    ASSERT_EQ(0, cvnx_split((dir / "split").c_str(), TESTS_DIR "/golden/groups.cvn"));
    const auto pool = std::make_shared<bufpool_t>();
    file_t file;
    file_fault_t fault;
    ASSERT_TRUE(file_open(&file, dir / "split", pool, &fault));
    const int want[] = {0, 1};
    ASSERT_TRUE(file_want(&file, want, &fault));
    std::filesystem::remove(dir / "split/1.cvnx");
    std::vector<column_t> read;
    fault = {};
    EXPECT_FALSE(file_read(&file, 0, &read, &fault));
    EXPECT_EQ(FILE_CODE, fault.kind);
    EXPECT_EQ(-3, fault.code);
    EXPECT_EQ(ENOENT, fault.err);
    EXPECT_EQ(dir / "split", fault.path);
    for (column_t& c : read) column_free(pool.get(), &c);
}

TEST(RowsFile, DoesNotWaitForAPipe) {
    support::temp_dir_t dir;
    ASSERT_EQ(0, mkfifo((dir / "pipe.cvn").c_str(), 0600));
    std::filesystem::create_directory(dir / "split");
    ASSERT_EQ(0, mkfifo((dir / "split/meta.cvnx").c_str(), 0600));
    write_sample(dir / "a.cvn");
    ASSERT_EQ(0, cvnx_split((dir / "other").c_str(), (dir / "a.cvn").c_str()));
    std::filesystem::remove(dir / "other/2.cvnx");
    ASSERT_EQ(0, mkfifo((dir / "other/2.cvnx").c_str(), 0600));
    for (const char* name : {"pipe.cvn", "split", "other"}) {
        file_t file;
        file_fault_t fault;
        EXPECT_FALSE(file_open(&file, dir / name, std::make_shared<bufpool_t>(), &fault)) << name;
        EXPECT_EQ(FILE_OTHER, fault.kind) << name;
    }
    file_list_t list;
    file_fault_t fault;
    EXPECT_FALSE(file_find(&list, dir / "pipe.cvn", &fault));
    EXPECT_EQ(FILE_OTHER, fault.kind);
    EXPECT_TRUE(list.path.empty());
}

TEST(RowsFile, FindsTheFilesOfADirectoryByName) {
    support::temp_dir_t dir;
    std::filesystem::create_directories(dir / "many");
    std::filesystem::create_directories(dir / "empty");
    std::filesystem::create_directories(dir / "unfinished");
    for (const char* name : {"many/b.cvn", "many/a.cvn", "many/c.txt", "many/.cvn", "unfinished/0.cvnx"})
        support::write_file(dir / name, "x");
    file_list_t list;
    file_fault_t fault;
    ASSERT_TRUE(file_find(&list, dir / "many", &fault));
    EXPECT_TRUE(list.many);
    EXPECT_EQ((std::vector<std::string>{dir / "many/a.cvn", dir / "many/b.cvn"}), list.path);
    ASSERT_TRUE(file_find(&list, dir / "many/c.txt", &fault));
    EXPECT_FALSE(list.many);
    EXPECT_EQ(1u, list.path.size());
    EXPECT_FALSE(file_find(&list, dir / "empty", &fault));
    EXPECT_EQ(FILE_NO_DATA, fault.kind);
    EXPECT_FALSE(file_find(&list, dir / "unfinished", &fault));
    EXPECT_EQ(FILE_UNFINISHED, fault.kind);
    EXPECT_FALSE(file_find(&list, dir / "missing", &fault));
    EXPECT_EQ(FILE_CODE, fault.kind);
    EXPECT_EQ(ENOENT, fault.err);
}

TEST(RowsFile, RefusesAColumnWhoseNameAnotherHas) {
    support::temp_dir_t dir;
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, (dir / "a.cvn").c_str()));
    ASSERT_EQ(0, cvn_create_column(w, "x", CVN_TYP_INT32, false, false));
    ASSERT_EQ(0, cvn_create_column(w, "x", CVN_TYP_INT64, false, false));
    ASSERT_EQ(0, cvn_close(w));
    const auto pool = std::make_shared<bufpool_t>();
    file_fault_t fault;
    file_t first, second;
    ASSERT_TRUE(file_open(&first, dir / "a.cvn", pool, &fault));
    const int zero[] = {0}, one[] = {1};
    EXPECT_TRUE(file_want(&first, zero, &fault));
    ASSERT_TRUE(file_open(&second, dir / "a.cvn", pool, &fault));
    EXPECT_FALSE(file_want(&second, one, &fault));
    EXPECT_EQ(FILE_SAME_NAME, fault.kind);
    EXPECT_EQ("x", fault.name);
}
