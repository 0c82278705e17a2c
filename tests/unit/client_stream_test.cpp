// The decoding half of the client without a network: chunks, records, pages, texts and filters.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cmath>
#include <functional>

#include "client/replies.h"

namespace {

using namespace replies;
using support::null_value;
using support::text;
using namespace std::string_literals;

// A stream's user that keeps all it is given.
struct kept_t {
    std::vector<std::string> body;
    std::vector<page_head_t> head;
    std::vector<int> npage;
    std::vector<char> room;
};

stream_t make_stream(kept_t* kept, int64_t limit = 1 << 20) {
    stream_t st{};
    st.user.record_begin = [](void*, int32_t, kelp_error_t*) { return 0; };
    st.user.page_begin = [](void* arg, int, const page_head_t& head, char** dst, kelp_error_t*) {
        auto* k = static_cast<kept_t*>(arg);
        k->room.resize(static_cast<size_t>(head.zbyte) + 1);
        *dst = k->room.data();
        return 0;
    };
    st.user.page_end = [](void* arg, int, const page_head_t& head, kelp_error_t*) {
        auto* k = static_cast<kept_t*>(arg);
        k->body.emplace_back(k->room.data(), static_cast<size_t>(head.zbyte));
        k->head.push_back(head);
        return 0;
    };
    st.user.record_end = [](void* arg, int npage, kelp_error_t*) {
        static_cast<kept_t*>(arg)->npage.push_back(npage);
        return 0;
    };
    st.user.arg = kept;
    st.max_record_nbyte = limit;
    return st;
}

int feed_in(const std::string& bytes, size_t step, kept_t* kept, kelp_error_t* err) {
    stream_t st = make_stream(kept);
    for (size_t i = 0; i < bytes.size(); i += step)
        if (const int code = stream_feed(&st, bytes.data() + i, std::min(step, bytes.size() - i), err))
            return code;
    return stream_end(&st, err);
}

std::string small_stream() {
    const values_t a{support::i32(1), null_value(), support::i32(3)};
    const values_t b{text("x"), text(""), text("zz")};
    const values_t none;
    return join(record({page(0, CVN_TYP_INT32, a, false), page(1, CVN_TYP_CSTR, b, false)})) +
           join(record({page(0, CVN_TYP_INT32, none, false)})) + record_head(0);
}

TEST(ClientStream, GivesTheSamePagesHoweverTheBytesArrive) {
    const std::string bytes = small_stream();
    kelp_error_t err{};
    kept_t whole;
    ASSERT_EQ(0, feed_in(bytes, bytes.size(), &whole, &err)) << err.text;
    ASSERT_EQ(3u, whole.body.size());
    EXPECT_EQ((std::vector<int>{2, 1}), whole.npage);
    for (size_t step = 1; step < bytes.size(); step++) {
        kept_t part;
        ASSERT_EQ(0, feed_in(bytes, step, &part, &err)) << step;
        EXPECT_EQ(whole.body, part.body) << step;
        EXPECT_EQ(whole.npage, part.npage) << step;
    }
}

TEST(ClientStream, TakesNoPrefixForWhole) {
    const std::string bytes = small_stream();
    for (size_t n = 0; n < bytes.size(); n++) {
        kept_t kept;
        kelp_error_t err{};
        EXPECT_EQ(KELP_ECUT, feed_in(bytes.substr(0, n), n ? n : 1, &kept, &err)) << n;
    }
}

struct wrong_t {
    const char* what;
    size_t at;
    int32_t value;
    int code;
    const char* words;
};

TEST(ClientStream, NamesWhatIsWrongWithARecord) {
    const std::string bytes = small_stream();
    const int32_t first = support::load<int32_t>(bytes, 4);
    const wrong_t wrongs[] = {
        {"record magic", 0, 0x71727375, KELP_EPROTO, "wrong magic"},
        {"record size negative", 4, -1, KELP_EPROTO, "claims -1 bytes"},
        {"record size below a page head", 4, 39, KELP_EPROTO, "claims 39 bytes"},
        {"record size above the limit", 4, 1 << 21, KELP_EPROTO, "above the limit"},
        {"record size one short", 4, first - 1, KELP_EPROTO, "claims"},
        {"page magic", 8, 0x19293948, KELP_EPROTO, "page 0 of record 0 has the wrong magic"},
        {"page size negative", 8 + 28, -5, KELP_EPROTO, "claims -5 bytes"},
        {"page size above the record", 8 + 28, first, KELP_EPROTO, "claims"},
        {"page size up to all but a few bytes", 8 + 28, first - 40 - 39, KELP_EPROTO, "too few for another"},
    };
    for (const wrong_t& w : wrongs) {
        std::string bad = bytes;
        support::patch(bad, w.at, w.value);
        for (const size_t step : {size_t{1}, bad.size()}) {
            kept_t kept;
            kelp_error_t err{};
            EXPECT_EQ(w.code, feed_in(bad, step, &kept, &err)) << w.what;
            EXPECT_NE(nullptr, strstr(err.text, w.words)) << w.what << ": " << err.text;
            EXPECT_NE('\0', err.hint[0]) << w.what;
        }
    }
}

TEST(ClientStream, RefusesBytesBehindTheEndRecord) {
    kept_t kept;
    kelp_error_t err{};
    EXPECT_EQ(KELP_EPROTO, feed_in(small_stream() + "x", 1, &kept, &err));
    EXPECT_STREQ("the reply goes on behind its end record", err.text);
}

// Chunks.

int keep_text(void* arg, const char* p, size_t n, kelp_error_t*) {
    static_cast<std::string*>(arg)->append(p, n);
    return 0;
}

int unchunk(const std::string& bytes, size_t step, std::string* out, kelp_error_t* err) {
    chunk_t ck;
    for (size_t i = 0; i < bytes.size(); i += step)
        if (const int code =
                chunk_feed(&ck, bytes.data() + i, std::min(step, bytes.size() - i), keep_text, out, err))
            return code;
    return chunk_end(&ck, err);
}

TEST(ClientChunks, AreJoinedHoweverTheBytesArrive) {
    const std::string bytes = "3; chunk\r\nabc\r\n1\r\nd\r\nA;x=y\r\n0123456789\r\n0\r\nTrailer: x\r\n\r\n";
    for (size_t step = 1; step <= bytes.size(); step++) {
        std::string out;
        kelp_error_t err{};
        EXPECT_EQ(0, unchunk(bytes, step, &out, &err)) << step << err.text;
        EXPECT_EQ("abcd0123456789", out);
    }
    for (size_t n = 0; n < bytes.size(); n++) {
        std::string out;
        kelp_error_t err{};
        EXPECT_EQ(KELP_ECUT, unchunk(bytes.substr(0, n), 1, &out, &err)) << n;
    }
}

TEST(ClientChunks, ReportTheErrorTextThatStandsInPlaceOfAChunk) {
    for (const std::string& said : std::vector<std::string>{
             "400 Bad Request", "500 Internal Server Error - out of memory", "404 Not Found"}) {
        std::string out;
        kelp_error_t err{};
        EXPECT_EQ(KELP_ECUT, unchunk("3; chunk\r\nabc\r\n" + said, 1, &out, &err));
        EXPECT_EQ(said, err.said);
        EXPECT_NE(nullptr, strstr(err.text, said.c_str())) << err.text;
        // With a line end behind it, it is no size either.
        EXPECT_EQ(KELP_ECUT, unchunk("3; chunk\r\nabc\r\n" + said + "\r\n", 1, &out, &err));
        EXPECT_EQ(said, err.said);
    }
}

TEST(ClientChunks, RefuseWhatIsNoChunk) {
    for (const std::string& bad :
         {"x\r\nabc\r\n0\r\n\r\n"s, "\r\n"s, "3\r\nabcX\r\n0\r\n\r\n"s, "3\r\nabc\rX0\r\n\r\n"s,
          "fffffffffffffffff\r\n"s, std::string(300, '1'), "-3\r\nabc\r\n0\r\n\r\n"s}) {
        std::string out;
        kelp_error_t err{};
        EXPECT_EQ(KELP_ECUT, unchunk(bad, bad.size(), &out, &err)) << bad;
    }
    std::string out;
    kelp_error_t err{};
    EXPECT_EQ(KELP_EPROTO, unchunk("0\r\n\r\nmore", 3, &out, &err));
}

TEST(ClientChunks, RefuseATrailerWithoutEnd) {
    std::string endless = "0\r\n";
    for (int i = 0; i < 5000; i++) endless += "X: y\r\n";
    for (const size_t step : {size_t{1}, endless.size()}) {
        std::string out;
        kelp_error_t err{};
        EXPECT_EQ(KELP_EPROTO, unchunk(endless, step, &out, &err));
        EXPECT_STREQ("the reply goes on and on behind its end", err.text);
    }
}

// Pages.

struct decoded_t {
    int code = 0;
    kelp_error_t err{};
    values_t value;
};

// Decodes a page as a connection does, every buffer exactly as large as asked for.
decoded_t decode(const std::string& bytes, int32_t typ) {
    decoded_t d;
    page_head_t head;
    memcpy(&head, bytes.data(), sizeof(head));
    const std::string stored = bytes.substr(sizeof(head));
    bufpool_t pool;
    column_t col;
    d.code = page_check(head, typ, "c", &d.err);
    if (d.code == 0 && head.zbyte == head.nbyte) {
        col.value = buf_get(&pool, stored.size());
        memcpy(col.value.p, stored.data(), stored.size());
    }
    if (d.code == 0) d.code = page_unpack(&pool, &col.value, head, stored.data(), "c", &d.err);
    if (d.code == 0) d.code = page_view(&pool, &col, head, "c", &d.err);
    if (d.code == 0) d.value = values_of(col.vec);
    column_free(&pool, &col);
    return d;
}

TEST(ClientPage, GivesBackTheValuesOfEveryType) {
    for (const size_t nrow : {0u, 1u, 7u, 8u, 9u, 64u, 1000u}) {
        const table_t t = support::all_types_table(nrow + 1, nrow);
        for (size_t c = 0; c < t.column.size(); c++)
            for (const bool compress : {false, true}) {
                const decoded_t d = decode(page(0, t.column[c].typ, t.value[c], compress), t.column[c].typ);
                EXPECT_EQ(0, d.code) << d.err.text;
                EXPECT_EQ(t.value[c], d.value) << t.column[c].name << " " << nrow;
            }
    }
}

TEST(ClientPage, FixedWidthValuesLieWhereTheyWereDecompressed) {
    values_t v;
    for (int i = 0; i < 5000; i++) v.push_back(support::i64(i % 10));
    const std::string bytes = page(0, CVN_TYP_INT64, v, true);
    page_head_t head;
    memcpy(&head, bytes.data(), sizeof(head));
    ASSERT_LT(head.zbyte, head.nbyte);
    bufpool_t pool;
    column_t col;
    ASSERT_EQ(0, page_unpack(&pool, &col.value, head, bytes.data() + sizeof(head), "c", nullptr));
    const char* where = col.value.p;
    ASSERT_EQ(0, page_view(&pool, &col, head, "c", nullptr));
    EXPECT_EQ(where, col.vec.value);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(where) % 64);
    EXPECT_EQ(nullptr, col.offset.p);
    column_free(&pool, &col);
}

