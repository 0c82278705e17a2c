// Pages: what a head may claim, what a body must hold, and memory that is used again.
#include "rows/page.h"

#include <gtest/gtest.h>
#include <lz4.h>
#include <string.h>
#include <xxhash.h>

#include <string>
#include <string_view>
#include <vector>

using namespace rows;

namespace {

cvn_page_t head_of(cvn_typ_t typ, int32_t nrow, int32_t valuesz) {
    cvn_page_t head{};
    head.magic = CVN_PAGE_MAGIC;
    head.typ = typ;
    head.nrow = nrow;
    head.nmapoff = valuesz;
    head.nbyte = head.zbyte = valuesz + (nrow + 7) / 8;
    return head;
}

// Decodes a page that is stored as it is. Returns what is wrong with it.
std::string decode(column_t* col, bufpool_t* pool, cvn_typ_t typ, int32_t nrow, const std::string& values,
                   const std::string& nullmap, int32_t nnull) {
    cvn_page_t head = head_of(typ, nrow, static_cast<int32_t>(values.size()));
    head.nnull = nnull;
    const std::string body = values + nullmap;
    head.hash = static_cast<int32_t>(XXH32(body.data(), body.size(), 0));
    if (const char* why = page_check(head)) return why;
    col->value = buf_get(pool, body.size());
    memcpy(col->value.p, body.data(), body.size());
    const char* why = page_unpack(pool, &col->value, head, col->value.p);
    if (!why) why = page_view(pool, col, head, "c");
    return why ? why : "";
}

std::string le32(int32_t v) { return {reinterpret_cast<const char*>(&v), sizeof(v)}; }

}  // namespace

TEST(RowsPage, RefusesAHeadWhoseNumbersDoNotFitEachOther) {
    const cvn_page_t good = head_of(CVN_TYP_INT32, 10, 40);
    EXPECT_EQ(nullptr, page_check(good));
    const auto refused = [&](auto change, const char* why) {
        cvn_page_t head = good;
        change(&head);
        EXPECT_STREQ(why, page_check(head));
    };
    refused([](cvn_page_t* h) { h->typ = 12; }, "its type is unknown");
    refused([](cvn_page_t* h) { h->typ = 0; }, "its type is unknown");
    refused([](cvn_page_t* h) { h->nrow = -1; }, "its row counts are wrong");
    refused([](cvn_page_t* h) { h->nnull = -1; }, "its row counts are wrong");
    refused([](cvn_page_t* h) { h->nnull = 11; }, "its row counts are wrong");
    refused([](cvn_page_t* h) { h->nmapoff = -2; }, "its size does not fit its rows");
    refused([](cvn_page_t* h) { h->nmapoff = 39; }, "its size does not fit its rows");
    refused([](cvn_page_t* h) { h->nrow = INT32_MAX; }, "its size does not fit its rows");
    refused([](cvn_page_t* h) { h->nbyte = -1; }, "its size does not fit its rows");
    refused([](cvn_page_t* h) { h->nrow = 9; }, "its size does not fit its type");
    refused([](cvn_page_t* h) { h->zbyte = 43; }, "its stored size exceeds its size");
    refused([](cvn_page_t* h) { h->zbyte = -1; }, "its stored size exceeds its size");
    cvn_page_t bomb = head_of(CVN_TYP_INT32, 8000, 32000);
    bomb.zbyte = bomb.nbyte / 255;
    EXPECT_EQ(nullptr, page_check(bomb));
    bomb.zbyte--;
    EXPECT_STREQ("its stored size is too small for its size", page_check(bomb));
    cvn_page_t text = head_of(CVN_TYP_CSTR, 10, 9);
    EXPECT_STREQ("its size does not fit its rows", page_check(text));
    text = head_of(CVN_TYP_BYTEA, 10, 39);
    EXPECT_STREQ("its size does not fit its rows", page_check(text));
}

TEST(RowsPage, GivesEveryValueOfAWholePage) {
    bufpool_t pool;
    column_t col;
    ASSERT_EQ("", decode(&col, &pool, CVN_TYP_CSTR, 3, std::string("ab\0\0c\0", 6), "\x40", 1));
    EXPECT_EQ("ab", cvn_vec_text(col.vec, 0));
    EXPECT_TRUE(cvn_vec_isnull(col.vec, 1));
    EXPECT_EQ("c", cvn_vec_text(col.vec, 2));
    cvn_datum_t datum;
    cvn_vec_datum(col.vec, 2, &datum);
    EXPECT_STREQ("c", datum.t);
    column_free(&pool, &col);
    ASSERT_EQ("", decode(&col, &pool, CVN_TYP_BYTEA, 2, le32(0) + le32(2) + "xy", std::string(1, '\0'), 0));
    EXPECT_EQ("", cvn_vec_text(col.vec, 0));
    EXPECT_EQ("xy", cvn_vec_text(col.vec, 1));
    column_free(&pool, &col);
    ASSERT_EQ("", decode(&col, &pool, CVN_TYP_BOOL, 2, std::string("\2\0", 2), std::string(1, '\0'), 0));
    cvn_vec_datum(col.vec, 0, &datum);
    EXPECT_EQ(1, static_cast<unsigned char>(datum.raw[0]));  // any byte but 0 is true, and true is 1
    column_free(&pool, &col);
}

