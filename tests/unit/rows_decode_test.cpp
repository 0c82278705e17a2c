// Pages of every type with the bytes that writers make of them, and with every byte that lies.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <random>

#include "client/replies.h"

using namespace rows;

namespace {

using replies::hash_of;
using replies::page;
using replies::values_of;
using support::image;
using support::table_t;
using support::text;
using support::value_t;
using support::values_t;
using namespace std::string_literals;

// Pages.

struct decoded_t {
    std::string why;  // empty when all is well
    values_t value;
};

// Decodes a page as a connection does, every buffer exactly as large as asked for.
decoded_t decode(const std::string& bytes) {
    decoded_t d;
    cvn_page_t head;
    memcpy(&head, bytes.data(), CVN_PAGE_HEADSZ);
    const std::string stored = bytes.substr(CVN_PAGE_HEADSZ);
    bufpool_t pool;
    column_t col;
    const char* why = page_check(head);
    if (!why && head.zbyte == head.nbyte) {
        col.value = buf_get(&pool, stored.size());
        memcpy(col.value.p, stored.data(), stored.size());
    }
    if (!why) why = page_unpack(&pool, &col.value, head, stored.data());
    if (!why) why = page_view(&pool, &col, head, "c");
    if (!why) d.value = values_of(col.vec);
    d.why = why ? why : "";
    column_free(&pool, &col);
    return d;
}

TEST(RowsPage, GivesBackTheValuesOfEveryType) {
    for (const size_t nrow : {0u, 1u, 7u, 8u, 9u, 64u, 1000u}) {
        const table_t t = support::all_types_table(nrow + 1, nrow);
        for (size_t c = 0; c < t.column.size(); c++)
            for (const bool compress : {false, true}) {
                const decoded_t d = decode(page(0, t.column[c].typ, t.value[c], compress));
                EXPECT_EQ("", d.why);
                EXPECT_EQ(t.value[c], d.value) << t.column[c].name << " " << nrow;
            }
    }
}

TEST(RowsPage, FixedWidthValuesLieWhereTheyWereDecompressed) {
    values_t v;
    for (int i = 0; i < 5000; i++) v.push_back(support::i64(i % 10));
    const std::string bytes = page(0, CVN_TYP_INT64, v, true);
    cvn_page_t head;
    memcpy(&head, bytes.data(), CVN_PAGE_HEADSZ);
    ASSERT_LT(head.zbyte, head.nbyte);
    bufpool_t pool;
    column_t col;
    ASSERT_EQ(nullptr, page_unpack(&pool, &col.value, head, bytes.data() + CVN_PAGE_HEADSZ));
    const char* where = col.value.p;
    ASSERT_EQ(nullptr, page_view(&pool, &col, head, "c"));
    EXPECT_EQ(where, col.vec.value);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(where) % 64);
    EXPECT_EQ(nullptr, col.offset.p);
    column_free(&pool, &col);
}

// A page of `typ` with one field of its head changed, and the hash left right.
void refuse(const char* what, int32_t typ, const values_t& v, bool compress, size_t at, int32_t value) {
    std::string bytes = page(0, typ, v, compress);
    support::patch(bytes, at, value);
    const decoded_t d = decode(bytes);
    EXPECT_NE("", d.why) << what;
    EXPECT_TRUE(d.value.empty()) << what;
}

