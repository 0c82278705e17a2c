// Every allocation and every call that makes an upload durable fails once, by number: the n-th for n = 1, 2,
// ... until the operation runs without a fault. So does every write of a chunk, and reads of a bad byte of a
// file. The linker puts the functions below in front of the C library's.
#include <dirent.h>
#include <errno.h>
#include <stdarg.h>
#include <sys/uio.h>

#include <sstream>

#include "server/conf.h"
#include "server_support.h"
#include "store/dir.h"
#include "store/util.h"

namespace {
// The faults of the test under way. The client's thread allocates as well, but not through these names.
int fail_at = 0;  // the number of the allocation that fails, 0 for none
int ncall = 0;
bool fired = false;
const char* failed = "";         // the function whose allocation failed
const char* fail_name = "";      // the system call that fails
std::vector<std::string> trace;  // system calls in their order
int fail_writev = 0;             // the number of the write of a chunk, the last included, that fails, or 0
int nwritev = 0;
// A disk that fails: of the file of this inode, the byte at `bad_byte` cannot be read. `good_reads` of them
// still succeed.
ino_t bad_ino = 0;
int64_t bad_byte = 0;
int good_reads = 0;
int nbad_read = 0;
int nbad_send = 0;
int fail_readdir = 0;  // the number of the directory entry that cannot be read, or 0
int nreaddir = 0;

bool due(const char* name) {
    if (fail_at == 0 || ++ncall != fail_at) return false;
    fired = true;
    failed = name;
    errno = ENOMEM;
    return true;
}
bool due(const char* name, const std::string& what) {
    trace.push_back(name + (" " + what));
    if (strcmp(name, fail_name) != 0) return false;
    fired = true;
    errno = EIO;
    return true;
}
// Whether a read of these bytes meets the bad one.
bool meets_bad_byte(int fd, int64_t offset, size_t n) {
    struct stat st;
    return bad_ino != 0 && offset <= bad_byte && bad_byte - offset < static_cast<int64_t>(n) &&
           fstat(fd, &st) == 0 && st.st_ino == bad_ino;
}
std::string name_of(int fd) {
    char path[4096];
    const ssize_t n = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path));
    return std::filesystem::path(std::string(path, n > 0 ? static_cast<size_t>(n) : 0)).filename();
}
}  // namespace

