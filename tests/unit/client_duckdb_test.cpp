// Arrow streams read by a database: every type with its NULLs goes in and is queried back. The database is a
// shared library that the environment variable DUCKDB_LIB names; without it the tests are skipped.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cinttypes>

#include "client/fake_server.h"
#include "clients/cpp/arrow.h"

namespace {

using support::table_t;

// The few functions of its C interface that are used.
struct duckdb_result {
    uint64_t column_count, row_count, rows_changed;
    void* columns;
    char* error;
    void* internal;
};

struct api_t {
    int (*open)(const char*, void**);
    void (*close)(void**);
    int (*connect)(void*, void**);
    void (*disconnect)(void**);
    int (*query)(void*, const char*, duckdb_result*);
    const char* (*result_error)(duckdb_result*);
    uint64_t (*row_count)(duckdb_result*);
    char* (*value_varchar)(duckdb_result*, uint64_t, uint64_t);
    double (*value_double)(duckdb_result*, uint64_t, uint64_t);
    bool (*value_is_null)(duckdb_result*, uint64_t, uint64_t);
    void (*free)(void*);
    void (*destroy_result)(duckdb_result*);
    int (*arrow_scan)(void*, const char*, ArrowArrayStream*);
};

class DuckDb : public testing::Test {
 protected:
    void SetUp() override {
        const char* path = getenv("DUCKDB_LIB");
        if (!path || access(path, R_OK) != 0)
            GTEST_SKIP()
                << "DUCKDB_LIB names no library: npm install @duckdb/node-bindings-linux-x64 has one";
        library_ = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, library_) << dlerror();
        const auto load = [this](auto& to, const char* name) {
            to = reinterpret_cast<std::remove_reference_t<decltype(to)>>(dlsym(library_, name));
            ASSERT_NE(nullptr, to) << name;
        };
        load(api_.open, "duckdb_open");
        load(api_.close, "duckdb_close");
        load(api_.connect, "duckdb_connect");
        load(api_.disconnect, "duckdb_disconnect");
        load(api_.query, "duckdb_query");
        load(api_.result_error, "duckdb_result_error");
        load(api_.row_count, "duckdb_row_count");
        load(api_.value_varchar, "duckdb_value_varchar");
        load(api_.value_double, "duckdb_value_double");
        load(api_.value_is_null, "duckdb_value_is_null");
        load(api_.free, "duckdb_free");
        load(api_.destroy_result, "duckdb_destroy_result");
        load(api_.arrow_scan, "duckdb_arrow_scan");
        ASSERT_EQ(0, api_.open(nullptr, &db_));
        ASSERT_EQ(0, api_.connect(db_, &connection_));
    }
    void TearDown() override {
        if (connection_) api_.disconnect(&connection_);
        if (db_) api_.close(&db_);
    }

    void run(const std::string& sql) {
        duckdb_result r{};
        EXPECT_EQ(0, api_.query(connection_, sql.c_str(), &r)) << sql << ": " << api_.result_error(&r);
        api_.destroy_result(&r);
    }
    // One column as texts; NULL is "NULL".
    std::vector<std::string> column(const std::string& sql) {
        duckdb_result r{};
        std::vector<std::string> out;
        if (api_.query(connection_, sql.c_str(), &r) != 0) {
            ADD_FAILURE() << sql << ": " << api_.result_error(&r);
        } else {
            for (uint64_t i = 0; i < api_.row_count(&r); i++) {
                if (api_.value_is_null(&r, 0, i)) {
                    out.emplace_back("NULL");
                    continue;
                }
                char* s = api_.value_varchar(&r, 0, i);
                out.emplace_back(s);
                api_.free(s);
            }
        }
        api_.destroy_result(&r);
        return out;
    }
    std::vector<double> doubles(const std::string& sql) {
        duckdb_result r{};
        std::vector<double> out;
        EXPECT_EQ(0, api_.query(connection_, sql.c_str(), &r)) << sql;
        for (uint64_t i = 0; i < api_.row_count(&r); i++) out.push_back(api_.value_double(&r, 0, i));
        api_.destroy_result(&r);
        return out;
    }
    // Reads the stream into the table `t`.
    void load(ArrowArrayStream* stream) {
        ASSERT_EQ(0, api_.arrow_scan(connection_, "v", stream));
        run("CREATE OR REPLACE TABLE t AS SELECT * FROM v");
        run("DROP VIEW v");
    }
    void expect_table(const table_t& t);

    void* library_ = nullptr;  // never unloaded: it has threads of its own
    api_t api_{};
    void* db_ = nullptr;
    void* connection_ = nullptr;
};