TEST(RowsPage, RefusesEverySizeThatLies) {
    values_t ints, texts, bytes;
    for (int i = 0; i < 100; i++) {
        ints.push_back(support::i32(7));
        texts.push_back(text("abc"));
        bytes.push_back(text("ab"));
    }
    constexpr size_t TYP = 8, NROW = 12, NNULL = 16, NMAPOFF = 20, NBYTE = 24, ZBYTE = 28, HASH = 32;
    refuse("type", CVN_TYP_INT32, ints, false, TYP, CVN_TYP_INT64);
    refuse("type unknown", CVN_TYP_INT32, ints, false, TYP, 12);
    refuse("rows negative", CVN_TYP_INT32, ints, false, NROW, -1);
    refuse("rows too many", CVN_TYP_INT32, ints, false, NROW, 101);
    refuse("rows too few", CVN_TYP_INT32, ints, false, NROW, 99);
    refuse("rows at the limit", CVN_TYP_INT32, ints, false, NROW, INT32_MAX);
    refuse("nulls negative", CVN_TYP_INT32, ints, false, NNULL, -1);
    refuse("nulls above rows", CVN_TYP_INT32, ints, false, NNULL, 101);
    refuse("nulls that the bitmap does not have", CVN_TYP_INT32, ints, false, NNULL, 1);
    refuse("bitmap negative", CVN_TYP_INT32, ints, false, NMAPOFF, -13);
    refuse("bitmap elsewhere", CVN_TYP_INT32, ints, false, NMAPOFF, 399);
    refuse("bitmap at the limit", CVN_TYP_INT32, ints, false, NMAPOFF, INT32_MAX);
    refuse("size negative", CVN_TYP_INT32, ints, false, NBYTE, -1);
    refuse("size larger, as if compressed", CVN_TYP_INT32, ints, false, NBYTE, 414);
    refuse("stored size above size", CVN_TYP_INT32, ints, true, ZBYTE, 414);
    refuse("hash", CVN_TYP_INT32, ints, false, HASH, 0);
    refuse("texts more than bytes", CVN_TYP_CSTR, texts, false, NROW, 408);
    refuse("byte strings more than lengths", CVN_TYP_BYTEA, bytes, false, NROW, 160);
}

TEST(RowsPage, RefusesACompressedSizeThatIsTooSmallToBeTrue) {
    cvn_page_t head{};
    head.typ = CVN_TYP_INT64;
    head.nrow = 1 << 20;
    head.nmapoff = 8 << 20;
    head.nbyte = (8 << 20) + (1 << 17);
    head.zbyte = 100;
    EXPECT_STREQ("its stored size is too small for its size", page_check(head));
}

TEST(RowsPage, RefusesValuesThatDoNotFit) {
    const std::string UNFIT = "its values do not fit its size";
    // The head is right; the body is not.
    const auto with_body = [](int32_t typ, int32_t nrow, const std::string& values) {
        cvn_page_t head{};
        head.magic = CVN_PAGE_MAGIC;
        head.typ = typ;
        head.nrow = nrow;
        const std::string body = values + std::string(static_cast<size_t>((nrow + 7) / 8), '\0');
        head.nmapoff = static_cast<int32_t>(values.size());
        head.nbyte = head.zbyte = static_cast<int32_t>(body.size());
        head.hash = hash_of(body);
        return image(head) + body;
    };
    using support::le32;
    EXPECT_EQ("", decode(with_body(CVN_TYP_CSTR, 2, "ab\0c\0"s)).why);
    EXPECT_EQ(UNFIT, decode(with_body(CVN_TYP_CSTR, 2, "ab\0cd"s)).why);
    EXPECT_EQ(UNFIT, decode(with_body(CVN_TYP_CSTR, 2, "ab\0\0\0"s)).why);
    EXPECT_EQ(UNFIT, decode(with_body(CVN_TYP_CSTR, 3, "ab\0c\0"s)).why);
    EXPECT_EQ("", decode(with_body(CVN_TYP_BYTEA, 2, le32(1) + "a" + le32(0))).why);
    EXPECT_EQ(UNFIT, decode(with_body(CVN_TYP_BYTEA, 2, le32(2) + "a" + le32(0))).why);
    EXPECT_EQ(UNFIT, decode(with_body(CVN_TYP_BYTEA, 2, le32(-1) + "a" + le32(0))).why);
    EXPECT_EQ(UNFIT, decode(with_body(CVN_TYP_BYTEA, 2, le32(INT32_MAX) + "a" + le32(0))).why);
    EXPECT_EQ(UNFIT, decode(with_body(CVN_TYP_BYTEA, 1, le32(1) + "a" + le32(0))).why);
}

