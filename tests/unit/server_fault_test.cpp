// Every allocation and every call that makes an upload durable fails once, by number: the n-th for n = 1, 2,
// ... until the operation runs without a fault. The linker puts the functions below in front of the C
// library's.
#include <errno.h>
#include <stdarg.h>

#include <set>

#include "server/conf.h"
#include "store/dir.h"
#include "store/util.h"
#include "tests/server_support.h"

namespace {
// The faults of the test under way. The client's thread allocates as well, but not through these names.
int fail_at = 0;  // the number of the allocation that fails, 0 for none
int ncall = 0;
bool fired = false;
const char* fail_name = "";      // the system call that fails
std::vector<std::string> trace;  // system calls in their order

bool due() {
    if (fail_at == 0 || ++ncall != fail_at) return false;
    fired = true;
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
void* __wrap_malloc(size_t n);
void* __wrap_calloc(size_t n, size_t sz);
void* __wrap_realloc(void* p, size_t n);
char* __wrap_strdup(const char* s);
char* __wrap_strndup(const char* s, size_t n);
int __wrap_asprintf(char** ret, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int __wrap_fdatasync(int fd);
int __wrap_fsync(int fd);
int __wrap_rename(const char* from, const char* to);

void* __wrap_malloc(size_t n) { return due() ? nullptr : __real_malloc(n); }
void* __wrap_calloc(size_t n, size_t sz) { return due() ? nullptr : __real_calloc(n, sz); }
void* __wrap_realloc(void* p, size_t n) { return due() ? nullptr : __real_realloc(p, n); }
char* __wrap_strdup(const char* s) { return due() ? nullptr : __real_strdup(s); }
char* __wrap_strndup(const char* s, size_t n) { return due() ? nullptr : __real_strndup(s, n); }
int __wrap_asprintf(char** ret, const char* fmt, ...) {
    if (due()) {
        *ret = reinterpret_cast<char*>(1);  // undefined after a failure: it must not be freed
        return -1;
    }
    va_list ap;
    va_start(ap, fmt);
    const int n = vasprintf(ret, fmt, ap);
    va_end(ap);
    return n;
}
int __wrap_fdatasync(int fd) { return due("fdatasync", name_of(fd)) ? -1 : __real_fdatasync(fd); }
int __wrap_fsync(int fd) { return due("fsync", name_of(fd)) ? -1 : __real_fsync(fd); }
int __wrap_rename(const char* from, const char* to) {
    return due("rename", std::filesystem::path(to).filename()) ? -1 : __real_rename(from, to);
}
}

namespace {
using namespace server_support;

constexpr char NOMEM[] = "500 Internal Server Error - out of memory";

class ServerFault : public DataDir {
 protected:
    void SetUp() override {
        DataDir::SetUp();
        fs::create_directories(dir);
        write_cvn(dir + "/p.cvn", {{"id", CVN_TYP_INT32}, {"note", CVN_TYP_CSTR}}, 100);
        fail_at = ncall = 0;
        fail_name = "";
        trace.clear();
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
    // One handler under faults: without one the reply is `want`, with one the status is among `status` or,
    // when the failure may be passed over, the handler succeeds.
    static void handler(int least, const char* (*h)(htrequest_t*, htreply_t*), const std::string& bytes,
                        const std::set<std::string>& status, const std::string& want) {
        each_allocation(least, [&] {
            client_t client(bytes);
            htrequest_t* req = nullptr;
            htreply_t* reply = nullptr;
            testing::internal::CaptureStderr();
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
                if (err) {
                    EXPECT_EQ(1u, status.count(err)) << err;
                }
                if (!err) {
                    EXPECT_TRUE(fired || mask_date(client.finish()) == want);
                }
            }
            const int saved = fail_at;
            fail_at = 0;
            EXPECT_TRUE(err == nullptr || fired) << err;
            const std::string log = testing::internal::GetCapturedStderr();
            if (unread) {
                EXPECT_EQ("", log);
            }
            free(reply);
            free(req);
            fail_at = saved;
        });
    }
    static std::string request(const std::string& method, const std::string& url, const std::string& body) {
        return method + " " + url + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
               "\r\n\r\n" + body;
    }
    const std::string dir = "base/d/s/e";
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
TEST_F(ServerFault, ParsingAQueryFailsWithoutALeak) {
    const std::string json =
        R"({"column":["a","b"],"condition":[["a","in",["1","2"]],["b","isnull"]],"command":["x"],"fragment":[0,1]})";
    each_allocation(10, [&] {
        colname_t* colname = nullptr;
        cond_t* cond = nullptr;
        command_t cmd;
        fragment_t frag;
        const char* err =
            parse_entity_request(&colname, &cond, &cmd, &frag, json.c_str(), static_cast<int>(json.size()));
        // Inside a condition want of memory has the status of bad content.
        if (fired) {
            EXPECT_TRUE(err && (err == std::string(NOMEM) || err == std::string(STATUS_BAD_CONTENT)));
        }
        if (!fired) {
            EXPECT_EQ(nullptr, err);
        }
        colname_free(colname);
        cond_free(cond);
        command_free(&cmd);
    });
}
TEST_F(ServerFault, GetFailsWithItsStatuses) {
    const std::string levels[] = {"/v1", "/v1/d/s/e", "/v1/d/s/e/p.cvn"};
    for (const std::string& url : levels) {
        const std::string bytes = request("GET", url, "");
        const std::string want = get(url).reply;
        handler(8, do_get, bytes, {NOMEM, "500 Internal Server Error"}, want);
    }
}
TEST_F(ServerFault, PutFailsWithItsStatusesAndLeavesNoTemporaryFile) {
    const std::string bytes = read_file(dir + "/p.cvn");
    handler(8, do_put, request("PUT", "/v1/d/s/e/p.cvn", bytes),
            {NOMEM, "400 Bad Request", "500 Internal Server Error"}, OK_HEAD);
    EXPECT_TRUE(bytes == read_file(dir + "/p.cvn"));
    EXPECT_EQ((std::vector<std::string>{dir + "/p.cvn"}), tree(dir));
}
TEST_F(ServerFault, DeleteFailsWithItsStatuses) {
    handler(6, do_delete, request("DELETE", "/v1/d/s/none", ""), {NOMEM, "400 Bad Request - invalid url"},
            OK_HEAD);
}
TEST_F(ServerFault, ScansAndCommandsFailWithTheirStatuses) {
    const std::string bodies[] = {
        "{}", R"({"command":["meta"]})", R"({"command":["sample","3"]})",
        R"({"column":["id","note"],"condition":[["note","==","5"],["id",">","1"]]})"};
    for (const std::string& body : bodies) {
        const std::string want = post("/v1/d/s/e", body).reply;
        handler(10, do_post, request("POST", "/v1/d/s/e", body),
                {NOMEM, "400 Bad Request", "400 Bad Request - invalid content", "500 Internal Server Error"},
                want);
    }
    EXPECT_TRUE(fs::is_empty("tmp"));
}

using strings = std::vector<std::string>;

TEST_F(ServerFault, AnUploadIsFlushedBeforeTheRenameAndItsDirectoryAfter) {
    EXPECT_EQ(nullptr, put("/v1/d/s/e/f", "x").status);
    ASSERT_EQ(3u, trace.size());
    EXPECT_TRUE(trace[0].starts_with("fdatasync f.") && trace[0].ends_with(".tmp")) << trace[0];
    EXPECT_EQ((strings{"rename f", "fsync e"}), strings(trace.begin() + 1, trace.end()));
}
TEST_F(ServerFault, TheDirectoriesAboveANewOneAreFlushedAsWell) {
    EXPECT_EQ(nullptr, put("/v1/n/s/e/f", "x").status);
    ASSERT_EQ(6u, trace.size());
    EXPECT_EQ((strings{"rename f", "fsync e", "fsync s", "fsync n", "fsync base"}),
              strings(trace.begin() + 1, trace.end()));
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