extern "C" {
void* __real_malloc(size_t n);
void* __real_calloc(size_t n, size_t sz);
void* __real_realloc(void* p, size_t n);
char* __real_strdup(const char* s);
char* __real_strndup(const char* s, size_t n);
int __real_fdatasync(int fd);
int __real_fsync(int fd);
int __real_rename(const char* from, const char* to);
ssize_t __real_write(int fd, const void* buf, size_t n);
ssize_t __wrap_write(int fd, const void* buf, size_t n);
ssize_t __real_writev(int fd, const iovec* iov, int niov);
void* __wrap_malloc(size_t n);
void* __wrap_calloc(size_t n, size_t sz);
void* __wrap_realloc(void* p, size_t n);
char* __wrap_strdup(const char* s);
char* __wrap_strndup(const char* s, size_t n);
int __wrap_asprintf(char** ret, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int __wrap___asprintf_chk(char** ret, int flag, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
int __wrap_fdatasync(int fd);
int __wrap_fsync(int fd);
int __wrap_rename(const char* from, const char* to);
ssize_t __wrap_writev(int fd, const iovec* iov, int niov);
struct dirent* __real_readdir(DIR* d);
struct dirent* __wrap_readdir(DIR* d);
ssize_t __real_pread(int fd, void* buf, size_t n, off_t offset);
ssize_t __wrap_pread(int fd, void* buf, size_t n, off_t offset);
ssize_t __real_sendfile(int to, int from, off_t* offset, size_t n);
ssize_t __wrap_sendfile(int to, int from, off_t* offset, size_t n);

void* __wrap_malloc(size_t n) { return due("malloc") ? nullptr : __real_malloc(n); }
void* __wrap_calloc(size_t n, size_t sz) { return due("calloc") ? nullptr : __real_calloc(n, sz); }
void* __wrap_realloc(void* p, size_t n) { return due("realloc") ? nullptr : __real_realloc(p, n); }
char* __wrap_strdup(const char* s) { return due("strdup") ? nullptr : __real_strdup(s); }
char* __wrap_strndup(const char* s, size_t n) { return due("strndup") ? nullptr : __real_strndup(s, n); }
static int asprintf_or_fail(char** ret, const char* fmt, va_list ap) {
    if (!due("asprintf")) return vasprintf(ret, fmt, ap);
    *ret = reinterpret_cast<char*>(1);  // undefined after a failure: it must not be freed
    return -1;
}
int __wrap_asprintf(char** ret, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int n = asprintf_or_fail(ret, fmt, ap);
    va_end(ap);
    return n;
}
// What a build with the C library's checks calls instead.
int __wrap___asprintf_chk(char** ret, int, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int n = asprintf_or_fail(ret, fmt, ap);
    va_end(ap);
    return n;
}
int __wrap_fdatasync(int fd) { return due("fdatasync", name_of(fd)) ? -1 : __real_fdatasync(fd); }
int __wrap_fsync(int fd) { return due("fsync", name_of(fd)) ? -1 : __real_fsync(fd); }
int __wrap_rename(const char* from, const char* to) {
    return due("rename", std::filesystem::path(to).filename()) ? -1 : __real_rename(from, to);
}
ssize_t __wrap_writev(int fd, const iovec* iov, int niov) {
    if (++nwritev != fail_writev) return __real_writev(fd, iov, niov);
    errno = EMSGSIZE;
    return -1;
}
ssize_t __wrap_write(int fd, const void* buf, size_t n) {
    const bool last_chunk = n == 5 && memcmp(buf, "0\r\n\r\n", n) == 0;
    if (!last_chunk || ++nwritev != fail_writev) return __real_write(fd, buf, n);
    errno = EMSGSIZE;
    return -1;
}
struct dirent* __wrap_readdir(DIR* d) {
    if (++nreaddir != fail_readdir) return __real_readdir(d);
    errno = EIO;
    return nullptr;
}
ssize_t __wrap_pread(int fd, void* buf, size_t n, off_t offset) {
    if (!meets_bad_byte(fd, offset, n) || good_reads-- > 0) return __real_pread(fd, buf, n, offset);
    nbad_read++;
    errno = EIO;
    return -1;
}
ssize_t __wrap_sendfile(int to, int from, off_t* offset, size_t n) {
    if (!meets_bad_byte(from, *offset, n)) return __real_sendfile(to, from, offset, n);
    nbad_send++;
    errno = EIO;
    return -1;
}
}

namespace {
using namespace server_support;

using strings = std::vector<std::string>;

constexpr char NOMEM[] = "500 Internal Server Error - out of memory";
constexpr char ERROR[] = "500 Internal Server Error";
constexpr char BAD[] = "400 Bad Request";
constexpr char BAD_URL[] = "400 Bad Request - invalid url";
constexpr char BAD_CONTENT[] = "400 Bad Request - invalid content";

// What comes of the failure of each of these allocations, one word each. A data file that is opened, for its
// statistics too, takes two: the library's pools.
strings outcomes(const std::string& functions, const std::string& result) {
    strings lst;
    std::istringstream in(functions);
    for (std::string name; in >> name;) lst.push_back(name.append(": ").append(result));
    return lst;
}
strings operator+(strings a, const strings& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class ServerFault : public DataDir {
 protected:
    void SetUp() override {
        DataDir::SetUp();
        fs::create_directories(dir);
        write_cvn(dir + "/p.cvn", {{"id", CVN_TYP_INT32}, {"note", CVN_TYP_CSTR}}, 100);
        fail_at = ncall = 0;
        fired = false;
        failed = fail_name = "";
        fail_writev = nwritev = 0;
        fail_readdir = nreaddir = 0;
        bad_ino = 0;
        good_reads = nbad_read = nbad_send = 0;
        trace.clear();
        const char* path = getenv("PATH");
        path_ = path ? path : "";
    }
    void TearDown() override {
        setenv("PATH", path_.c_str(), 1);
        DataDir::TearDown();
    }
    // Puts a sampler on the search path that gives the file "sampled", whatever it is asked for.
    void sampler() {
        fs::create_directory("bin");
        write_file("bin/cvnsamp", "#!/bin/sh\ncat sampled\n");
        fs::permissions("bin/cvnsamp", fs::perms::owner_all);
        setenv("PATH", (fs::absolute("bin").string() + ":" + path_).c_str(), 1);
    }
    // Calls `use` with the n-th allocation failing for n = 1, 2, ... until it runs without a fault, which
    // must come after at least `least` of them. `use` is told whether a fault is due.
    static void each_allocation(int least, const std::function<void()>& use) {
        for (int n = 1; n < 1000; n++) {
            fail_at = n;
            ncall = 0;
            fired = false;
            use();
            fail_at = 0;
            if (!fired) {
                EXPECT_GT(n, least);
                return;
            }
        }
        FAIL() << "never ran without a fault";
    }
    // One handler under faults: without one the reply is `want`. What came of each is compared to `expected`,
    // in order: "function: " and the status, or the whole reply when the handler passed the failure over.
    // `before` runs before each.
    static void handler(
        const char* (*h)(htrequest_t*, htreply_t*), const std::string& bytes, const std::string& want,
        const strings& expected, const std::function<void()>& before = [] {}) {
        strings got;
        each_allocation(0, [&] {
            const int due_at = fail_at;
            fail_at = 0;
            before();
            client_t client(bytes);
            htrequest_t* req = nullptr;
            htreply_t* reply = nullptr;
            testing::internal::CaptureStderr();
            fail_at = due_at;
            const char* err = htreq_create(&req, client.fd());
            const bool unread = err != nullptr;
            if (err) {
                EXPECT_STREQ("out of memory", err);
                EXPECT_EQ(nullptr, req);
            } else if ((err = htreply_create(&reply, req))) {
                EXPECT_STREQ("out_of_memory", err);
                EXPECT_EQ(nullptr, reply);
            } else {
                err = h(req, reply);
            }
            fail_at = 0;
            const std::string log = testing::internal::GetCapturedStderr();
            if (unread) {
                EXPECT_EQ("", log);
            }
            const std::string sent = mask_date(client.finish());
            if (fired) {
                got.push_back(failed + (": " + (err ? err : sent)));
                if (err) {
                    EXPECT_EQ("", sent) << err;
                }
            } else {
                EXPECT_EQ(nullptr, err);
                EXPECT_EQ(want, sent);
            }
            free(reply);
            free(req);
            fail_at = due_at;
        });
        EXPECT_EQ(expected, got);
    }
    // The allocations of the request and the reply.
    static strings begin() {
        return outcomes("malloc", "out of memory") + outcomes("malloc", "out_of_memory");
    }
    // Those of a URL path of `ncomponent` components and of the file path that is made of it.
    static strings url_path(int ncomponent, const char* parse = NOMEM) {
        strings lst = begin() + outcomes("calloc strndup", parse);
        for (int i = 0; i < ncomponent; i++) lst = lst + outcomes("strdup", parse);
        return lst + outcomes("asprintf", NOMEM);
    }
    // Those of a listing of `nname` names and the two that every directory has.
    static strings listing(int nname) {
        strings lst;
        for (int i = 0; i < nname + 2; i++) lst = lst + outcomes("calloc strdup", NOMEM);
        return lst;
    }
    static std::string request(const std::string& method, const std::string& url, const std::string& body) {
        return method + " " + url + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
               "\r\n\r\n" + body;
    }
    static std::string record(int32_t nbyte, const strings& page) {
        std::string s = record_header(nbyte);
        for (const std::string& p : page) s += chunk(p);
        return s;
    }
    // A page as the reply to the command "meta" has it: one int64.
    static std::string total(int32_t cno, int64_t value) {
        return le32(0x19293949) + le32(cno) + le32(4) + le32(1) + le32(0) + le32(8) + le32(9) + le32(9) +
               le32(0) + le32(0) + le64(value) + "\0"s;
    }
    const std::string dir = "base/d/s/e";
    std::string path_;
};

TEST_F(ServerFault, ConfLoadFailsWithEnomemAndClearsTheList) {
    write_file("conf", "a=1\nb=2\\\nc\n");
    each_allocation(7, [] {
        conf_t* lst = reinterpret_cast<conf_t*>(1);
        const int err = conf_load(&lst, "conf");
        EXPECT_EQ(fired ? ENOMEM : 0, err);
        EXPECT_EQ(fired, lst == nullptr);
        conf_free(lst);
    });
}
TEST_F(ServerFault, ARequestWithoutMemoryIsRefusedInSilence) {
    int nfired = 0;
    each_allocation(1, [&] {
        client_t client("GET /v1 HTTP/1.1\r\n\r\n");
        htrequest_t* req = reinterpret_cast<htrequest_t*>(1);
        const int n = fail_at;
        fail_at = 0;
        testing::internal::CaptureStderr();
        fail_at = n;
        const char* err = htreq_create(&req, client.fd());
        fail_at = 0;
        EXPECT_EQ("", testing::internal::GetCapturedStderr());
        EXPECT_STREQ(fired ? "out of memory" : nullptr, err);
        EXPECT_EQ(fired, req == nullptr);
        nfired += fired;
        free(req);
    });
    EXPECT_EQ(1, nfired);
}
TEST_F(ServerFault, UrlFunctionsReturnNull) {
    char text[] = "a b";
    each_allocation(4, [&] {
        char* s[4] = {hturl_path("/a"), hturl_query("/a?b"), hturl_fragment("/a#c"), hturl_encode(text)};
        int nnull = 0;
        for (char* p : s) {
            nnull += !p;
            free(p);
        }
        EXPECT_EQ(fired ? 1 : 0, nnull);
    });
    each_allocation(3, [] { hturl_test(); });
}
TEST_F(ServerFault, TblpathParseFailsWithItsStatus) {
    each_allocation(6, [] {
        tblpath_t* t = reinterpret_cast<tblpath_t*>(1);
        const char* err = tblpath_parse(&t, "/v1/a/b/c/d");
        EXPECT_STREQ(fired ? NOMEM : nullptr, err);
        EXPECT_EQ(fired, t == nullptr);
        tblpath_free(t);
    });
}
TEST_F(ServerFault, TextAddfLeavesTheTextAsItWas) {
    text_t t = {};
    ASSERT_TRUE(text_addf(&t, "%s", std::string(200, 'a').c_str()));
    each_allocation(1, [&] {
        const bool ok = text_addf(&t, "%s", std::string(100, 'b').c_str());
        EXPECT_EQ(!fired, ok);
        if (fired) {
            EXPECT_EQ(std::string(200, 'a'), t.ptr);
        }
    });
    text_free(&t);
}
TEST_F(ServerFault, DirListFailsWithItsStatus) {
    each_allocation(6, [&] {
        dir_item_t* ls = reinterpret_cast<dir_item_t*>(1);
        const char* err = dir_list(&ls, dir.c_str());
        EXPECT_STREQ(fired ? NOMEM : nullptr, err);
        EXPECT_EQ(fired, ls == nullptr);
        dir_free(ls);
    });
}
TEST_F(ServerFault, ADirectoryThatCannotBeReadToItsEndIsNotListed) {
    int n = 1;
    for (; n < 100; n++) {
        dir_item_t* lst = reinterpret_cast<dir_item_t*>(1);
        fail_readdir = n;
        nreaddir = 0;
        const char* err = dir_list(&lst, dir.c_str());
        fail_readdir = 0;
        if (nreaddir < n) {
            EXPECT_EQ(nullptr, err);
            dir_free(lst);
            break;
        }
        EXPECT_STREQ(ERROR, err) << n;
        EXPECT_EQ(nullptr, lst) << n;
    }
    EXPECT_EQ(5, n) << "two dots, one file, the end";
}
TEST_F(ServerFault, ParsingAQueryFailsWithoutALeak) {
    std::string many = R"({"column":["c")";
    for (int i = 1; i < 250; i++) many += R"(,"c")";
    many += "]}";
    strings many_failed =
        outcomes("realloc realloc realloc realloc", NOMEM);  // the tokens do not fit at first
    for (int i = 0; i < 250; i++) many_failed = many_failed + outcomes("calloc strndup", NOMEM);
    // Inside a condition, and nowhere else, want of memory has the status of bad content.
    const std::string cond = R"("condition":[["a","in",["1","2"]],["b","isnull"]])";
    const strings cond_failed = outcomes("calloc strndup strndup calloc strndup strndup", BAD_CONTENT) +
                                outcomes("calloc strndup strndup", BAD_CONTENT);
    const std::string column = R"("column":["a","b"])", command = R"("command":["x","y"])",
                      fragment = R"("fragment":[0,1])";
    const strings tokens = outcomes("realloc realloc realloc", NOMEM),
                  column_failed = outcomes("calloc strndup calloc strndup", NOMEM),
                  command_failed = outcomes("strndup strndup", NOMEM);
    const struct {
        std::string json;
        strings expected;
    } query[] = {
        {"{" + column + "}", tokens + column_failed},
        {"{" + cond + "}", tokens + cond_failed},
        {"{" + command + "}", tokens + command_failed},
        {"{" + fragment + "}", tokens},
        {"{" + column + "," + cond + "," + command + "," + fragment + "}",
         tokens + column_failed + cond_failed + command_failed},
        {many, many_failed},
    };
    for (const auto& q : query) {
        strings got;
        each_allocation(0, [&] {
            colname_t* colname = reinterpret_cast<colname_t*>(1);
            cond_t* cond_list = reinterpret_cast<cond_t*>(1);
            command_t cmd;
            fragment_t frag;
            const char* err = parse_entity_request(&colname, &cond_list, &cmd, &frag, q.json.c_str(),
                                                   static_cast<int>(q.json.size()));
            if (fired) {
                got.push_back(failed + (": "s + (err ? err : "passed over")));
                EXPECT_EQ(nullptr, colname);
                EXPECT_EQ(nullptr, cond_list);
            } else {
                EXPECT_EQ(nullptr, err);
            }
            colname_free(colname);
            cond_free(cond_list);
            command_free(&cmd);
        });
        EXPECT_EQ(q.expected, got) << q.json;
    }
}
TEST_F(ServerFault, AListOfWhichASubPathCannotBeFormattedLacksThatNameAlone) {
    fs::create_directories("base/n/one");
    fs::create_directories("base/n/two");
    strings name;
    for (const auto& e : fs::directory_iterator("base/n")) name.push_back(e.path().filename());
    ASSERT_EQ(2u, name.size());
    const auto list = [](const std::string& names) { return json_reply("[" + names + "]"); };
    const std::string first = "\"" + name[0] + "\"", second = "\"" + name[1] + "\"";
    handler(do_get, request("GET", "/v1/n", ""), list(first + "," + second),
            url_path(1) + listing(2) + outcomes("malloc", NOMEM) + outcomes("asprintf", list(second)) +
                outcomes("asprintf", list(first)));
}
TEST_F(ServerFault, GetOfAnEntityFailsWithItsStatuses) {
    const std::string want = get("/v1/d/s/e").reply;
    // A file whose statistics cannot be read is left out.
    handler(do_get, request("GET", "/v1/d/s/e", ""), want,
            url_path(3) + listing(1) + outcomes("realloc", NOMEM) +
                outcomes("calloc calloc", json_reply("[]\n")));
}
TEST_F(ServerFault, GetOfAPartitionFailsWithItsStatuses) {
    const std::string want = get("/v1/d/s/e/p.cvn").reply;
    handler(do_get, request("GET", "/v1/d/s/e/p.cvn", ""), want,
            url_path(4) + outcomes("calloc calloc calloc calloc", ERROR) + outcomes("realloc", NOMEM));
}
TEST_F(ServerFault, AnUploadNeedsNoBufferOfItsOwn) {
    fail_at = static_cast<int>((url_path(4) + outcomes("asprintf", NOMEM)).size()) + 1;
    const result_t r = put("/v1/d/s/e/f", "x");
    fail_at = 0;
    // The buffer stays for later uploads of a process, whose next allocation is that of a copied path.
    if (strcmp(failed, "strdup") == 0) GTEST_SKIP() << "another test of this process has made the buffer";
    ASSERT_STREQ("malloc", failed);
    EXPECT_EQ(nullptr, r.status);
    EXPECT_EQ(OK_HEAD, r.reply);
    EXPECT_EQ("x", read_file(dir + "/f"));
}
TEST_F(ServerFault, PutFailsWithItsStatusesAndLeavesNoTemporaryFile) {
    const std::string bytes = read_file(dir + "/p.cvn");
    ASSERT_EQ(nullptr, put("/v1/d/s/e/p.cvn", bytes).status);  // the stream's buffer is there from now on
    handler(do_put, request("PUT", "/v1/d/s/e/p.cvn", bytes), OK_HEAD,
            url_path(4) + outcomes("asprintf", NOMEM) + outcomes("calloc calloc", BAD) +
                outcomes("strdup", OK_HEAD),
            [&] {
                EXPECT_TRUE(bytes == read_file(dir + "/p.cvn"));
                EXPECT_EQ(strings{dir + "/p.cvn"}, tree(dir));
            });
    EXPECT_TRUE(bytes == read_file(dir + "/p.cvn"));
    EXPECT_EQ(strings{dir + "/p.cvn"}, tree(dir));
}
TEST_F(ServerFault, PutIntoNewDirectoriesFailsWithItsStatuses) {
    ASSERT_EQ(nullptr, put("/v1/d/s/e/f", "x").status);
    handler(do_put, request("PUT", "/v1/n/s/e/f", "x"), OK_HEAD,
            url_path(4) + outcomes("asprintf", NOMEM) + outcomes("asprintf asprintf asprintf", ERROR) +
                outcomes("strdup", OK_HEAD),
            [] { fs::remove_all("base/n"); });
    EXPECT_EQ("x", read_file("base/n/s/e/f"));
}
TEST_F(ServerFault, DeleteFailsWithItsStatuses) {
    // Of the path that is joined alone it is told that memory is wanting.
    handler(do_delete, request("DELETE", "/v1/d/s/none", ""), OK_HEAD, url_path(3, BAD_URL));
    handler(do_delete, request("DELETE", "/v1/d/s/e/none", ""), OK_HEAD, url_path(4, BAD_URL));
}
TEST_F(ServerFault, CountsFailWithTheirStatuses) {
    const std::string want = post("/v1/d/s/e", "{}").reply;
    // The statistics of a file and the page of zeros are the server's fault without a reason.
    const strings count = listing(1) + outcomes("asprintf", NOMEM) + outcomes("calloc calloc calloc", ERROR);
    handler(do_post, request("POST", "/v1/d/s/e", "{}"), want,
            url_path(3) + outcomes("malloc realloc realloc realloc", NOMEM) + count);
    handler(do_post, request("POST", "/v1/d/s/e", ""), want,
            url_path(3) + outcomes("strdup realloc realloc realloc", NOMEM) + count);
}
TEST_F(ServerFault, ScansFailWithTheirStatuses) {
    const std::string body =
        R"({"column":["id","note"],"condition":[["note","==","5"],["id","in",["1","7"]]]})";
    const std::string want = post("/v1/d/s/e", body).reply;
    handler(do_post, request("POST", "/v1/d/s/e", body), want,
            url_path(3) + outcomes("malloc realloc realloc realloc calloc strndup calloc strndup", NOMEM) +
                outcomes("calloc strndup strndup calloc strndup", BAD_CONTENT) +
                outcomes("calloc strndup strndup calloc strndup strndup", BAD_CONTENT) + listing(1) +
                outcomes("asprintf", NOMEM) + outcomes("calloc calloc", ERROR) +
                outcomes("malloc malloc", BAD));  // the values of each condition
}
TEST_F(ServerFault, MetaFailsWithItsStatuses) {
    const auto want = [](int64_t nrow, int64_t nrowgroup) {
        return STREAM_HEAD + record(98, {total(0, nrow), total(1, nrowgroup)}) + STREAM_END;
    };
    // A file whose statistics cannot be read is left out.
    handler(do_post, request("POST", "/v1/d/s/e", R"({"command":["meta"]})"), want(100, 1),
            url_path(3) + outcomes("malloc realloc realloc realloc strndup", NOMEM) + listing(1) +
                outcomes("asprintf", NOMEM) + outcomes("calloc calloc", want(0, 0)));
}
TEST_F(ServerFault, SamplesFailWithTheirStatusesAndLeaveNoFile) {
    sampler();
    write_cvn("sampled", {{"id", CVN_TYP_INT32}}, 3);
    const std::string body = R"({"command":["sample","3"]})";
    const std::string want = post("/v1/d/s/e", body).reply;
    EXPECT_GT(want.size(), STREAM_HEAD.size() + STREAM_END.size());
    // Once the head is sent, a failure shows as what is missing after it.
    handler(do_post, request("POST", "/v1/d/s/e", body), want,
            url_path(3) + outcomes("malloc realloc realloc realloc strndup strndup", NOMEM) + listing(1) +
                outcomes("realloc", NOMEM) + outcomes("calloc calloc", STREAM_HEAD));
    EXPECT_TRUE(fs::is_empty("tmp"));
}

TEST_F(ServerFault, MetaIsABadRequestWhenAnyOfItsFirstFourChunksCannotBeSent) {
    const strings sent = {record_header(98), chunk(total(0, 100)), chunk(total(1, 1)), record_header(0),
                          "0\r\n\r\n"};
    std::string so_far = STREAM_HEAD;
    for (int n = 1; n <= 6; n++) {
        fail_writev = n;
        nwritev = 0;
        const result_t r = post("/v1/d/s/e", R"({"command":["meta"]})");
        EXPECT_STREQ(n <= 4 ? BAD : nullptr, r.status) << n;  // nobody asks for the closing one
        EXPECT_EQ(so_far, r.reply) << n;
        EXPECT_EQ(n <= 5 ? n : 5, nwritev);  // nothing is tried after the one that failed
        if (n <= 5) so_far += sent[static_cast<size_t>(n) - 1];
    }
}
TEST_F(ServerFault, ASamplePassesOverTheRestOfARowGroupWhosePageCannotBeSent) {
    // Two row groups of two pages, compressed to little.
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, "sampled"));
    for (const char* name : {"a", "b"}) ASSERT_EQ(0, cvn_create_column(w, name, CVN_TYP_INT32, true, false));
    const cvn_datum_t v[2] = {};
    const bool isnull[2] = {};
    for (int i = 0; i < CVN_MAX_ROWGROUP_NROW + 5; i++) ASSERT_EQ(0, cvn_append(w, 2, v, isnull));
    ASSERT_EQ(0, cvn_close(w));
    cvn_scan_t* scan = nullptr;
    ASSERT_EQ(0, cvn_scan_open(&scan, "sampled"));
    for (const char* name : {"a", "b"}) ASSERT_EQ(0, cvn_scan_add_required(scan, name));
    strings head, page;
    for (int rg = 0; rg < 2; rg++) {
        int n = 0;
        cvn_page_t** p = nullptr;
        ASSERT_EQ(0, cvn_scan_rowgroup(scan, rg, &n, &p, false));
        ASSERT_EQ(2, n);
        size_t nbyte = 0;
        for (int i = 0; i < n; i++) {
            const size_t sz = static_cast<size_t>(CVN_PAGE_HEADSZ + p[i]->zbyte);
            page.push_back(chunk({reinterpret_cast<const char*>(p[i]), sz}));
            nbyte += sz;
        }
        head.push_back(record_header(static_cast<int32_t>(nbyte)));
    }
    cvn_scan_close(scan);

    const std::string first = head[0] + page[0] + page[1], second = head[1] + page[2] + page[3];
    const strings want = {
        first + second + STREAM_END,    // all that there is
        STREAM_END,                     // without a header there are no more row groups
        head[0] + second + STREAM_END,  // a page ends its own row group alone
        head[0] + page[0] + second + STREAM_END,
        first + STREAM_END,
        first + head[1] + STREAM_END,
        first + head[1] + page[2] + STREAM_END,
        first + second + "0\r\n\r\n",  // the end of the body is tried whatever became of the stream's
        first + second + record_header(0),
    };
    sampler();
    for (size_t n = 0; n < want.size(); n++) {
        fail_writev = static_cast<int>(n);
        nwritev = 0;
        const result_t r = post("/v1/d/s/e", R"({"command":["sample","3"]})");
        EXPECT_EQ(nullptr, r.status) << n;
        EXPECT_TRUE(STREAM_HEAD + want[n] == r.reply) << n << ": " << r.reply.size();
        EXPECT_TRUE(fs::is_empty("tmp")) << n;
    }
}

// A data file of two columns and two row groups, the pages of the first larger than what is read to prove
// them.
void write_large(const std::string& path) {
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, path.c_str()));
    for (const char* name : {"a", "b"}) ASSERT_EQ(0, cvn_create_column(w, name, CVN_TYP_INT64, false, false));
    cvn_datum_t v[2] = {};
    const bool isnull[2] = {};
    for (int64_t i = 0; i < CVN_MAX_ROWGROUP_NROW + 5; i++) {
        v[0].I = i;
        v[1].I = i * i;
        ASSERT_EQ(0, cvn_append(w, 2, v, isnull));
    }
    ASSERT_EQ(0, cvn_close(w));
}
// Makes the last byte of a page of the file bad; `rg` and `cno` say which.
void spoil(const std::string& path, int64_t rg, int cno) {
    cvn_scan_t* scan = nullptr;
    ASSERT_EQ(0, cvn_scan_open(&scan, path.c_str()));
    colmeta_t m;
    ASSERT_EQ(0, cvn_scan_colmeta(scan, rg, cno, &m));
    cvn_scan_close(scan);
    EXPECT_EQ(rg == 0, m.zbyte > 65536);
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    bad_byte = m.file_offset + m.zbyte - 1;
    bad_ino = st.st_ino;
}
TEST_F(ServerFault, AReadErrorInAnyPageOfTheFirstRecordIsAnOrdinaryError) {
    const std::string path = dir + "/p.cvn", body = R"({"column":["a","b"]})";
    write_large(path);
    for (int cno = 0; cno < 2; cno++) {
        spoil(path, 0, cno);
        nbad_read = nbad_send = 0;
        const result_t r = post("/v1/d/s/e", body);
        EXPECT_STREQ(BAD, r.status);
        EXPECT_EQ("", r.reply) << "so that the status can still be sent";
        EXPECT_EQ(1, nbad_read) << cno;
        EXPECT_EQ(cno, nbad_send) << "the first page is read, not proved";
    }
    // A small first row group, where reading is the proof.
    write_cvn(path, {{"a", CVN_TYP_INT32}, {"b", CVN_TYP_INT32}}, 5);
    cvn_scan_t* scan = nullptr;
    ASSERT_EQ(0, cvn_scan_open(&scan, path.c_str()));
    colmeta_t m;
    ASSERT_EQ(0, cvn_scan_colmeta(scan, 0, 1, &m));
    cvn_scan_close(scan);
    bad_byte = m.file_offset;
    nbad_read = nbad_send = 0;
    const result_t r = post("/v1/d/s/e", body);
    EXPECT_STREQ(BAD, r.status);
    EXPECT_EQ("", r.reply);
    EXPECT_EQ(1, nbad_read);
    EXPECT_EQ(0, nbad_send);
}
TEST_F(ServerFault, AReadErrorInALaterRecordEndsTheStreamAfterTheWholeRecordsBeforeIt) {
    const std::string path = dir + "/p.cvn", body = R"({"column":["a","b"]})";
    write_large(path);
    std::string first = post("/v1/d/s/e", R"({"column":["a","b"],"fragment":[0,2]})").reply;
    ASSERT_TRUE(first.ends_with(STREAM_END));
    first.resize(first.size() - STREAM_END.size());
    for (int cno = 0; cno < 2; cno++) {
        spoil(path, 1, cno);
        nbad_read = 0;
        const result_t r = post("/v1/d/s/e", body);
        EXPECT_STREQ(BAD, r.status);
        EXPECT_TRUE(first == r.reply) << cno << ": " << r.reply.size();
        EXPECT_EQ(1, nbad_read) << cno;
    }
}
TEST_F(ServerFault, APageThatFailsAfterItWasProvedCutsItsRecord) {
    const std::string path = dir + "/p.cvn";
    write_cvn(path, {{"a", CVN_TYP_INT32}, {"b", CVN_TYP_INT32}}, 5);
    const std::string whole = post("/v1/d/s/e", R"({"column":["a","b"]})").reply;
    cvn_scan_t* scan = nullptr;
    ASSERT_EQ(0, cvn_scan_open(&scan, path.c_str()));
    colmeta_t m;
    ASSERT_EQ(0, cvn_scan_colmeta(scan, 0, 1, &m));
    cvn_scan_close(scan);
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    bad_byte = m.file_offset;
    bad_ino = st.st_ino;
    good_reads = 1;
    const result_t r = post("/v1/d/s/e", R"({"column":["a","b"]})");
    EXPECT_STREQ(BAD, r.status);
    const std::string page(CVN_PAGE_HEADSZ + static_cast<size_t>(m.zbyte), '\0');
    EXPECT_TRUE(whole.substr(0, whole.size() - chunk(page).size() - STREAM_END.size()) == r.reply)
        << r.reply.size();
    EXPECT_EQ(1, nbad_read);
}
TEST_F(ServerFault, WithoutAWayToPassPagesOverTheyAreReadAndSentAllTheSame) {
    const std::string path = dir + "/p.cvn", body = R"({"column":["a","b"]})";
    write_large(path);
    const std::string want = post("/v1/d/s/e", body).reply;
    spoil(path, 0, 1);
    good_reads = 2;
    const result_t r = post("/v1/d/s/e", body);
    EXPECT_EQ(nullptr, r.status);
    EXPECT_TRUE(want == r.reply) << r.reply.size();
    EXPECT_EQ(1, nbad_send);
    EXPECT_EQ(0, good_reads);
}
TEST_F(ServerFault, ASampleOfWhichARowGroupCannotBeReadEndsWithItsEndRecord) {
    write_large("sampled");
    // The sampler gives the file itself, so that its inode is known.
    fs::create_directory("bin");
    write_file("bin/cvnsamp", "#!/bin/sh\nln -f sampled \"$(readlink /proc/$$/fd/1)\"\n");
    fs::permissions("bin/cvnsamp", fs::perms::owner_all);
    setenv("PATH", (fs::absolute("bin").string() + ":" + path_).c_str(), 1);
    const std::string body = R"({"command":["sample","3"]})";
    const std::string whole = post("/v1/d/s/e", body).reply;
    fs::remove(dir + "/p.cvn");
    fs::copy("sampled", dir + "/p.cvn");
    std::string first = post("/v1/d/s/e", R"({"column":["a","b"],"fragment":[0,2]})").reply;
    ASSERT_TRUE(whole.ends_with(STREAM_END));
    ASSERT_GT(whole.size(), first.size());
    first.resize(first.size() - STREAM_END.size());
    for (int rg = 0; rg < 2; rg++)
        for (int cno = 0; cno < 2; cno++) {
            spoil("sampled", rg, cno);
            nbad_read = 0;
            const result_t r = post("/v1/d/s/e", body);
            EXPECT_EQ(nullptr, r.status);
            EXPECT_TRUE((rg == 0 ? STREAM_HEAD : first) + STREAM_END == r.reply)
                << rg << cno << r.reply.size();
            EXPECT_EQ(1, nbad_read) << rg << cno;
            EXPECT_TRUE(fs::is_empty("tmp"));
        }
}

