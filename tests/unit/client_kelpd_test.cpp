// The client against the daemon that the environment variable KELPD names, on a port and in a directory of
// its own.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <chrono>
#include <set>

#include "client/arrow_reader.h"
#include "client/queries.h"

extern char** environ;

namespace {

using namespace replies;
using queries::rows_of;
using namespace std::chrono_literals;

// The daemon forks into the background, as in earnest: in the foreground it would serve one connection at a
// time. This process declares itself the reaper of orphans, so the daemon becomes its child, and is found by
// that.
class Kelpd : public testing::Test {
 protected:
    void SetUp() override {
        const char* program = getenv("KELPD");
        ASSERT_TRUE(program && access(program, X_OK) == 0) << "KELPD names no program";
        for (int attempt = 0; attempt < 20 && pid_ < 0; attempt++) start(program);
        ASSERT_GT(pid_, 0) << "the daemon does not start";
    }
    void TearDown() override {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        // A connection's process that the daemon leaves becomes a child as well; it ends by itself.
        while (waitpid(-1, nullptr, 0) > 0) {
        }
    }
    void start(const char* program);

    kelp_url_t url(const std::string& path) const {
        kelp_url_t u;
        EXPECT_EQ(0, kelp_url_parse(&u, "kelp://127.0.0.1:" + std::to_string(port_) + path, nullptr));
        return u;
    }
    void upload(const std::string& path, const table_t& t) {
        support::write_table(dir_ / "upload.cvn", t);
        kelp_error_t err{};
        ASSERT_EQ(0, kelp_upload(url(path), (dir_ / "upload.cvn").c_str(), nullptr, nullptr, {}, &err))
            << err.text;
    }

    support::temp_dir_t dir_;
    int port_ = 0;
    pid_t pid_ = -1;
    kelp_opt_t opt_;
    kelp_error_t err_{};
};

// The children of this process, whichever thread they belong to.
std::vector<pid_t> children() {
    std::vector<pid_t> out;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream in(task.path() / "children");
        pid_t pid;
        while (in >> pid) out.push_back(pid);
    }
    return out;
}