// A page of `typ` with one field of its head changed, and the hash left right.
void refuse(const char* what, int32_t typ, const values_t& v, bool compress, size_t at, int32_t value,
            int code) {
    std::string bytes = page(0, typ, v, compress);
    support::patch(bytes, at, value);
    const decoded_t d = decode(bytes, typ);
    EXPECT_EQ(code, d.code) << what << ": " << d.err.text;
    EXPECT_NE('\0', d.err.hint[0]) << what;
}

TEST(ClientPage, RefusesEverySizeThatLies) {
    values_t ints, texts, bytes;
    for (int i = 0; i < 100; i++) {
        ints.push_back(support::i32(7));
        texts.push_back(text("abc"));
        bytes.push_back(text("ab"));
    }
    constexpr size_t TYP = 8, NROW = 12, NNULL = 16, NMAPOFF = 20, NBYTE = 24, ZBYTE = 28, HASH = 32;
    refuse("type", CVN_TYP_INT32, ints, false, TYP, CVN_TYP_FLOAT, KELP_EPROTO);
    refuse("rows negative", CVN_TYP_INT32, ints, false, NROW, -1, KELP_EDAMAGED);
    refuse("rows too many", CVN_TYP_INT32, ints, false, NROW, 101, KELP_EDAMAGED);
    refuse("rows too few", CVN_TYP_INT32, ints, false, NROW, 99, KELP_EDAMAGED);
    refuse("rows at the limit", CVN_TYP_INT32, ints, false, NROW, INT32_MAX, KELP_EDAMAGED);
    refuse("nulls negative", CVN_TYP_INT32, ints, false, NNULL, -1, KELP_EDAMAGED);
    refuse("nulls above rows", CVN_TYP_INT32, ints, false, NNULL, 101, KELP_EDAMAGED);
    refuse("nulls that the bitmap does not have", CVN_TYP_INT32, ints, false, NNULL, 1, KELP_EDAMAGED);
    refuse("bitmap negative", CVN_TYP_INT32, ints, false, NMAPOFF, -13, KELP_EDAMAGED);
    refuse("bitmap elsewhere", CVN_TYP_INT32, ints, false, NMAPOFF, 399, KELP_EDAMAGED);
    refuse("bitmap at the limit", CVN_TYP_INT32, ints, false, NMAPOFF, INT32_MAX, KELP_EDAMAGED);
    refuse("size negative", CVN_TYP_INT32, ints, false, NBYTE, -1, KELP_EDAMAGED);
    refuse("size larger, as if compressed", CVN_TYP_INT32, ints, false, NBYTE, 414, KELP_EDAMAGED);
    refuse("stored size above size", CVN_TYP_INT32, ints, true, ZBYTE, 414, KELP_EDAMAGED);
    refuse("hash", CVN_TYP_INT32, ints, false, HASH, 0, KELP_EDAMAGED);
    refuse("texts more than bytes", CVN_TYP_CSTR, texts, false, NROW, 408, KELP_EDAMAGED);
    refuse("byte strings more than lengths", CVN_TYP_BYTEA, bytes, false, NROW, 160, KELP_EDAMAGED);
}