std::string decimal_text(cvn_int128_t v) {
    const bool minus = v < 0;
    auto u = minus ? -static_cast<unsigned __int128>(v) : static_cast<unsigned __int128>(v);
    std::string s;
    do {
        s.insert(s.begin(), static_cast<char>('0' + static_cast<int>(u % 10)));
        u /= 10;
    } while (u);
    return minus ? "-" + s : s;
}

// All types, a fifth NULL, with a row number after them; values that the database's own types can hold.
table_t database_table(uint64_t seed, size_t nrow) {
    table_t t = support::all_types_table(seed, nrow);
    std::mt19937_64 rng(seed);
    for (size_t c = 0; c < t.column.size(); c++)
        for (support::value_t& v : t.value[c]) {
            if (v.null) continue;
            const auto n = static_cast<int64_t>(rng() % 2000001) - 1000000;
            char number[64];
            snprintf(number, sizeof(number), "%" PRId64 ".%02d", n, static_cast<int>(rng() % 100));
            switch (t.column[c].typ) {
                case CVN_TYP_CSTR: v = support::text("z\xc3\xbcrich " + std::string(rng() % 30, 'x')); break;
                case CVN_TYP_DEC64: v = support::dec64(number); break;
                case CVN_TYP_DEC128:
                    v = support::dec128(
                        (std::string(number).insert(number[0] == '-' ? 1 : 0, "123456789012345678901234"))
                            .c_str());
                    break;
                case CVN_TYP_DATE: v = support::i32(static_cast<int32_t>(n / 20)); break;
                case CVN_TYP_TIME_MILLIS: v = support::i32(static_cast<int32_t>(rng() % 86400000)); break;
                case CVN_TYP_TIMESTAMP_MILLIS: v = support::i64(n * 1000003); break;
                default: break;
            }
        }
    t.column.push_back({"row", CVN_TYP_INT64, false, false});
    t.value.emplace_back();
    for (size_t r = 0; r < nrow; r++) t.value.back().push_back(support::i64(static_cast<int64_t>(r)));
    return t;
}

void DuckDb::expect_table(const table_t& t) {
    EXPECT_EQ(std::vector<std::string>{std::to_string(t.nrow())}, column("SELECT count(*) FROM t"));
    for (size_t c = 0; c + 1 < t.column.size(); c++) {
        const reader::column_t& def = t.column[c];
        std::string expr = "\"" + def.name + "\"", type;
        std::vector<std::string> want;
        switch (def.typ) {
            case CVN_TYP_BOOL: type = "BOOLEAN"; break;
            case CVN_TYP_INT16: type = "SMALLINT"; break;
            case CVN_TYP_INT32: type = "INTEGER"; break;
            case CVN_TYP_INT64: type = "BIGINT"; break;
            case CVN_TYP_INT128: type = "HUGEINT"; break;
            case CVN_TYP_FLOAT: type = "FLOAT"; break;
            case CVN_TYP_DOUBLE: type = "DOUBLE"; break;
            case CVN_TYP_BYTEA: type = "BLOB", expr = "hex(" + expr + ")"; break;
            case CVN_TYP_CSTR: type = "VARCHAR"; break;
            case CVN_TYP_DEC64:
            case CVN_TYP_DEC128: type = "DECIMAL(38,2)"; break;
            case CVN_TYP_DATE:
                type = "DATE", expr = "date_diff('day', DATE '1970-01-01', " + expr + ")";
                break;
            case CVN_TYP_TIME_MILLIS:
                type = "TIME", expr = "date_diff('millisecond', TIME '00:00:00', " + expr + ")";
                break;
            default: type = "TIMESTAMP_MS", expr = "epoch_ms(" + expr + ")"; break;
        }
        EXPECT_EQ(std::vector<std::string>{type},
                  column("SELECT typeof(\"" + def.name + "\") FROM t LIMIT 1"))
            << def.name;
        const std::string from = " FROM t ORDER BY \"row\"";
        const std::vector<std::string> got = column("SELECT CAST(" + expr + " AS VARCHAR)" + from);
        const bool is_float = def.typ == CVN_TYP_FLOAT || def.typ == CVN_TYP_DOUBLE;
        const std::vector<double> number =
            is_float ? doubles("SELECT CAST(" + expr + " AS DOUBLE)" + from) : std::vector<double>{};
        ASSERT_EQ(t.nrow(), got.size());
        for (size_t r = 0; r < t.nrow(); r++) {
            const support::value_t& v = t.value[c][r];
            if (v.null) {
                EXPECT_EQ("NULL", got[r]) << def.name << " " << r;
                continue;
            }
            ASSERT_NE("NULL", got[r]) << def.name << " " << r;
            char buf[64] = "";
            std::string text;
            switch (def.typ) {
                case CVN_TYP_BOOL: text = v.bytes[0] ? "true" : "false"; break;
                case CVN_TYP_INT16: text = std::to_string(support::load<int16_t>(v.bytes, 0)); break;
                case CVN_TYP_INT32:
                case CVN_TYP_DATE:
                case CVN_TYP_TIME_MILLIS: text = std::to_string(support::load<int32_t>(v.bytes, 0)); break;
                case CVN_TYP_INT64:
                case CVN_TYP_TIMESTAMP_MILLIS:
                    text = std::to_string(support::load<int64_t>(v.bytes, 0));
                    break;
                case CVN_TYP_INT128: text = decimal_text(support::load<cvn_int128_t>(v.bytes, 0)); break;
                case CVN_TYP_FLOAT:
                case CVN_TYP_DOUBLE: {
                    const double x = def.typ == CVN_TYP_FLOAT ? double{support::load<float>(v.bytes, 0)}
                                                              : support::load<double>(v.bytes, 0);
                    EXPECT_TRUE(x == number[r] || (x != x && number[r] != number[r])) << def.name << " " << r;
                    continue;
                }
                case CVN_TYP_BYTEA:
                    for (const char ch : v.bytes) {
                        snprintf(buf, sizeof(buf), "%02X", static_cast<unsigned char>(ch));
                        text += buf;
                    }
                    break;
                case CVN_TYP_CSTR: text = v.bytes; break;
                case CVN_TYP_DEC64:
                    cvn_dec64_to_string(buf, support::load<decDouble>(v.bytes, 0));
                    text = buf;
                    break;
                default:
                    cvn_dec128_to_string(buf, support::load<decQuad>(v.bytes, 0));
                    text = buf;
                    break;
            }
            ASSERT_EQ(text, got[r]) << def.name << " " << r;
        }
    }
}

