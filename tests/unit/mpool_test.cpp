// The memory pool: list, alignment, growing, and the end of the process on a broken magic.
#include "colvane/mpool.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

// Under the address sanitizer, sizes that cannot be had give null, as they do without it.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

mpool_item_t* item_of(void* ptr) {
    return reinterpret_cast<mpool_item_t*>(static_cast<char*>(ptr) - sizeof(mpool_item_t));
}

size_t count(const mpool_t* mp) {
    size_t n = 0;
    for (const mpool_item_t* it = mp->head; it && n < 1000000; it = it->next) n++;
    return n;
}

TEST(Mpool, StartsEmptyWithItsMagic) {
    mpool_t* mp = mpool_create();
    ASSERT_NE(nullptr, mp);
    EXPECT_EQ(0xCDAB77AA, mp->magic);
    EXPECT_EQ(nullptr, mp->head);
    mpool_destroy(mp);
}

TEST(Mpool, KeepsTheOuterTwoWhenTheMiddleOfThreeBlocksIsFreed) {
    mpool_t* mp = mpool_create();
    void* a = mpool_alloc(mp, 10);
    void* b = mpool_alloc(mp, 20);
    void* c = mpool_alloc(mp, 30);
    ASSERT_EQ(item_of(c), mp->head);
    mpool_free(mp, b);
    EXPECT_EQ(2u, count(mp));
    EXPECT_EQ(item_of(c), mp->head);
    EXPECT_EQ(item_of(a), mp->head->next);
    EXPECT_EQ(item_of(c), item_of(a)->prev);
    EXPECT_EQ(nullptr, item_of(c)->prev);
    EXPECT_EQ(nullptr, item_of(a)->next);
    mpool_reset(mp);
    EXPECT_EQ(nullptr, mp->head);
    mpool_destroy(mp);
}

TEST(Mpool, MovesItsHeadWhenTheNewestBlockIsFreed) {
    mpool_t* mp = mpool_create();
    void* a = mpool_alloc(mp, 1);
    void* b = mpool_alloc(mp, 1);
    mpool_free(mp, b);
    EXPECT_EQ(item_of(a), mp->head);
    EXPECT_EQ(nullptr, item_of(a)->prev);
    mpool_free(mp, a);
    EXPECT_EQ(nullptr, mp->head);
    mpool_destroy(mp);
}

TEST(Mpool, UnlinksTheOldestBlock) {
    mpool_t* mp = mpool_create();
    void* a = mpool_alloc(mp, 1);
    void* b = mpool_alloc(mp, 1);
    mpool_free(mp, a);
    EXPECT_EQ(item_of(b), mp->head);
    EXPECT_EQ(nullptr, item_of(b)->next);
    mpool_destroy(mp);
}

TEST(Mpool, RecordsMagicAndSizeInEveryHeader) {
    mpool_t* mp = mpool_create();
    void* a = mpool_alloc(mp, 77);
    EXPECT_EQ(0xCDAB77AA, item_of(a)->magic);
    EXPECT_EQ(77, item_of(a)->alloc_sz);
    mpool_destroy(mp);
}

TEST(Mpool, AlignsEveryPointerTo16) {
    mpool_t* mp = mpool_create();
    void* grown = nullptr;
    for (size_t n = 0; n < 300; n += 7) {
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(mpool_alloc(mp, n)) % 16);
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(mpool_calloc(mp, n)) % 16);
        grown = mpool_realloc(mp, grown, n * 3 + 1);
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(grown) % 16);
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(mpool_strdup(mp, std::string(n, 'x').c_str())) % 16);
    }
    mpool_destroy(mp);
}

TEST(Mpool, CallocClearsMemoryThatWasUsedBefore) {
    mpool_t* mp = mpool_create();
    void* a = mpool_alloc(mp, 4096);
    memset(a, 0xff, 4096);
    mpool_free(mp, a);
    const char* b = static_cast<char*>(mpool_calloc(mp, 4096));
    EXPECT_EQ(std::string(4096, '\0'), std::string(b, 4096));
    mpool_destroy(mp);
}