TEST(RowsPage, RefusesACompressedBodyWithAnyByteChanged) {
    values_t v;
    for (int i = 0; i < 300; i++) v.push_back(text("abcabcabc" + std::to_string(i % 7)));
    const std::string bytes = page(0, CVN_TYP_CSTR, v, true);
    for (size_t i = CVN_PAGE_HEADSZ; i < bytes.size(); i++) {
        std::string bad = bytes;
        bad[i] = static_cast<char>(bad[i] ^ 1);
        EXPECT_EQ("its hash does not match", decode(bad).why) << i;
        // The same from one who can compute a hash: an error or other values, but nothing out of bounds.
        support::patch(bad, 32, hash_of(bad.substr(CVN_PAGE_HEADSZ)));
        const decoded_t d = decode(bad);
        EXPECT_TRUE(d.why.empty() || d.why.starts_with("it")) << i << d.why;
        EXPECT_TRUE(!d.why.empty() || d.value.size() == v.size()) << i;
    }
}

TEST(RowsTexts, AreFoundWhereverTheirEndsLie) {
    std::mt19937_64 rng(3);
    for (int round = 0; round < 400; round++) {
        const size_t n = rng() % 300;
        std::string bytes = support::random_bytes(rng, n);
        for (char& c : bytes) c = static_cast<char>(rng() % (2 + rng() % 40));
        std::vector<int32_t> want{0};
        for (size_t i = 0; i < n; i++)
            if (!bytes[i]) want.push_back(static_cast<int32_t>(i) + 1);
        const auto nrow = static_cast<int32_t>(want.size()) - 1;
        std::string padded = bytes + std::string(BUF_SLACK, '\0');  // NULs behind the end must not count
        const bool ends = n == 0 || bytes.back() == '\0';
        std::vector<int32_t> got(want.size() + 16, -1);
        EXPECT_EQ(ends, find_texts(got.data(), padded.data(), static_cast<int32_t>(n), nrow)) << round;
        got.resize(want.size());
        EXPECT_EQ(want, got) << round;
        std::vector<int32_t> room(want.size() + 17);
        EXPECT_FALSE(find_texts(room.data(), padded.data(), static_cast<int32_t>(n), nrow + 1));
        if (nrow > 0) {
            EXPECT_FALSE(find_texts(room.data(), padded.data(), static_cast<int32_t>(n), nrow - 1));
        }
    }
}

// Two gigabytes of address space that a few pages of memory fill over and over.
TEST(RowsTexts, AreFoundInPagesOfNearlyTwoGigabytes) {
    constexpr size_t BLOCK = size_t{2} << 20, NBLOCK = 1024;
    const int fd[2] = {memfd_create("middle", MFD_CLOEXEC), memfd_create("end", MFD_CLOEXEC)};
    constexpr int32_t VALUESZ = INT32_MAX - 10;
    for (int i = 0; i < 2; i++) {
        std::string block(BLOCK, 'x');
        if (i == 1) block[VALUESZ % BLOCK - 1] = '\0';
        ASSERT_GE(fd[i], 0);
        ASSERT_EQ(static_cast<ssize_t>(BLOCK), pwrite(fd[i], block.data(), BLOCK, 0));
    }
    void* all =
        mmap(nullptr, BLOCK * (NBLOCK + 1), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(MAP_FAILED, all);
    auto* value = static_cast<char*>(all);
    for (size_t b = 0; b <= NBLOCK; b++)
        ASSERT_NE(MAP_FAILED, mmap(value + b * BLOCK, BLOCK, PROT_READ, MAP_SHARED | MAP_FIXED,
                                   fd[b == VALUESZ / BLOCK], 0));
    int32_t offset[18] = {};
    EXPECT_TRUE(find_texts(offset, value, VALUESZ, 1));
    EXPECT_EQ(VALUESZ, offset[1]);
    munmap(all, BLOCK * (NBLOCK + 1));
    for (const int f : fd) close(f);
}

}  // namespace