TEST(ClientPage, RefusesACompressedSizeThatIsTooSmallToBeTrue) {
    page_head_t head{};
    head.typ = CVN_TYP_INT64;
    head.nrow = 1 << 20;
    head.nmapoff = 8 << 20;
    head.nbyte = (8 << 20) + (1 << 17);
    head.zbyte = 100;
    kelp_error_t err{};
    EXPECT_EQ(KELP_EDAMAGED, page_check(head, CVN_TYP_INT64, "c", &err));
    EXPECT_NE(nullptr, strstr(err.text, "too small"));
}

TEST(ClientPage, RefusesValuesThatDoNotFit) {
    // The head is right; the body is not.
    const auto with_body = [](int32_t typ, int32_t nrow, const std::string& values) {
        page_head_t head{};
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
    EXPECT_EQ(0, decode(with_body(CVN_TYP_CSTR, 2, "ab\0c\0"s), CVN_TYP_CSTR).code);
    EXPECT_EQ(KELP_EDAMAGED, decode(with_body(CVN_TYP_CSTR, 2, "ab\0cd"s), CVN_TYP_CSTR).code);
    EXPECT_EQ(KELP_EDAMAGED, decode(with_body(CVN_TYP_CSTR, 2, "ab\0\0\0"s), CVN_TYP_CSTR).code);
    EXPECT_EQ(KELP_EDAMAGED, decode(with_body(CVN_TYP_CSTR, 3, "ab\0c\0"s), CVN_TYP_CSTR).code);
    EXPECT_EQ(0, decode(with_body(CVN_TYP_BYTEA, 2, le32(1) + "a" + le32(0)), CVN_TYP_BYTEA).code);
    EXPECT_EQ(KELP_EDAMAGED,
              decode(with_body(CVN_TYP_BYTEA, 2, le32(2) + "a" + le32(0)), CVN_TYP_BYTEA).code);
    EXPECT_EQ(KELP_EDAMAGED,
              decode(with_body(CVN_TYP_BYTEA, 2, le32(-1) + "a" + le32(0)), CVN_TYP_BYTEA).code);
    EXPECT_EQ(KELP_EDAMAGED,
              decode(with_body(CVN_TYP_BYTEA, 2, le32(INT32_MAX) + "a" + le32(0)), CVN_TYP_BYTEA).code);
    EXPECT_EQ(KELP_EDAMAGED,
              decode(with_body(CVN_TYP_BYTEA, 1, le32(1) + "a" + le32(0)), CVN_TYP_BYTEA).code);
}

TEST(ClientPage, RefusesACompressedBodyWithAnyByteChanged) {
    values_t v;
    for (int i = 0; i < 300; i++) v.push_back(text("abcabcabc" + std::to_string(i % 7)));
    const std::string bytes = page(0, CVN_TYP_CSTR, v, true);
    for (size_t i = CVN_PAGE_HEADSZ; i < bytes.size(); i++) {
        std::string bad = bytes;
        bad[i] = static_cast<char>(bad[i] ^ 1);
        EXPECT_EQ(KELP_EDAMAGED, decode(bad, CVN_TYP_CSTR).code) << i;
        // The same from one who can compute a hash: an error or other values, but nothing out of bounds.
        support::patch(bad, 32, hash_of(bad.substr(CVN_PAGE_HEADSZ)));
        const decoded_t d = decode(bad, CVN_TYP_CSTR);
        EXPECT_TRUE(d.code == 0 || d.code == KELP_EDAMAGED) << i;
    }
}

TEST(ClientTexts, AreFoundWhereverTheirEndsLie) {
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
TEST(ClientTexts, AreFoundInPagesOfNearlyTwoGigabytes) {
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

// Buffers.

TEST(ClientBuffers, AreUsedAgain) {
    bufpool_t pool;
    const buf_t first = buf_get(&pool, 1000);
    ASSERT_NE(nullptr, first.p);
    buf_put(&pool, first);
    const buf_t second = buf_get(&pool, 990);
    EXPECT_EQ(first.p, second.p);
    const buf_t third = buf_get(&pool, 990);
    EXPECT_NE(second.p, third.p);
    buf_put(&pool, second);
    buf_put(&pool, third);
    EXPECT_EQ(second.cap + third.cap, pool.idlesz);
}

// Filters against a decision row by row.

// What a condition makes of one value, told from the value's text form by the rules as they are written down.
bool meets(const kelp_cond_t& cond, int32_t typ, const value_t& v) {
    if (cond.op == CVN_OP_ISNULL) return v.null;
    if (cond.op == CVN_OP_ISNOTNULL) return !v.null;
    if (v.null) return false;
    const int storage = typ & 0xffff;
    const auto order = [&](const std::string& s, bool* unordered) -> int {
        std::string keep;
        cvn_datum_t d;
        EXPECT_EQ(0, value_parse(&d, &keep, s, typ, "c", nullptr));
        *unordered = false;
        const auto cmp = [](auto a, auto b) { return a < b ? -1 : a > b; };
        switch (storage) {
            case CVN_TYP_BOOL: return cmp(v.bytes[0] != 0, d.b);
            case CVN_TYP_INT16: return cmp(support::load<int16_t>(v.bytes, 0), d.s);
            case CVN_TYP_INT32: return cmp(support::load<int32_t>(v.bytes, 0), d.i);
            case CVN_TYP_INT64: return cmp(support::load<int64_t>(v.bytes, 0), d.I);
            case CVN_TYP_INT128: return cmp(support::load<cvn_int128_t>(v.bytes, 0), d.L);
            case CVN_TYP_FLOAT: {
                const float x = support::load<float>(v.bytes, 0);
                *unordered = std::isnan(x) || std::isnan(d.f);
                return cmp(x, d.f);
            }
            case CVN_TYP_DOUBLE: {
                const double x = support::load<double>(v.bytes, 0);
                *unordered = std::isnan(x) || std::isnan(d.F);
                return cmp(x, d.F);
            }
            case CVN_TYP_BYTEA:
            case CVN_TYP_CSTR: return cmp(v.bytes, keep);
            case CVN_TYP_DEC64: {
                const auto x = support::load<decDouble>(v.bytes, 0);
                char a[CVN_DEC64_STRSZ], b[CVN_DEC64_STRSZ];
                cvn_dec64_to_string(a, x);
                cvn_dec64_to_string(b, d.dec64);
                *unordered = strstr(a, "NaN") || strstr(b, "NaN");
                return cvn_dec64_cmp(x, d.dec64);
            }
            default: {
                const auto x = support::load<decQuad>(v.bytes, 0);
                char a[CVN_DEC128_STRSZ], b[CVN_DEC128_STRSZ];
                cvn_dec128_to_string(a, x);
                cvn_dec128_to_string(b, d.dec128);
                *unordered = strstr(a, "NaN") || strstr(b, "NaN");
                return cvn_dec128_cmp(x, d.dec128);
            }
        }
    };
    bool unordered = false;
    if (cond.op == CVN_OP_IN) {
        for (const std::string& s : cond.value)
            if (order(s, &unordered) == 0 && !unordered) return true;
        return false;
    }
    const int o = order(cond.value[0], &unordered);
    if (unordered) return cond.op == CVN_OP_NE;
    switch (cond.op) {
        case CVN_OP_EQ: return o == 0;
        case CVN_OP_NE: return o != 0;
        case CVN_OP_GT: return o > 0;
        case CVN_OP_GE: return o >= 0;
        case CVN_OP_LT: return o < 0;
        default: return o <= 0;
    }
}

// The text of a value, for conditions that some row meets.
std::string text_of(int32_t typ, const value_t& v) {
    char buf[64];
    switch (typ & 0xffff) {
        case CVN_TYP_BOOL: return v.bytes[0] ? "true" : "false";
        case CVN_TYP_INT16: return std::to_string(support::load<int16_t>(v.bytes, 0));
        case CVN_TYP_INT32: return std::to_string(support::load<int32_t>(v.bytes, 0));
        case CVN_TYP_INT64: return std::to_string(support::load<int64_t>(v.bytes, 0));
        case CVN_TYP_INT128: cvn_int128_to_string(buf, support::load<cvn_int128_t>(v.bytes, 0)); return buf;
        case CVN_TYP_FLOAT:
            snprintf(buf, sizeof(buf), "%.9g", double{support::load<float>(v.bytes, 0)});
            return buf;
        case CVN_TYP_DOUBLE:
            snprintf(buf, sizeof(buf), "%.17g", support::load<double>(v.bytes, 0));
            return buf;
        case CVN_TYP_BYTEA: {
            std::string s = "\\x";
            for (const char c : v.bytes) {
                snprintf(buf, sizeof(buf), "%02x", static_cast<unsigned char>(c));
                s += buf;
            }
            return s;
        }
        case CVN_TYP_CSTR: return v.bytes;
        case CVN_TYP_DEC64: cvn_dec64_to_string(buf, support::load<decDouble>(v.bytes, 0)); return buf;
        default: cvn_dec128_to_string(buf, support::load<decQuad>(v.bytes, 0)); return buf;
    }
}

kelp_cond_t random_cond(std::mt19937_64& rng, const reader::column_t& column, const values_t& value) {
    kelp_cond_t cond{column.name, 1 + static_cast<int>(rng() % 9), {}};
    const auto some_value = [&] {
        for (int i = 0; i < 20; i++) {
            const value_t& v = value[rng() % value.size()];
            if (!v.null) return text_of(column.typ, v);
        }
        return text_of(column.typ, support::random_value(rng, column.typ));
    };
    if (cond.op <= CVN_OP_LE) cond.value = {some_value()};
    if (cond.op == CVN_OP_IN)
        for (size_t i = 1 + rng() % 5; i > 0; i--) cond.value.push_back(some_value());
    return cond;
}

TEST(ClientFilter, KeepsExactlyTheRowsThatMeetAllConditions) {
    std::mt19937_64 rng(11);
    size_t kept = 0, all = 0;
    for (int round = 0; round < 300; round++) {
        const size_t nrow = 1 + rng() % 200;
        const table_t t = support::all_types_table(rng(), nrow);
        std::vector<kelp_cond_t> cond;
        std::vector<bound_cond_t> bound(1 + rng() % 2);
        std::vector<size_t> col;
        for (bound_cond_t& b : bound) {
            const size_t c = rng() % t.column.size();
            cond.push_back(random_cond(rng, t.column[c], t.value[c]));
            col.push_back(c);
            ASSERT_EQ(0, cond_bind(&b, cond.back(), static_cast<int>(c), t.column[c].typ, nullptr));
        }
        std::vector<values_t> want(t.column.size());
        for (size_t r = 0; r < nrow; r++) {
            bool keep = true;
            for (size_t i = 0; i < cond.size(); i++)
                keep = keep && meets(cond[i], t.column[col[i]].typ, t.value[col[i]][r]);
            for (size_t c = 0; c < t.column.size() && keep; c++) want[c].push_back(t.value[c][r]);
        }
        bufpool_t pool;
        std::vector<column_t> column(t.column.size());
        for (size_t c = 0; c < column.size(); c++) {
            const std::string bytes = page(0, t.column[c].typ, t.value[c], false);
            page_head_t head;
            memcpy(&head, bytes.data(), sizeof(head));
            column[c].value = buf_get(&pool, bytes.size());
            memcpy(column[c].value.p, bytes.data() + sizeof(head), bytes.size() - sizeof(head));
            ASSERT_EQ(0, page_view(&pool, &column[c], head, "c", nullptr));
        }
        const int64_t n = filter_columns(column, column.size(), bound);
        ASSERT_EQ(static_cast<int64_t>(want[0].size()), n) << round;
        for (size_t c = 0; c < column.size(); c++) {
            if (n > 0) {
                EXPECT_EQ(want[c], values_of(column[c].vec)) << round << " " << t.column[c].name;
                int64_t nnull = 0;
                for (const value_t& v : want[c]) nnull += v.null;
                EXPECT_EQ(nnull, column[c].vec.nnull);
            }
            column_free(&pool, &column[c]);
        }
        kept += want[0].size();
        all += nrow;
    }
    EXPECT_GT(kept, all / 20);       // the conditions are neither void
    EXPECT_LT(kept, all * 19 / 20);  // nor always true
}

// What is asked of the server, tried on the library's own statistics: no row group that has a row may be
// lost.
TEST(ClientPush, NeverLosesARowThatMeetsTheCondition) {
    std::mt19937_64 rng(17);
    int skipped = 0, pushed_count = 0;
    for (int round = 0; round < 4000; round++) {
        const int32_t typ = reader::ALL_TYPES[rng() % 14];
        const size_t nrow = 1 + rng() % 6;
        reader::column_t column{"c", typ, false, false};
        values_t v = support::random_values(rng, typ, nrow, 20);
        // Texts around the 39 and 40 bytes at which bounds and constants are cut.
        if ((typ & 0xffff) == CVN_TYP_CSTR)
            for (value_t& x : v)
                if (!x.null && rng() % 2)
                    x = text(std::string(37 + rng() % 6, 'a') + static_cast<char>('a' + rng() % 3));
        values_t pool_of_constants = support::random_values(rng, typ, 4, 0);
        pool_of_constants.insert(pool_of_constants.end(), v.begin(), v.end());
        const kelp_cond_t cond = random_cond(rng, column, pool_of_constants);
        bound_cond_t bound;
        ASSERT_EQ(0, cond_bind(&bound, cond, 0, typ, nullptr));
        bool has_nan = false, any = false;
        for (const value_t& x : v) {
            any = any || meets(cond, typ, x);
            if (!x.null && (typ & 0xffff) != CVN_TYP_BYTEA && (typ & 0xffff) != CVN_TYP_CSTR)
                has_nan = has_nan || text_of(typ, x).find("an") != std::string::npos ||
                          text_of(typ, x).find("NaN") != std::string::npos;
        }
        const bool promise = !has_nan && rng() % 2;
        const std::vector<pushed_t> pushed = cond_push(bound, promise);

        // A row group of other values stands in front of it in the file, whose bounds are those of both
        // together.
        const values_t front = promise && !has_nan ? values_t{} : support::random_values(rng, typ, 3, 20);
        reader::bounds_t file_bounds;
        int64_t nnull = 0, file_nnull = 0;
        if (!front.empty())
            reader::merge_bounds(typ, file_bounds, reader::chunk_bounds(column, front.data(), front.size()));
        const reader::bounds_t b = reader::chunk_bounds(column, v.data(), v.size());
        reader::merge_bounds(typ, file_bounds, b);
        for (const value_t& x : v) nnull += x.null;
        for (const value_t& x : front) file_nnull += x.null;
        file_nnull += nnull;
        const auto image_of = [](const std::string& bytes) {
            cvn_datum_t d;
            memcpy(static_cast<void*>(&d), bytes.data(), sizeof(d));
            return d;
        };
        cvn_datum_t lo = image_of(b.minval), hi = image_of(b.maxval);
        cvn_datum_t file_lo = image_of(file_bounds.minval), file_hi = image_of(file_bounds.maxval);
        bool may = true;
        for (const pushed_t& p : pushed) {
            pushed_count++;
            lens_t ln;
            memset(static_cast<void*>(&ln), 0, sizeof(ln));
            ln.op = p.op;
            cvn_datum_t d;
            if (p.has_value) {
                ASSERT_EQ(0, cvn_datum_from_string(&d, p.value.c_str(), typ)) << p.value;
                switch (typ & 0xffff) {
                    case CVN_TYP_BOOL: ln.val.I = d.b; break;
                    case CVN_TYP_INT16: ln.val.I = d.s; break;
                    case CVN_TYP_INT32: ln.val.I = d.i; break;
                    case CVN_TYP_INT64: ln.val.I = d.I; break;
                    case CVN_TYP_INT128: ln.val.L = d.L; break;
                    case CVN_TYP_FLOAT: ln.val.F = double{d.f}; break;
                    case CVN_TYP_DOUBLE: ln.val.F = d.F; break;
                    case CVN_TYP_CSTR: ln.val.t = d.t; break;
                    case CVN_TYP_DEC64: ln.val.dec64 = d.dec64; break;
                    default: ln.val.dec128 = d.dec128; break;
                }
            }
            const int q = qualify(&ln, typ, static_cast<int64_t>(nrow), nnull, b.has ? &lo : nullptr,
                                  b.has ? &hi : nullptr);
            const int file_q =
                qualify(&ln, typ, static_cast<int64_t>(nrow + front.size()), file_nnull,
                        file_bounds.has ? &file_lo : nullptr, file_bounds.has ? &file_hi : nullptr);
            ASSERT_GE(file_q, 0);
            ASSERT_GE(q, 0);
            may = may && q && file_q;
        }
        EXPECT_TRUE(may || !any) << round << " " << cvn_typ_str(typ) << " op " << cond.op;
        skipped += !may;
    }
    EXPECT_GT(pushed_count, 1000);
    EXPECT_GT(skipped, 100);  // the pushing does something
}

std::vector<pushed_t> push(const char* text_of_cond, cvn_typ_t typ, bool no_nan) {
    kelp_cond_t cond;
    EXPECT_EQ(0, kelp_cond_parse(&cond, text_of_cond, nullptr));
    bound_cond_t bound;
    EXPECT_EQ(0, cond_bind(&bound, cond, 0, typ, nullptr));
    return cond_push(bound, no_nan);
}

TEST(ClientPush, ReducesListsToTheirEnds) {
    const auto p = push("c in (300, 5, 256)", CVN_TYP_INT16, false);
    ASSERT_EQ(2u, p.size());
    EXPECT_EQ(CVN_OP_GE, p[0].op);
    EXPECT_EQ("5", p[0].value);
    EXPECT_EQ(CVN_OP_LE, p[1].op);
    EXPECT_EQ("300", p[1].value);
    const auto d = push("c in (1.5, 9.25, 3)", CVN_TYP_DEC64, true);
    ASSERT_EQ(2u, d.size());
    EXPECT_EQ("1.5", d[0].value);
    EXPECT_EQ("9.25", d[1].value);
    EXPECT_TRUE(push("c in (1.5, 9.25)", CVN_TYP_DEC64, false).empty());
}

TEST(ClientPush, SaysNothingAboutNumbersThatMayBeNaN) {
    for (const cvn_typ_t typ : {CVN_TYP_FLOAT, CVN_TYP_DOUBLE, CVN_TYP_DEC64, CVN_TYP_DEC128}) {
        for (const char* c : {"c = 1", "c != 1", "c > 1", "c <= 1", "c in (1, 2)"}) {
            EXPECT_TRUE(push(c, typ, false).empty()) << c;
            EXPECT_FALSE(push(c, typ, true).empty()) << c;
            EXPECT_TRUE(push("c = nan", typ, true).empty());
        }
        EXPECT_EQ(1u, push("c is null", typ, false).size());
        EXPECT_EQ(1u, push("c is not null", typ, false).size());
    }
    EXPECT_TRUE(push("c = 1", CVN_TYP_BYTEA, true).empty());
}

// A stored bool may be another byte than 0 and 1, which the server's statistics take for a number.
TEST(ClientPush, ComparesBoolsWithZeroOnly) {
    const auto asked = [](const char* text_of_cond) {
        std::string s;
        for (const pushed_t& p : push(text_of_cond, CVN_TYP_BOOL, false))
            s += (p.op == CVN_OP_NE ? "!=" : p.op == CVN_OP_EQ ? "==" : "?") + p.value + " ";
        return s;
    };
    for (const char* c : {"c = true", "c != false", "c > false", "c >= true", "c in (true)"})
        EXPECT_EQ("!=0 ", asked(c)) << c;
    for (const char* c : {"c = false", "c != true", "c < true", "c <= false", "c in (0, false)"})
        EXPECT_EQ("==0 ", asked(c)) << c;
    for (const char* c : {"c >= false", "c <= true", "c in (true, false)"}) EXPECT_EQ("", asked(c)) << c;
    EXPECT_EQ("!=0 ==0 ", asked("c > true"));
}

TEST(ClientPush, SaysNothingThatNeedsAnEscape) {
    EXPECT_EQ(1u, push("c = 'it''s'", CVN_TYP_CSTR, false).size());
    EXPECT_TRUE(push("c = 'a\"b'", CVN_TYP_CSTR, false).empty());
    EXPECT_TRUE(push("c = 'a\\b'", CVN_TYP_CSTR, false).empty());
    EXPECT_TRUE(push("c = 'a\nb'", CVN_TYP_CSTR, false).empty());
    const auto p = push(("c = " + std::string(40000, 'x')).c_str(), CVN_TYP_CSTR, false);
    ASSERT_EQ(1u, p.size());
    EXPECT_EQ(std::string(48, 'x'), p[0].value);
}

}  // namespace