TEST(Mpool, ReturnsTheSameBlockWhenShrunk) {
    mpool_t* mp = mpool_create();
    void* a = mpool_alloc(mp, 100);
    EXPECT_EQ(a, mpool_realloc(mp, a, 10));
    EXPECT_EQ(100, item_of(a)->alloc_sz);
    EXPECT_EQ(a, mpool_realloc(mp, a, 100));
    EXPECT_EQ(1u, count(mp));
    mpool_destroy(mp);
}

TEST(Mpool, MovesTheContentsWhenGrown) {
    mpool_t* mp = mpool_create();
    char* a = static_cast<char*>(mpool_alloc(mp, 6));
    std::copy_n("abcdef", 6, a);
    char* b = static_cast<char*>(mpool_realloc(mp, a, 5000));
    ASSERT_NE(nullptr, b);
    EXPECT_NE(a, b);
    EXPECT_EQ("abcdef", std::string(b, 6));
    EXPECT_EQ(5000, item_of(b)->alloc_sz);
    EXPECT_EQ(1u, count(mp));
    mpool_destroy(mp);
}

TEST(Mpool, AllocatesWhenANullPointerIsResized) {
    mpool_t* mp = mpool_create();
    void* a = mpool_realloc(mp, nullptr, 12);
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(item_of(a), mp->head);
    mpool_destroy(mp);
}

TEST(Mpool, KeepsTheOldBlockWhenItCannotGrow) {
    mpool_t* mp = mpool_create();
    char* a = static_cast<char*>(mpool_alloc(mp, 3));
    std::copy_n("abc", 3, a);
    EXPECT_EQ(nullptr, mpool_realloc(mp, a, size_t{1} << 62));
    EXPECT_EQ("abc", std::string(a, 3));
    EXPECT_EQ(item_of(a), mp->head);
    EXPECT_EQ(1u, count(mp));
    mpool_destroy(mp);
}

TEST(Mpool, ReturnsNullForASizeThatCannotBe) {
    mpool_t* mp = mpool_create();
    for (const size_t n :
         {SIZE_MAX, SIZE_MAX - 8, SIZE_MAX - sizeof(mpool_item_t), size_t{1} << 63, size_t{1} << 62}) {
        EXPECT_EQ(nullptr, mpool_alloc(mp, n)) << n;
        EXPECT_EQ(nullptr, mpool_calloc(mp, n)) << n;
    }
    EXPECT_EQ(nullptr, mp->head);
    mpool_destroy(mp);
}

TEST(Mpool, CopiesAString) {
    mpool_t* mp = mpool_create();
    const std::string s = "some text";
    const char* copy = mpool_strdup(mp, s.c_str());
    EXPECT_STREQ("some text", copy);
    EXPECT_NE(s.c_str(), copy);
    EXPECT_STREQ("", mpool_strdup(mp, ""));
    mpool_destroy(mp);
}

TEST(Mpool, CopiesAtMostNCharacters) {
    mpool_t* mp = mpool_create();
    EXPECT_STREQ("abc", mpool_strndup(mp, "abcdef", 3));
    EXPECT_STREQ("a", mpool_strndup(mp, "abcdef", 1));
    EXPECT_STREQ("", mpool_strndup(mp, "abcdef", 0));
    EXPECT_STREQ("", mpool_strndup(mp, "abcdef", -5));
    EXPECT_STREQ("abcdef", mpool_strndup(mp, "abcdef", 6));
    EXPECT_STREQ("abcdef", mpool_strndup(mp, "abcdef", 100));
    EXPECT_STREQ("", mpool_strndup(mp, "", 4));
    mpool_destroy(mp);
}

TEST(Mpool, ReadsNoByteAfterTheNth) {
    mpool_t* mp = mpool_create();
    std::vector<char> exact = {'x', 'y', 'z'};  // no NUL; the address sanitizer watches its end
    EXPECT_STREQ("xyz", mpool_strndup(mp, exact.data(), 3));
    mpool_destroy(mp);
}

TEST(Mpool, StaysUsableAfterAReset) {
    mpool_t* mp = mpool_create();
    for (int i = 0; i < 100; i++) ASSERT_NE(nullptr, mpool_alloc(mp, 50));
    mpool_reset(mp);
    EXPECT_EQ(nullptr, mp->head);
    mpool_reset(mp);
    EXPECT_NE(nullptr, mpool_alloc(mp, 50));
    EXPECT_EQ(1u, count(mp));
    mpool_destroy(mp);
}