TEST_F(ServerFault, AnUploadIsFlushedBeforeTheRenameAndAllDirectoriesAboveItAfter) {
    // Whether this upload made the directories or found them: whoever made them may not have flushed them.
    for (const std::string database : {"d", "n"}) {
        trace.clear();
        EXPECT_EQ(nullptr, put("/v1/" + database + "/s/e/f", "x").status);
        ASSERT_EQ(6u, trace.size());
        EXPECT_TRUE(trace[0].starts_with("fdatasync f.") && trace[0].ends_with(".tmp")) << trace[0];
        EXPECT_EQ((strings{"rename f", "fsync e", "fsync s", "fsync " + database, "fsync base"}),
                  strings(trace.begin() + 1, trace.end()));
    }
}
TEST_F(ServerFault, ARefusedUploadIsNotFlushed) {
    EXPECT_STREQ("400 Bad Request", put("/v1/d/s/e/p.cvn", "no data file").status);
    EXPECT_STREQ("400 Bad Request", put("/v1/d/s/e/p.cvn.mismatch", "no data file").status);
    EXPECT_EQ(strings{}, trace);
}
TEST_F(ServerFault, AFailedFlushIsAServerErrorWithoutLeftover) {
    fail_name = "fdatasync";
    fired = false;
    EXPECT_STREQ("500 Internal Server Error", put("/v1/d/s/e/f", "x").status);
    EXPECT_TRUE(fired);
    EXPECT_EQ(strings{dir + "/p.cvn"}, tree(dir));
    EXPECT_EQ(1u, trace.size());
}
TEST_F(ServerFault, AFailedRenameIsAServerErrorWithoutLeftover) {
    fail_name = "rename";
    fired = false;
    EXPECT_STREQ("500 Internal Server Error", put("/v1/d/s/e/f", "x").status);
    EXPECT_TRUE(fired);
    EXPECT_EQ(strings{dir + "/p.cvn"}, tree(dir));
}
TEST_F(ServerFault, AFailedFlushOfTheDirectoryChangesNothing) {
    fail_name = "fsync";
    fired = false;
    const result_t r = put("/v1/d/s/e/f", "x");
    EXPECT_EQ(nullptr, r.status);
    EXPECT_EQ(OK_HEAD, r.reply);
    EXPECT_EQ("", r.log);
    EXPECT_TRUE(fired);
    EXPECT_EQ("x", read_file(dir + "/f"));
}
}  // namespace