void Kelpd::start(const char* program) {
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
    {
        fake::server_t free_port([](int, const fake::request_t&) {});
        port_ = free_port.port;
    }
    const std::string data = dir_ / "data";
    std::filesystem::create_directories(data);
    support::write_file(data + "/kelpd.conf", "port = " + std::to_string(port_) + "\n");
    posix_spawn_file_actions_t action;
    posix_spawn_file_actions_init(&action);
    posix_spawn_file_actions_addopen(&action, 2, (dir_ / "stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0600);
    const char* argv[] = {program, "-D", data.c_str(), nullptr};
    pid_t launcher = -1;
    const int rc = posix_spawn(&launcher, program, &action, nullptr, const_cast<char**>(argv), environ);
    posix_spawn_file_actions_destroy(&action);
    ASSERT_EQ(0, rc);
    int status = 0;
    ASSERT_EQ(launcher, waitpid(launcher, &status, 0));
    ASSERT_EQ(0, status);
    const std::vector<pid_t> child = children();
    if (child.empty()) return;  // gone already: the port was taken meanwhile
    ASSERT_EQ(1u, child.size());
    for (int i = 0; i < 1000; i++) {
        std::vector<std::string> name;
        if (kelp_list(&name, url(""), opt_, nullptr) == 0) {
            pid_ = child[0];
            return;
        }
        if (waitpid(child[0], nullptr, WNOHANG) == child[0]) return;
        std::this_thread::sleep_for(10ms);
    }
    kill(child[0], SIGKILL);
    waitpid(child[0], nullptr, 0);
}

std::vector<values_t> scan_all(const kelp_query_t& q, const kelp_opt_t& opt, int* code, kelp_error_t* err) {
    std::vector<values_t> out;
    kelp_scan_t* scan = nullptr;
    *code = kelp_scan_open(&scan, q, opt, err);
    if (*code) return out;
    out.resize(kelp_scan_columns(scan).size());
    kelp_batch_t* batch = nullptr;
    while ((*code = kelp_scan_next(scan, &batch, err)) == 0) {
        for (int c = 0; c < batch->ncol; c++) {
            const values_t v = values_of(batch->col[c]);
            out[static_cast<size_t>(c)].insert(out[static_cast<size_t>(c)].end(), v.begin(), v.end());
        }
        kelp_batch_free(batch);
    }
    kelp_scan_close(scan);
    return out;
}

TEST_F(Kelpd, TakesWhatIsUploadedAndGivesItBack) {
    const table_t a = support::all_types_table(1, 2000), b = support::all_types_table(2, 500);
    upload("/db/sc/t/a.cvn", a);
    upload("/db/sc/t/b%20c.cvn", b);
    std::vector<std::string> name;
    ASSERT_EQ(0, kelp_list(&name, url(""), opt_, &err_));
    EXPECT_EQ(std::vector<std::string>{"db"}, name);
    ASSERT_EQ(0, kelp_list(&name, url("/db/sc"), opt_, &err_));
    EXPECT_EQ(std::vector<std::string>{"t"}, name);
    std::vector<kelp_file_t> file;
    ASSERT_EQ(0, kelp_list_files(&file, url("/db/sc/t"), opt_, &err_));
    ASSERT_EQ(2u, file.size());
    EXPECT_EQ(2500, file[0].nrow + file[1].nrow);
    std::vector<kelp_column_t> column;
    ASSERT_EQ(0, kelp_table_columns(&column, url("/db/sc/t"), opt_, &err_)) << err_.text;
    ASSERT_EQ(a.column.size(), column.size());
    for (size_t c = 0; c < column.size(); c++) {
        EXPECT_EQ(a.column[c].name, column[c].name);
        EXPECT_EQ(a.column[c].typ, column[c].typ);
    }
    kelp_meta_t meta;
    ASSERT_EQ(0, kelp_meta(&meta, url("/db/sc/t"), opt_, &err_)) << err_.text;
    EXPECT_EQ(2500, meta.nrow);
    EXPECT_EQ(2, meta.nrowgroup);
    int64_t n = 0;
    ASSERT_EQ(0, kelp_count(&n, {.url = url("/db/sc/t")}, opt_, &err_)) << err_.text;
    EXPECT_EQ(2500, n);

    std::vector<values_t> both = a.value;
    for (size_t c = 0; c < both.size(); c++)
        both[c].insert(both[c].end(), b.value[c].begin(), b.value[c].end());
    kelp_query_t q{.url = url("/db/sc/t")};
    int code = 0;
    EXPECT_EQ(rows_of(both), rows_of(scan_all(q, opt_, &code, &err_)));
    EXPECT_EQ(KELP_END, code) << err_.text;

    ArrowArrayStream stream{};
    kelp_query_t some = q;
    some.column = {"int64", "cstr"};
    ASSERT_EQ(0, kelp_arrow_scan(&stream, some, {.scale = {}, .text_as_binary = true}, opt_, &err_))
        << err_.text;
    EXPECT_EQ(rows_of({both[3], both[8]}), rows_of(arrow_reader::read_all(&stream, &code)));
    EXPECT_EQ(0, code);
    stream.release(&stream);

    ASSERT_EQ(0, kelp_remove(url("/db/sc/t/a.cvn"), opt_, &err_)) << err_.text;
    ASSERT_EQ(0, kelp_count(&n, {.url = url("/db/sc/t")}, opt_, &err_));
    EXPECT_EQ(500, n);
    // A file of 312 bytes that claims 2^62 rows, which the daemon would take for ever to stream.
    table_t none = a;
    none.column.resize(1);
    none.value.assign(1, {});
    support::write_table(dir_ / "huge.cvn", none);
    std::fstream huge(dir_ / "huge.cvn", std::ios::in | std::ios::out | std::ios::binary);
    huge.seekp(CVN_HEAD_SZ + static_cast<int>(offsetof(schema_desc_t, nrow)));
    huge << support::le64(int64_t{1} << 62) << std::flush;
    huge.close();
    EXPECT_EQ(312u, std::filesystem::file_size(std::string(dir_ / "huge.cvn")));
    for (const char* put : {"x.cvn", "y.cvn"}) {
        ASSERT_EQ(0, kelp_upload(url("/db/sc/t/" + std::string(put)), (dir_ / "huge.cvn").c_str(), nullptr,
                                 nullptr, opt_, &err_))
            << err_.text;
        const bool first = *put == 'x';
        EXPECT_EQ(first ? 0 : KELP_EPROTO, kelp_count(&n, {.url = url("/db/sc/t")}, opt_, &err_))
            << err_.text;
        EXPECT_EQ(first ? (int64_t{1} << 62) + 500 : 0, n);
    }
    EXPECT_NE(nullptr, strstr(err_.text, ".cvn claims they exceed 64 bits")) << err_.text;

    ASSERT_EQ(0, kelp_remove(url("/db"), opt_, &err_));
    EXPECT_EQ(KELP_ENOTFOUND, kelp_list_files(&file, url("/db/sc/t"), opt_, &err_));
}

// Row groups of 100 rows, which only files of one row group can have: the writer cuts at sizes that no test
// wants.
TEST_F(Kelpd, FiltersExactlyWhateverItsStatisticsSkip) {
    std::mt19937_64 rng(7);
    std::vector<values_t> all;
    table_t first;
    for (int f = 0; f < 6; f++) {
        const table_t t = support::all_types_table(100 + static_cast<uint64_t>(f), 60);
        upload("/db/sc/t/" + std::to_string(f) + ".cvn", t);
        all.resize(t.value.size());
        for (size_t c = 0; c < all.size(); c++)
            all[c].insert(all[c].end(), t.value[c].begin(), t.value[c].end());
        if (f == 0) first = t;
    }
    int nonempty = 0;
    for (int round = 0; round < 60; round++) {
        const size_t c = rng() % first.column.size();
        const int32_t typ = first.column[c].typ;
        // Types whose order the second reader knows; a constant out of the data.
        if (cvn_storage(typ) > CVN_TYP_INT128 && cvn_storage(typ) != CVN_TYP_CSTR) continue;
        const support::value_t& pick = all[c][rng() % all[c].size()];
        if (pick.null) continue;
        std::string text;
        char buf[CVN_INT128_STRSZ];
        switch (cvn_storage(typ)) {
            case CVN_TYP_BOOL: text = pick.bytes[0] ? "1" : "0"; break;
            case CVN_TYP_INT16: text = std::to_string(support::load<int16_t>(pick.bytes, 0)); break;
            case CVN_TYP_INT32: text = std::to_string(support::load<int32_t>(pick.bytes, 0)); break;
            case CVN_TYP_INT64: text = std::to_string(support::load<int64_t>(pick.bytes, 0)); break;
            case CVN_TYP_INT128:
                cvn_int128_to_string(buf, support::load<cvn_int128_t>(pick.bytes, 0)), text = buf;
                break;
            default: text = pick.bytes; break;
        }
        const int op = 1 + static_cast<int>(rng() % 6);
        kelp_query_t q{.url = url("/db/sc/t")};
        q.column = {first.column[(c + 1) % first.column.size()].name,
                    first.column[(c + 5) % first.column.size()].name};
        q.cond = {{first.column[c].name, op, {text}}};
        std::vector<values_t> want(2);
        for (size_t r = 0; r < all[c].size(); r++) {
            const support::value_t& v = all[c][r];
            if (v.null) continue;
            const bool below = reader::below(typ, v.bytes, pick.bytes),
                       above = reader::below(typ, pick.bytes, v.bytes);
            const bool keep = op == CVN_OP_EQ   ? !below && !above
                              : op == CVN_OP_NE ? below || above
                              : op == CVN_OP_GT ? above
                              : op == CVN_OP_GE ? !below
                              : op == CVN_OP_LT ? below
                                                : !above;
            if (!keep) continue;
            want[0].push_back(all[(c + 1) % all.size()][r]);
            want[1].push_back(all[(c + 5) % all.size()][r]);
        }
        int code = 0;
        EXPECT_EQ(rows_of(want), rows_of(scan_all(q, opt_, &code, &err_)))
            << q.cond[0].column << " op " << op << " " << text;
        EXPECT_EQ(KELP_END, code) << err_.text;
        nonempty += !want[0].empty();
        int64_t n = 0;
        ASSERT_EQ(0, kelp_count(&n, q, opt_, &err_)) << err_.text;
        EXPECT_EQ(static_cast<int64_t>(want[0].size()), n);
    }
    EXPECT_GT(nonempty, 10);
}

TEST_F(Kelpd, SkipsRowGroupsByConditions) {
    for (int f = 0; f < 4; f++) {
        table_t t;
        t.column = {{"id", CVN_TYP_INT32, false, false}};
        t.value.resize(1);
        for (int i = 0; i < 100; i++) t.value[0].push_back(support::i32(f * 100 + i));
        upload("/db/sc/t/" + std::to_string(f) + ".cvn", t);
    }
    kelp_query_t q{.url = url("/db/sc/t")};
    q.cond = {{"id", CVN_OP_IN, {"250", "210", "299"}}};
    kelp_scan_t* scan = nullptr;
    ASSERT_EQ(0, kelp_scan_open(&scan, q, opt_, &err_)) << err_.text;
    kelp_batch_t* batch = nullptr;
    int64_t n = 0;
    int code;
    while ((code = kelp_scan_next(scan, &batch, &err_)) == 0) {
        n += batch->nrow;
        kelp_batch_free(batch);
    }
    EXPECT_EQ(KELP_END, code);
    kelp_scan_stat_t stat;
    kelp_scan_stat(scan, &stat);
    kelp_scan_close(scan);
    EXPECT_EQ(3, n);
    EXPECT_EQ(1, stat.nrowgroup);
    EXPECT_EQ(4, stat.total_nrowgroup);
}

TEST_F(Kelpd, RefusalsAreReportedInItsWords) {
    upload("/db/sc/t/a.cvn", support::all_types_table(1, 5));
    support::write_file(dir_ / "bad.cvn", "CVN1IX86 but no more");
    EXPECT_EQ(KELP_EREFUSED,
              kelp_upload(url("/db/sc/t"), (dir_ / "bad.cvn").c_str(), nullptr, nullptr, opt_, &err_));
    EXPECT_STREQ("400 Bad Request", err_.said);
    kelp_query_t q{.url = url("/db/sc/none")};
    int64_t n = 0;
    EXPECT_EQ(KELP_ENOTFOUND, kelp_count(&n, q, opt_, &err_));
    EXPECT_STREQ("404 Not Found", err_.said);
    // A second file without the column: the stream breaks off with the daemon's words, or fails at once.
    table_t other;
    other.column = {{"x", CVN_TYP_INT32, false, false}};
    other.value = {{support::i32(1)}};
    upload("/db/sc/t/b.cvn", other);
    q.url = url("/db/sc/t");
    q.column = {"x"};
    int code = 0;
    (void)scan_all(q, opt_, &code, &err_);
    if (code != KELP_EARG) {  // the columns are those of the file that comes first in the directory
        EXPECT_TRUE(code == KELP_ECUT || code == KELP_EREFUSED) << code;
        EXPECT_STREQ("400 Bad Request", err_.said);
    }
}

TEST_F(Kelpd, LargeFilesGoUpAndComeBackOverSeveralConnections) {
    // Row groups are cut at 32 MiB of values.
    table_t t;
    t.column = {{"id", CVN_TYP_INT64, true, false}, {"blob", CVN_TYP_CSTR, true, false}};
    t.value.resize(2);
    for (int i = 0; i < 70; i++) {
        t.value[0].push_back(support::i64(i));
        t.value[1].push_back(support::text(std::string(2 << 20, static_cast<char>('a' + i % 26))));
    }
    upload("/db/sc/t/big.cvn", t);
    kelp_meta_t meta;
    ASSERT_EQ(0, kelp_meta(&meta, url("/db/sc/t"), opt_, &err_));
    ASSERT_GT(meta.nrowgroup, 3);
    kelp_query_t q{.url = url("/db/sc/t")};
    q.njob = 3;
    q.column = {"blob", "id"};
    q.cond = {{"id", CVN_OP_GE, {"5"}}};
    int code = 0;
    const std::vector<values_t> got = scan_all(q, opt_, &code, &err_);
    ASSERT_EQ(KELP_END, code) << err_.text;
    std::vector<values_t> want{values_t(t.value[1].begin() + 5, t.value[1].end()),
                               values_t(t.value[0].begin() + 5, t.value[0].end())};
    EXPECT_TRUE(rows_of(want) == rows_of(got));
}

}  // namespace