constexpr char FATAL[] = "^FATAL: internal error at mpool\\.cpp:[0-9]+\n$";

class MpoolDeathTest : public ::testing::Test {
 protected:
    void SetUp() override {
        ::testing::FLAGS_gtest_death_test_style = "threadsafe";
        mp_ = mpool_create();
        block_ = mpool_alloc(mp_, 8);
    }
    void TearDown() override { mpool_destroy(mp_); }
    mpool_t* mp_ = nullptr;
    void* block_ = nullptr;
};

TEST_F(MpoolDeathTest, EndsTheProcessWhenABlockWithABrokenHeaderIsFreed) {
    EXPECT_EXIT(
        {
            item_of(block_)->magic = 1;
            mpool_free(mp_, block_);
        },
        ::testing::ExitedWithCode(1), FATAL);
}

TEST_F(MpoolDeathTest, EndsTheProcessWhenABlockWithABrokenHeaderIsReset) {
    EXPECT_EXIT(
        {
            item_of(block_)->magic = 1;
            mpool_reset(mp_);
        },
        ::testing::ExitedWithCode(1), FATAL);
}

TEST_F(MpoolDeathTest, EndsTheProcessWhenABlockWithABrokenHeaderIsDestroyed) {
    EXPECT_EXIT(
        {
            item_of(block_)->magic = 1;
            mpool_destroy(mp_);
        },
        ::testing::ExitedWithCode(1), FATAL);
}

TEST_F(MpoolDeathTest, EndsTheProcessWhenABlockWithABrokenHeaderIsResized) {
    for (const size_t nb : {size_t{1}, size_t{8}, size_t{9}, size_t{1} << 62})
        EXPECT_EXIT(
            {
                item_of(block_)->magic = 1;
                (void)mpool_realloc(mp_, block_, nb);
            },
            ::testing::ExitedWithCode(1), FATAL)
            << nb;
}

TEST_F(MpoolDeathTest, EndsTheProcessOnEveryUseOfABrokenPool) {
    EXPECT_EXIT(
        {
            mp_->magic = 0;
            (void)mpool_alloc(mp_, 1);
        },
        ::testing::ExitedWithCode(1), FATAL);
    EXPECT_EXIT(
        {
            mp_->magic = 0;
            (void)mpool_calloc(mp_, 1);
        },
        ::testing::ExitedWithCode(1), FATAL);
    EXPECT_EXIT(
        {
            mp_->magic = 0;
            mpool_free(mp_, block_);
        },
        ::testing::ExitedWithCode(1), FATAL);
    EXPECT_EXIT(
        {
            mp_->magic = 0;
            (void)mpool_realloc(mp_, block_, 100);
        },
        ::testing::ExitedWithCode(1), FATAL);
    EXPECT_EXIT(
        {
            mp_->magic = 0;
            (void)mpool_realloc(mp_, block_, 8);  // which would have nothing to do
        },
        ::testing::ExitedWithCode(1), FATAL);
    EXPECT_EXIT(
        {
            mp_->magic = 0;
            (void)mpool_realloc(mp_, nullptr, 8);
        },
        ::testing::ExitedWithCode(1), FATAL);
    EXPECT_EXIT(
        {
            mp_->magic = 0;
            (void)mpool_strdup(mp_, "a");
        },
        ::testing::ExitedWithCode(1), FATAL);
    EXPECT_EXIT(
        {
            mp_->magic = 0;
            (void)mpool_strndup(mp_, "a", 1);
        },
        ::testing::ExitedWithCode(1), FATAL);
    EXPECT_EXIT(
        {
            mp_->magic = 0;
            mpool_reset(mp_);
        },
        ::testing::ExitedWithCode(1), FATAL);
    EXPECT_EXIT(
        {
            mp_->magic = 0;
            mpool_destroy(mp_);
        },
        ::testing::ExitedWithCode(1), FATAL);
}

TEST_F(MpoolDeathTest, NamesTheFileWithoutItsFolders) {
    EXPECT_EXIT(mpool_crash("/some/where/else.cpp", 42), ::testing::ExitedWithCode(1),
                "^FATAL: internal error at else\\.cpp:42\n$");
    EXPECT_EXIT(mpool_crash("plain.cpp", 7), ::testing::ExitedWithCode(1),
                "^FATAL: internal error at plain\\.cpp:7\n$");
}

}  // namespace
