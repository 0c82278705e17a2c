// The catalogue and the totals of tables, as the daemon says them and as nobody should.
#include <gtest/gtest.h>

#include <atomic>

#include "client/queries.h"

namespace {

using namespace queries;

TEST(ClientCatalogue, NumbersThatCannotBeAreRefused) {
    text_t listing;
    server_t server([&](int fd, const request_t&) { send_all(fd, json_reply(listing.get())); });
    std::vector<kelp_file_t> file;
    kelp_error_t err{};
    for (const char* bad : {"\"nrow\": -1", "\"nrowgroup\": -1", "\"nbyte\": -1", "\"zbyte\": -1",
                            "\"ncol\": -1", "\"ncol\": 2147483648", "\"nrow\": 9223372036854775808"}) {
        listing = std::string("[{\"name\": \"p.cvn\", ") + bad + "}]";
        EXPECT_EQ(KELP_EPROTO, kelp_list_files(&file, url_of(server), quick(), &err)) << bad;
        EXPECT_TRUE(file.empty());
    }
    for (const char* big : {"nrow", "nrowgroup", "zbyte"}) {
        const std::string one = std::string("{\"name\": \"p.cvn\", \"") + big + "\": 9223372036854775807}";
        listing = "[" + one + "]";
        ASSERT_EQ(0, kelp_list_files(&file, url_of(server), quick(), &err)) << err.text;
        listing = "[" + one + ", " + one + "]";
        kelp_scan_t* scan = nullptr;
        EXPECT_EQ(KELP_EPROTO, kelp_scan_open(&scan, {.url = url_of(server)}, quick(), &err));
        EXPECT_STREQ("impossible totals: with what the file p.cvn claims they exceed 64 bits", err.text);
    }
}

TEST(ClientCatalogue, ThatIsTooLargeIsNotBelieved) {
    text_t listing;
    server_t server([&](int fd, const request_t&) { send_all(fd, json_reply(listing.get())); });
    std::vector<std::string> name;
    kelp_error_t err{};
    const auto names = [](size_t n) {
        std::string s = "[\"\"";
        for (size_t i = 1; i < n; i++) s += ",\"\"";
        return s + "]";
    };
    listing = names(1 << 20);
    EXPECT_EQ(0, kelp_list(&name, url_of(server, ""), quick(), &err)) << err.text;
    EXPECT_EQ(size_t{1} << 20, name.size());
    listing = names((1 << 20) + 1);
    EXPECT_EQ(KELP_EPROTO, kelp_list(&name, url_of(server, ""), quick(), &err));
    listing = "[\"" + std::string((32 << 20) - 4, 'x') + "\"]";
    EXPECT_EQ(0, kelp_list(&name, url_of(server, ""), quick(), &err)) << err.text;
    listing = "[\"" + std::string((32 << 20) - 3, 'x') + "\"]";
    EXPECT_EQ(KELP_EPROTO, kelp_list(&name, url_of(server, ""), quick(), &err));
    EXPECT_STREQ("the reply is larger than any catalogue", err.text);
}

TEST(ClientCatalogue, ATableWithoutFilesHasACodeOfItsOwn) {
    text_t listing;
    server_t server([&](int fd, const request_t& r) {
        send_all(fd, r.url.ends_with(".cvn") ? error_reply("404 Not Found") : json_reply(listing.get()));
    });
    for (const char* none : {"[]", "[{\"name\": \"p.cvn.mismatch\"}]", "[{\"name\": \"gone.cvn\"}]"}) {
        listing = none;
        kelp_error_t err{};
        std::vector<kelp_column_t> column;
        EXPECT_EQ(KELP_EEMPTY, kelp_table_columns(&column, url_of(server), quick(), &err));
        EXPECT_NE(nullptr, strstr(err.text, "/db/sc/t has no data files")) << err.text;
        kelp_query_t q{.url = url_of(server)};
        q.cond = {{"a", CVN_OP_EQ, {"1"}}};
        kelp_scan_t* scan = nullptr;
        EXPECT_EQ(KELP_EEMPTY, kelp_scan_open(&scan, q, quick(), &err));
        EXPECT_EQ(nullptr, scan);
        int64_t n = 77;
        EXPECT_EQ(0, kelp_count(&n, q, quick(), &err));
        EXPECT_EQ(0, n);
    }
}

TEST(ClientCatalogue, IsReadAsTheDaemonWritesIt) {
    server_t server([&](int fd, const request_t& r) {
        if (r.url == "/v1")
            return (void)send_all(fd, json_reply("[\"db1\",\"my db\",\"a\"b\",\"back\\slash\"]"));
        if (r.url == "/v1/empty") return (void)send_all(fd, json_reply("[]"));
        if (r.url == "/v1/d/s/t")
            return (void)send_all(
                fd,
                json_reply(
                    "[ {\"name\": \"p1.cvn\", \"chksum\": -1234, \"ncol\": 3, \"nrow\": 1000, "
                    "\"nrowgroup\": 1,\"nbyte\": 12000, \"zbyte\": 4000}, {\"name\": \"p2.cvn.mismatch\", "
                    "\"chksum\": 7, \"ncol\": 1, \"nrow\": 9000000000, \"nrowgroup\": 2,\"nbyte\": 1, "
                    "\"zbyte\": 1}]\n"));
        if (r.url == "/v1/d/s/t/p1.cvn")
            return (void)send_all(
                fd, json_reply("{\"column\":[{\"cno\": 0, \"typ\": \"int32\", \"name\": \"id\"},"
                               "{\"cno\": 1, \"typ\": \"unknown\", \"name\": \"x y\"}], "
                               "\"chksum\": 5678}"));
        send_all(fd, error_reply("404 Not Found"));
    });
    kelp_error_t err{};
    std::vector<std::string> name;
    ASSERT_EQ(0, kelp_list(&name, url_of(server, ""), quick(), &err)) << err.text;
    EXPECT_EQ((std::vector<std::string>{"db1", "my db", "a\"b", "back\\slash"}), name);
    ASSERT_EQ(0, kelp_list(&name, url_of(server, "/empty"), quick(), &err)) << err.text;
    EXPECT_TRUE(name.empty());
    EXPECT_EQ(KELP_ENOTFOUND, kelp_list(&name, url_of(server, "/gone"), quick(), &err));
    EXPECT_EQ(KELP_EARG, kelp_list(&name, url_of(server, "/d/s/t"), quick(), &err));
    std::vector<kelp_file_t> file;
    ASSERT_EQ(0, kelp_list_files(&file, url_of(server, "/d/s/t"), quick(), &err)) << err.text;
    ASSERT_EQ(2u, file.size());
    EXPECT_EQ("p1.cvn", file[0].name);
    EXPECT_EQ(-1234, file[0].chksum);
    EXPECT_EQ(3, file[0].ncol);
    EXPECT_EQ(1000, file[0].nrow);
    EXPECT_EQ(1, file[0].nrowgroup);
    EXPECT_EQ(12000, file[0].nbyte);
    EXPECT_EQ(4000, file[0].zbyte);
    EXPECT_EQ(9000000000, file[1].nrow);
    std::vector<kelp_column_t> column;
    int32_t chksum = 0;
    ASSERT_EQ(0, kelp_list_columns(&column, &chksum, url_of(server, "/d/s/t/p1.cvn"), quick(), &err))
        << err.text;
    ASSERT_EQ(2u, column.size());
    EXPECT_EQ("id", column[0].name);
    EXPECT_EQ(CVN_TYP_INT32, column[0].typ);
    EXPECT_EQ("x y", column[1].name);
    EXPECT_EQ(0, column[1].typ);
    EXPECT_EQ(5678, chksum);
    ASSERT_EQ(0, kelp_table_columns(&column, url_of(server, "/d/s/t"), quick(), &err)) << err.text;
    EXPECT_EQ(2u, column.size());
}

TEST(ClientCatalogue, CutOrForeignJsonIsRefused) {
    const std::string whole = "[ {\"name\": \"p1.cvn\", \"chksum\": -1, \"ncol\": 3}]\n";
    std::atomic<size_t> cut{0};
    text_t foreign;
    server_t server([&](int fd, const request_t&) {
        const std::string text = foreign.get();
        send_all(fd, json_reply(text.empty() ? whole.substr(0, cut) : text));
    });
    std::vector<kelp_file_t> file;
    kelp_error_t err{};
    for (cut = 0; cut + 1 < whole.size(); cut++)
        EXPECT_EQ(KELP_EPROTO, kelp_list_files(&file, url_of(server), quick(), &err)) << cut;
    ASSERT_EQ(0, (cut = whole.size(), kelp_list_files(&file, url_of(server), quick(), &err)));
    for (const char* text : {"{}", "[[]]", "[{\"name\": 5}]", "[{\"name\": \"a\", \"x\": \"y\"}]",
                             "[{\"nrow\": 5}]", "[] x", "[1]", "<html></html>"}) {
        foreign = text;
        EXPECT_EQ(KELP_EPROTO, kelp_list_files(&file, url_of(server), quick(), &err)) << text;
        EXPECT_TRUE(file.empty());
    }
}

std::string meta_page(int32_t cno, int64_t value) {
    cvn_page_t head{};
    head.magic = CVN_PAGE_MAGIC;
    head.cno = cno;
    head.typ = CVN_TYP_INT64;
    head.nrow = 1;
    head.nmapoff = 8;
    head.nbyte = head.zbyte = 9;
    return image(head) + support::le64(value) + std::string(1, '\0');
}

std::string count_page(int32_t nrow) {
    cvn_page_t head{};
    head.magic = CVN_PAGE_MAGIC;
    head.cno = -1;
    head.nrow = nrow;
    head.nbyte = head.zbyte = (nrow - 1) / 8 / 8 + 1;
    return image(head) + std::string(static_cast<size_t>(head.zbyte), '\0');
}

TEST(ClientTotals, AreReadWithoutHashes) {
    text_t reply;
    server_t server([&](int fd, const request_t&) { send_all(fd, reply.get()); });
    kelp_error_t err{};
    kelp_meta_t meta;
    reply = stream_reply(record({meta_page(0, 2500), meta_page(1, 3)}));
    ASSERT_EQ(0, kelp_meta(&meta, url_of(server), quick(), &err)) << err.text;
    EXPECT_EQ(2500, meta.nrow);
    EXPECT_EQ(3, meta.nrowgroup);
    EXPECT_EQ(R"({"command": ["meta"]})", server.requests()[0].body);

    const kelp_query_t q{.url = url_of(server)};
    int64_t nrow = 0;
    std::vector<std::string> piece;
    for (const int32_t n : {1048576, 1048576, 402848})
        for (const std::string& p : record({count_page(n)})) piece.push_back(p);
    reply = stream_reply(piece);
    ASSERT_EQ(0, kelp_count(&nrow, q, quick(), &err)) << err.text;
    EXPECT_EQ(2500000, nrow);
    reply = stream_reply({});
    ASSERT_EQ(0, kelp_count(&nrow, q, quick(), &err)) << err.text;
    EXPECT_EQ(0, nrow);

    for (const auto& pages :
         std::vector<std::vector<std::string>>{{},
                                               {meta_page(0, 1)},
                                               {meta_page(1, 1), meta_page(0, 1)},
                                               {meta_page(0, 1), meta_page(1, 1), meta_page(2, 1)}}) {
        reply = stream_reply(pages.empty() ? std::vector<std::string>{} : record(pages));
        EXPECT_EQ(KELP_EPROTO, kelp_meta(&meta, url_of(server), quick(), &err)) << pages.size();
        EXPECT_EQ(0, meta.nrow);
    }
    for (const auto& [nrow_claim, nrowgroup_claim] : {std::pair{-1, 1}, std::pair{1, -1}}) {
        reply = stream_reply(record({meta_page(0, nrow_claim), meta_page(1, nrowgroup_claim)}));
        EXPECT_EQ(KELP_EPROTO, kelp_meta(&meta, url_of(server), quick(), &err));
        EXPECT_STREQ("the reply counts -1 rows or row groups", err.text);
    }
    const std::string whole = stream_reply(record({meta_page(0, 1), meta_page(1, 1)}));
    for (size_t n = 0; n < whole.size(); n += 7) {
        reply = whole.substr(0, n);
        EXPECT_NE(0, kelp_meta(&meta, url_of(server), quick(), &err)) << n;
    }
}

// A server of counts: `head` and then `again` without end, which the client must end; the catalogue is `listing`.
server_t::handler_t endless_counts(const std::string& head, const std::string& again, text_t& listing) {
    return [head, again, &listing](int fd, const request_t& r) {
        if (r.method == "GET") return (void)send_all(fd, json_reply(listing.get()));
        bool going = send_all(fd, STREAM_HEAD + head);
        while (going && !again.empty()) going = send_all(fd, again);
    };
}

std::string chunks(const std::vector<std::string>& piece) {
    std::string s;
    for (const std::string& p : piece) s += chunk(p);
    return s;
}

std::string listed(const std::string& name, int64_t nrow) {
    return "{\"name\": \"" + name + "\", \"nrow\": " + std::to_string(nrow) + "}";
}

TEST(ClientTotals, ACountWithoutEndIsTakenFromTheCatalogue) {
    const std::string full = chunks(record({count_page(1048576)}));
    text_t listing;
    server_t server(endless_counts("", full, listing));
    kelp_error_t err{};
    int64_t nrow = 77;
    listing = "[" + listed("a.cvn", int64_t{1} << 62) + ", " + listed("b.cvn.mismatch", INT64_MAX) + ", " +
              listed("c.cvn", 5) + "]";
    ASSERT_EQ(0, kelp_count(&nrow, {.url = url_of(server)}, quick(), &err)) << err.text;
    EXPECT_EQ((int64_t{1} << 62) + 5, nrow);
    const std::vector<request_t> asked = server.requests();
    ASSERT_EQ(2u, asked.size());
    EXPECT_EQ("{}", asked[0].body);
    EXPECT_EQ("GET", asked[1].method);
    EXPECT_EQ("/v1/db/sc/t", asked[1].url);
}

TEST(ClientTotals, AStreamThatExceedsTheCatalogueIsAnError) {
    const std::string full = chunks(record({count_page(1048576)}));
    text_t listing;
    server_t server(endless_counts("", full, listing));
    for (const int64_t n : {int64_t{0}, int64_t{5}, (int64_t{1} << 28) - 1}) {
        kelp_error_t err{};
        int64_t nrow = 77;
        listing = "[" + listed("a.cvn", n) + "]";
        EXPECT_EQ(KELP_ECHANGED, kelp_count(&nrow, {.url = url_of(server)}, quick(), &err));
        EXPECT_EQ("the reply counts more rows than the catalogue has, " + std::to_string(n) + ", and goes on",
                  std::string(err.text));
        EXPECT_EQ(0, nrow);
    }
}

TEST(ClientTotals, ASumBeyond64BitsNamesTheFile) {
    const std::string full = chunks(record({count_page(1048576)}));
    text_t listing;
    server_t server(endless_counts("", full, listing));
    kelp_error_t err{};
    int64_t nrow = 77;
    listing = "[" + listed("a.cvn", INT64_MAX) + ", " + listed("b.cvn", 0) + ", " + listed("c.cvn", 1) + "]";
    EXPECT_EQ(KELP_EPROTO, kelp_count(&nrow, {.url = url_of(server)}, quick(), &err));
    EXPECT_STREQ("impossible totals: with what the file c.cvn claims they exceed 64 bits", err.text);
    EXPECT_EQ(0, nrow);
}

TEST(ClientTotals, AsManyRowsAsAreStreamedNeedNoCatalogue) {
    const std::string full = chunks(record({count_page(1048576)}));
    std::string head;
    for (int i = 0; i < 256; i++) head += full;
    text_t listing;
    server_t server(endless_counts(head + chunk(record_head(0)) + "0\r\n\r\n", "", listing));
    kelp_error_t err{};
    int64_t nrow = 77;
    ASSERT_EQ(0, kelp_count(&nrow, {.url = url_of(server)}, quick(), &err)) << err.text;
    EXPECT_EQ(int64_t{1} << 28, nrow);
    EXPECT_EQ(1u, server.requests().size());
}

TEST(ClientTotals, RecordsWithoutEndOfOneRowEachEndAsWell) {
    std::string many;
    for (int i = 0; i < 1000; i++) many += chunks(record({count_page(1)}));
    text_t listing;
    server_t server(endless_counts("", many, listing));
    kelp_error_t err{};
    int64_t nrow = 77;
    listing = "[" + listed("a.cvn", 1048576) + "]";
    ASSERT_EQ(0, kelp_count(&nrow, {.url = url_of(server)}, quick(), &err)) << err.text;
    EXPECT_EQ(1048576, nrow);
    listing = "[" + listed("a.cvn", 1048575) + "]";
    EXPECT_EQ(KELP_ECHANGED, kelp_count(&nrow, {.url = url_of(server)}, quick(), &err));
}

}  // namespace
