// https: which certificates are trusted, and a server that does not speak it.
#include <gtest/gtest.h>
#include <stdio.h>

#include "client/queries.h"

namespace {

using namespace queries;

TEST(ClientTls, TrustsTheAuthorityThatIsNamedAndNoOther) {
    support::temp_dir_t dir;
    FILE* out = popen(("python3 " TESTS_DIR "/support/tls_server.py " + dir.str()).c_str(), "r");
    ASSERT_NE(nullptr, out);
    int port = 0;
    ASSERT_EQ(1, fscanf(out, "%d", &port));
    const std::string base = "https://127.0.0.1:" + std::to_string(port) + "/v1/";
    const auto list = [&](const std::string& path, const std::string& ca_file, kelp_error_t* err) {
        kelp_url_t url;
        EXPECT_EQ(0, kelp_url_parse(&url, base + path, nullptr));
        kelp_opt_t opt = quick();
        opt.ca_file = ca_file;
        std::vector<std::string> name;
        return kelp_list(&name, url, opt, err);
    };
    for (const std::string& untrusted : {std::string(), dir / "other.pem"}) {
        kelp_error_t err{};
        EXPECT_EQ(KELP_ECONNECT, list("db", untrusted, &err));
        EXPECT_NE(nullptr, strstr(err.text, "the certificate of 127.0.0.1:")) << err.text;
        EXPECT_NE(nullptr, strstr(err.hint, "ca_file")) << err.hint;
    }
    kelp_error_t err{};
    EXPECT_EQ(KELP_EFILE, list("db", dir / "none.pem", &err));
    EXPECT_NE(nullptr, strstr(err.text, "none.pem")) << err.text;
    EXPECT_EQ(0, list("db", dir / "cert.pem", &err)) << err.text;
    EXPECT_EQ(0, list("quit", dir / "cert.pem", &err)) << err.text;
    EXPECT_EQ(0, pclose(out));
}

TEST(ClientTls, APortWithoutItIsNamedAsThat) {
    server_t server([](int fd, const request_t&) { send_all(fd, json_reply("[]")); }, true);
    kelp_url_t url;
    ASSERT_EQ(0, kelp_url_parse(&url, "https://127.0.0.1:" + std::to_string(server.port), nullptr));
    std::vector<std::string> name;
    kelp_error_t err{};
    EXPECT_EQ(KELP_ECONNECT, kelp_list(&name, url, quick(), &err));
    EXPECT_NE(nullptr, strstr(err.text, "no secure connection to 127.0.0.1:")) << err.text;
    EXPECT_NE(nullptr, strstr(err.hint, "kelp://")) << err.hint;
}

}  // namespace