TEST_F(DuckDb, ReadsEveryTypeOfAFile) {
    support::temp_dir_t dir;
    const table_t t = database_table(1, 5000);
    support::write_table(dir / "t.cvn", t);
    ArrowArrayStream stream{};
    kelp_error_t err{};
    ASSERT_EQ(0, kelp_arrow_file(&stream, (dir / "t.cvn").c_str(), {}, {}, &err)) << err.text;
    load(&stream);
    expect_table(t);
    if (stream.release) stream.release(&stream);
}

TEST_F(DuckDb, ReadsEveryTypeOfAScan) {
    const table_t t = database_table(2, 5000);
    fake::server_t server([&](int fd, const fake::request_t& r) {
        if (fake::serve_catalogue(fd, r, t, 20)) return;
        std::vector<size_t> col;
        for (size_t c = 0; c < t.column.size(); c++)
            if (r.body.find("\"" + t.column[c].name + "\"") < r.body.find(']')) col.push_back(c);
        const size_t at = r.body.find("\"fragment\": [") + 13;
        char* end = nullptr;
        const size_t id = strtoul(r.body.c_str() + at, &end, 10), nfrag = strtoul(end + 1, nullptr, 10);
        std::vector<std::string> piece;
        for (size_t g = id; g < 20; g += nfrag)
            for (const std::string& p : replies::record_of(t, col, g * 250, (g + 1) * 250, true))
                piece.push_back(p);
        fake::send_all(fd, replies::stream_reply(piece));
    });
    kelp_query_t q;
    ASSERT_EQ(0, kelp_url_parse(&q.url, server.url("/d/s/t"), nullptr));
    q.njob = 3;
    ArrowArrayStream stream{};
    kelp_error_t err{};
    ASSERT_EQ(0, kelp_arrow_scan(&stream, q, {}, {}, &err)) << err.text;
    load(&stream);
    expect_table(t);
    if (stream.release) stream.release(&stream);
}

TEST_F(DuckDb, ReportsTheStreamsError) {
    support::temp_dir_t dir;
    table_t t;
    t.column = {{"s", CVN_TYP_CSTR, false, false}};
    t.value = {{support::text("\xff")}};
    support::write_table(dir / "t.cvn", t);
    ArrowArrayStream stream{};
    ASSERT_EQ(0, kelp_arrow_file(&stream, (dir / "t.cvn").c_str(), {}, {}, nullptr));
    ASSERT_EQ(0, api_.arrow_scan(connection_, "v", &stream));
    duckdb_result r{};
    EXPECT_NE(0, api_.query(connection_, "SELECT * FROM v", &r));
    const char* words = api_.result_error(&r);
    EXPECT_TRUE(words && strstr(words, "no UTF-8")) << (words ? words : "");
    api_.destroy_result(&r);
    if (stream.release) stream.release(&stream);
}

}  // namespace
