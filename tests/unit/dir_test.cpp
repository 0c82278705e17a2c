#include "store/dir.h"

#include <malloc.h>

#include "server_support.h"

namespace {
using namespace server_support;

class Dir : public DataDir {
 protected:
    // The names of a listing in its order, or the status.
    static std::vector<std::string> names(const char* path) {
        dir_item_t* ls = reinterpret_cast<dir_item_t*>(1);  // not null, so that the clearing is seen
        if (const char* err = dir_list(&ls, path)) {
            EXPECT_EQ(nullptr, ls);
            return {err};
        }
        std::vector<std::string> v;
        for (const dir_item_t* p = ls; p; p = p->next) v.push_back(p->name);
        dir_free(ls);
        return v;
    }
};
using strings = std::vector<std::string>;

TEST_F(Dir, AnEmptyDirectoryListsAsItselfAndItsParent) {
    strings v = names("base");
    std::sort(v.begin(), v.end());
    EXPECT_EQ((strings{".", ".."}), v);
}
TEST_F(Dir, ListsHiddenNamesAndAllKinds) {
    write_file("base/.h", "");
    write_file("base/f.tmp", "");
    fs::create_directory("base/d");
    strings v = names("base");
    std::sort(v.begin(), v.end());
    EXPECT_EQ((strings{".", "..", ".h", "d", "f.tmp"}), v);
}
TEST_F(Dir, KeepsTheOrderOfTheFileSystem) {
    for (int i = 0; i < 300; i++) write_file("base/" + std::to_string(i * 7919), "");
    strings want;
    for (const auto& e : fs::directory_iterator("base")) want.push_back(e.path().filename());
    strings got = names("base");
    std::erase_if(got, [](const std::string& s) { return s[0] == '.'; });
    EXPECT_EQ(want, got);
}
TEST_F(Dir, AFileAndAMissingPathAreNotFound) {
    write_file("f", "");
    EXPECT_EQ((strings{"404 Not Found"}), names("f"));
    EXPECT_EQ((strings{"404 Not Found"}), names("missing"));
}
TEST_F(Dir, ExistsOnlyWhenItCanBeOpened) {
    write_file("f", "");
    EXPECT_TRUE(dir_exists("base"));
    EXPECT_FALSE(dir_exists("f"));
    EXPECT_FALSE(dir_exists("missing"));
}
TEST_F(Dir, CreatesOneLevelWithTheMode) {
    EXPECT_TRUE(dir_create("base/n", 0700));
    EXPECT_EQ(fs::perms::owner_all, fs::status("base/n").permissions());
    EXPECT_FALSE(dir_create("base/n", 0700));
    EXPECT_FALSE(dir_create("base/x/y", 0700));
}
TEST_F(Dir, FreesEveryNodeAndNameAlsoWhereANameIsMissing) {
    const auto make_and_free = [](int nnode) {
        dir_item_t* lst = nullptr;
        for (int i = 0; i < nnode; i++) {
            dir_item_t* p = static_cast<dir_item_t*>(calloc(1, sizeof(*p)));
            p->name = i % 2 ? strdup("name") : nullptr;
            p->next = lst;
            lst = p;
        }
        dir_free(lst);
    };
    // What the allocator keeps for the next time is there from then on.
    for (int i = 0; i < 100; i++) make_and_free(i % 7);
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 100; i++) make_and_free(i % 7);  // none at all among them
    EXPECT_EQ(before, mallinfo2().uordblks);
}
}  // namespace