TEST(RowsPage, RefusesValuesThatDoNotFillThePage) {
    bufpool_t pool;
    column_t col;
    const std::string none(1, '\0');
    EXPECT_EQ("its values do not fit its size",
              decode(&col, &pool, CVN_TYP_CSTR, 2, std::string("ab\0c", 4), none, 0));
    column_free(&pool, &col);
    EXPECT_EQ("its values do not fit its size",
              decode(&col, &pool, CVN_TYP_CSTR, 1, std::string("\0\0", 2), none, 0));
    column_free(&pool, &col);
    EXPECT_EQ("its values do not fit its size",
              decode(&col, &pool, CVN_TYP_BYTEA, 1, le32(5) + "abcd", none, 0));
    column_free(&pool, &col);
    EXPECT_EQ("its values do not fit its size",
              decode(&col, &pool, CVN_TYP_BYTEA, 1, le32(-1) + "abcd", none, 0));
    column_free(&pool, &col);
    EXPECT_EQ("its values do not fit its size",
              decode(&col, &pool, CVN_TYP_BYTEA, 1, le32(3) + "abcd", none, 0));
    column_free(&pool, &col);
    EXPECT_EQ("its null bitmap does not match its count of NULLs",
              decode(&col, &pool, CVN_TYP_BOOL, 3, "abc", "\x40", 2));
    column_free(&pool, &col);
}

TEST(RowsPage, ChecksTheHashBeforeItDecompresses) {
    bufpool_t pool;
    std::string raw(8192, 'a');
    raw += std::string(1024, '\0');
    std::vector<char> stored(static_cast<size_t>(LZ4_compressBound(static_cast<int>(raw.size()))));
    const int zbyte = LZ4_compress_default(raw.data(), stored.data(), static_cast<int>(raw.size()),
                                           static_cast<int>(stored.size()));
    ASSERT_GT(zbyte, 0);
    cvn_page_t head = head_of(CVN_TYP_BOOL, 8192, 8192);
    head.zbyte = zbyte;
    head.hash = static_cast<int32_t>(XXH32(stored.data(), static_cast<size_t>(zbyte), 0));
    buf_t out;
    EXPECT_EQ(nullptr, page_unpack(&pool, &out, head, stored.data()));
    EXPECT_EQ(raw, std::string(out.p, raw.size()));
    stored[10] = static_cast<char>(stored[10] ^ 1);
    EXPECT_STREQ("its hash does not match", page_unpack(&pool, &out, head, stored.data()));
    head.hash = static_cast<int32_t>(XXH32(stored.data(), static_cast<size_t>(zbyte) - 1, 0));
    stored[10] = static_cast<char>(stored[10] ^ 1);
    head.zbyte = zbyte - 1;
    head.hash = static_cast<int32_t>(XXH32(stored.data(), static_cast<size_t>(head.zbyte), 0));
    EXPECT_STREQ("it does not decompress to its size", page_unpack(&pool, &out, head, stored.data()));
    buf_put(&pool, out);
}

TEST(RowsPage, KeepsTheRowsThatAreListed) {
    bufpool_t pool;
    column_t col;
    ASSERT_EQ("", decode(&col, &pool, CVN_TYP_CSTR, 5, std::string("a\0bb\0\0dddd\0e\0", 14).substr(0, 13),
                         "\x20", 1));
    const int32_t row[] = {1, 2, 4};
    column_compact(&col, row);
    EXPECT_EQ(3, col.vec.nrow);
    EXPECT_EQ(1, col.vec.nnull);
    EXPECT_EQ("bb", cvn_vec_text(col.vec, 0));
    EXPECT_TRUE(cvn_vec_isnull(col.vec, 1));
    EXPECT_EQ("e", cvn_vec_text(col.vec, 2));
    column_free(&pool, &col);
}

TEST(RowsPage, GivesMemoryOutAgain) {
    bufpool_t pool;
    const buf_t first = buf_get(&pool, 5000);
    ASSERT_NE(nullptr, first.p);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(first.p) % 64);
    EXPECT_GE(first.cap, 5000 + BUF_SLACK);
    buf_put(&pool, first);
    const buf_t again = buf_get(&pool, 4800);
    EXPECT_EQ(first.p, again.p);
    const buf_t other = buf_get(&pool, 4800);
    EXPECT_NE(again.p, other.p);
    buf_put(&pool, again);
    buf_put(&pool, other);
    const buf_t small = buf_get(&pool, 100);  // one of a much larger size stays for what needs it
    EXPECT_NE(first.p, small.p);
    buf_put(&pool, small);
    EXPECT_EQ(again.cap + other.cap + small.cap, pool.idlesz);
    buf_put(&pool, buf_t{});
    EXPECT_EQ(again.cap + other.cap + small.cap, pool.idlesz);
}
