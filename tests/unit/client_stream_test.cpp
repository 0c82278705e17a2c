// The decoding half of the client without a network: chunks, records and pages.
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
    std::vector<cvn_page_t> head;
    std::vector<int> npage;
    std::vector<char> room;
};

stream_t make_stream(kept_t* kept, int64_t limit = 1 << 20) {
    stream_t st{};
    st.user.record_begin = [](void*, int32_t, kelp_error_t*) { return 0; };
    st.user.page_begin = [](void* arg, int, const cvn_page_t& head, char** dst, kelp_error_t*) {
        auto* k = static_cast<kept_t*>(arg);
        k->room.resize(static_cast<size_t>(head.zbyte) + 1);
        *dst = k->room.data();
        return 0;
    };
    st.user.page_end = [](void* arg, int, const cvn_page_t& head, kelp_error_t*) {
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

TEST(ClientStream, RefusesBytesAfterTheEndRecord) {
    kept_t kept;
    kelp_error_t err{};
    EXPECT_EQ(KELP_EPROTO, feed_in(small_stream() + "x", 1, &kept, &err));
    EXPECT_STREQ("the reply goes on after its end record", err.text);
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
        // With a line end after it, it is no size either.
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
        EXPECT_STREQ("the reply goes on and on after its end", err.text);
    }
}

}  // namespace
