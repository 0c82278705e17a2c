// Arrow streams of local files and of scans, read by a consumer that checks the interface's rules.
#include "clients/cpp/arrow.h"

#include <gtest/gtest.h>

#include "client/arrow_reader.h"
#include "client/fake_server.h"

namespace {

using arrow_reader::field_t;
using support::table_t;
using support::values_t;

// Random values, but text in UTF-8, decimals that one scale expresses, and times within a day.
table_t arrow_table(uint64_t seed, size_t nrow) {
    table_t t = support::all_types_table(seed, nrow);
    std::mt19937_64 rng(seed);
    for (size_t c = 0; c < t.column.size(); c++)
        for (support::value_t& v : t.value[c]) {
            if (v.null) continue;
            static constexpr const char* TEXTS[] = {"", "abc", "z\xc3\xbcrich", "\xe2\x82\xac",
                                                    "\xf0\x9f\x90\x9a shell"};
            const std::string number = std::to_string(static_cast<int64_t>(rng() % 2000001) - 1000000) + "." +
                                       std::to_string(10 + rng() % 90);
            switch (t.column[c].typ) {
                case CVN_TYP_CSTR: v = support::text(TEXTS[rng() % 5] + std::string(rng() % 40, 'x')); break;
                case CVN_TYP_DEC64: v = support::dec64(number.c_str()); break;
                case CVN_TYP_TIME_MILLIS: v = support::i32(static_cast<int32_t>(rng() % 86400000)); break;
                case CVN_TYP_DEC128: v = support::dec128((number + "50").c_str()); break;
                default: break;
            }
        }
    return t;
}

// What a decimal column becomes: the text without its point, as an integer of 128 bits.
values_t scaled(const values_t& value, int32_t typ, int scale) {
    values_t out;
    for (const support::value_t& v : value) {
        if (v.null) {
            out.push_back(v);
            continue;
        }
        char buf[64];
        if (typ == CVN_TYP_DEC64)
            cvn_dec64_to_string(buf, support::load<decDouble>(v.bytes, 0));
        else
            cvn_dec128_to_string(buf, support::load<decQuad>(v.bytes, 0));
        const std::string s = buf;
        const size_t e = s.find('E');
        int exponent = e == s.npos ? 0 : atoi(s.c_str() + e + 1);
        cvn_int128_t x = 0;
        bool point = false;
        for (const char c : s.substr(0, e)) {
            if (c == '.') point = true;
            if (c < '0' || c > '9') continue;
            x = x * 10 + (c - '0');
            exponent -= point;
        }
        for (; exponent + scale > 0; exponent--) x *= 10;
        for (; exponent + scale < 0; exponent++) x /= 10;
        out.push_back(support::i128(s[0] == '-' ? -x : x));
    }
    return out;
}

const std::vector<std::string> FORMATS = {"b", "s", "i",      "l",      "w:16", "f",   "g",
                                          "z", "u", "d:38,2", "d:38,4", "tdD",  "ttm", "tsm:"};

void expect_table(const table_t& t, const std::vector<values_t>& got) {
    ASSERT_EQ(t.column.size(), got.size());
    for (size_t c = 0; c < got.size(); c++) {
        const int32_t typ = t.column[c].typ;
        if (typ == CVN_TYP_DEC64)
            EXPECT_EQ(scaled(t.value[c], typ, 2), got[c]);
        else if (typ == CVN_TYP_DEC128)
            EXPECT_EQ(scaled(t.value[c], typ, 4), got[c]);
        else
            EXPECT_EQ(t.value[c], got[c]) << t.column[c].name;
    }
}

ArrowArrayStream open_file(const std::string& path, const std::vector<std::string>& column = {},
                           const kelp_arrow_opt_t& opt = {}) {
    ArrowArrayStream stream{};
    kelp_error_t err{};
    EXPECT_EQ(0, kelp_arrow_file(&stream, path.c_str(), column, opt, &err)) << err.text;
    return stream;
}

TEST(ArrowFile, CarriesEveryTypeWithItsNulls) {
    support::temp_dir_t dir;
    for (const size_t nrow : {0u, 1u, 9u, 3000u}) {
        const table_t t = arrow_table(nrow + 1, nrow);
        support::write_table(dir / "t.cvn", t);
        kelp_arrow_opt_t opt;
        if (nrow < 9) opt.scale = {{"dec64", 2}, {"dec128", 4}};
        ArrowArrayStream stream = open_file(dir / "t.cvn", {}, opt);
        std::vector<std::string> format;
        for (const field_t& f : arrow_reader::fields_of(&stream)) {
            format.push_back(f.format);
            EXPECT_TRUE(f.nullable);
        }
        EXPECT_EQ(FORMATS, format);
        int code = 0;
        expect_table(t, arrow_reader::read_all(&stream, &code));
        EXPECT_EQ(0, code);
        EXPECT_EQ(nullptr, stream.get_last_error(&stream));
        ArrowArray again;
        EXPECT_EQ(0, stream.get_next(&stream, &again));  // the end stays the end
        EXPECT_EQ(nullptr, again.release);
        stream.release(&stream);
        EXPECT_EQ(nullptr, stream.release);
    }
}

TEST(ArrowFile, ReadsSplitDirectories) {
    support::temp_dir_t dir;
    const table_t t = arrow_table(5, 500);
    support::write_table(dir / "t.cvn", t);
    ASSERT_EQ(0, cvnx_split((dir / "split").c_str(), (dir / "t.cvn").c_str()));
    ArrowArrayStream stream = open_file(dir / "split");
    int code = 0;
    expect_table(t, arrow_reader::read_all(&stream, &code));
    EXPECT_EQ(0, code);
    stream.release(&stream);
}

TEST(ArrowFile, TakesTheColumnsInTheOrderAskedFor) {
    support::temp_dir_t dir;
    const table_t t = arrow_table(6, 50);
    support::write_table(dir / "t.cvn", t);
    ArrowArrayStream stream = open_file(dir / "t.cvn", {"double", "bool"});
    EXPECT_EQ((std::vector<field_t>{{"double", "g", true}, {"bool", "b", true}}),
              arrow_reader::fields_of(&stream));
    int code = 0;
    const std::vector<values_t> got = arrow_reader::read_all(&stream, &code);
    EXPECT_EQ(t.value[6], got[0]);
    EXPECT_EQ(t.value[0], got[1]);
    stream.release(&stream);
    ArrowArrayStream none{};
    kelp_error_t err{};
    EXPECT_EQ(KELP_EARG, kelp_arrow_file(&none, (dir / "t.cvn").c_str(), {"nope"}, {}, &err));
    EXPECT_EQ(nullptr, none.release);
    EXPECT_EQ(KELP_EFILE, kelp_arrow_file(&none, (dir / "none.cvn").c_str(), {}, {}, &err));
    EXPECT_NE(nullptr, strstr(err.text, "No such file")) << err.text;
    support::write_file(dir / "bad.cvn", "no data file at all");
    EXPECT_EQ(KELP_EFILE, kelp_arrow_file(&none, (dir / "bad.cvn").c_str(), {}, {}, &err));
}

TEST(ArrowFile, ChildrenMayBeMovedAndOutliveAll) {
    support::temp_dir_t dir;
    const table_t t = arrow_table(7, 200);
    support::write_table(dir / "t.cvn", t);
    ArrowArrayStream stream = open_file(dir / "t.cvn");
    ArrowArray array;
    ASSERT_EQ(0, stream.get_next(&stream, &array));
    ArrowArray moved[2] = {*array.children[3], *array.children[8]};
    array.children[3]->release = nullptr;
    array.children[8]->release = nullptr;
    array.release(&array);
    stream.release(&stream);
    EXPECT_EQ(t.value[3], arrow_reader::values_of(moved[0], "l"));
    EXPECT_EQ(t.value[8], arrow_reader::values_of(moved[1], "u"));
    for (ArrowArray& m : moved) {
        m.release(&m);
        EXPECT_EQ(nullptr, m.release);
    }
}

TEST(ArrowFile, MarksInt128AsAnExtensionThatKeepsAllBits) {
    support::temp_dir_t dir;
    table_t t;
    t.column = {{"x", CVN_TYP_INT128, false, false}};
    const cvn_int128_t least = static_cast<cvn_int128_t>(static_cast<unsigned __int128>(1) << 127);
    t.value = {{support::i128(least), support::i128(-1), support::null_value(), support::i128(~least)}};
    support::write_table(dir / "t.cvn", t);
    ArrowArrayStream stream = open_file(dir / "t.cvn");
    ArrowSchema schema;
    ASSERT_EQ(0, stream.get_schema(&stream, &schema));
    const char* m = schema.children[0]->metadata;
    ASSERT_NE(nullptr, m);
    std::vector<std::string> text;
    int32_t npair;
    memcpy(&npair, m, sizeof(npair));
    m += sizeof(npair);
    for (int i = 0; i < 2 * npair; i++) {
        int32_t n;
        memcpy(&n, m, sizeof(n));
        text.emplace_back(m + sizeof(n), static_cast<size_t>(n));
        m += sizeof(n) + static_cast<size_t>(n);
    }
    EXPECT_EQ((std::vector<std::string>{"ARROW:extension:name", "arrow.opaque", "ARROW:extension:metadata",
                                        R"({"type_name": "hugeint", "vendor_name": "DuckDB"})"}),
              text);
    schema.release(&schema);
    int code = 0;
    EXPECT_EQ(t.value, arrow_reader::read_all(&stream, &code));
    stream.release(&stream);
}

// Decimals.

table_t decimals(const std::vector<const char*>& text) {
    table_t t;
    t.column = {{"d", CVN_TYP_DEC128, false, false}};
    t.value.resize(1);
    for (const char* s : text) t.value[0].push_back(s ? support::dec128(s) : support::null_value());
    return t;
}

// The scale that is found, or the code.
std::string format_of(const support::temp_dir_t& dir, const std::vector<const char*>& text,
                      kelp_error_t* err) {
    support::write_table(dir / "t.cvn", decimals(text));
    ArrowArrayStream stream{};
    const int code = kelp_arrow_file(&stream, (dir / "t.cvn").c_str(), {}, {}, err);
    if (code) return std::to_string(code);
    const std::string format = arrow_reader::fields_of(&stream)[0].format;
    values_t want;
    const int scale = atoi(format.c_str() + 5);
    int read = 0;
    EXPECT_EQ(scaled(decimals(text).value[0], CVN_TYP_DEC128, scale),
              arrow_reader::read_all(&stream, &read)[0]);
    EXPECT_EQ(0, read);
    stream.release(&stream);
    return format;
}

TEST(ArrowDecimal, GetsTheScaleThatExpressesAllValues) {
    support::temp_dir_t dir;
    kelp_error_t err{};
    EXPECT_EQ("d:38,0", format_of(dir, {}, &err));
    EXPECT_EQ("d:38,0", format_of(dir, {nullptr, nullptr}, &err));
    EXPECT_EQ("d:38,0", format_of(dir, {"1", "-20", "3E+5"}, &err));
    EXPECT_EQ("d:38,2", format_of(dir, {"1.5", "2.25", nullptr, "7"}, &err));
    EXPECT_EQ("d:38,3", format_of(dir, {"1.500", "0"}, &err));
    EXPECT_EQ("d:38,2", format_of(dir, {"0.00", "1"}, &err));
    EXPECT_EQ("d:38,4", format_of(dir, {"1234567890123456789012345678901234", "0.0001"}, &err));
    // Only without the zeros at its end does the first leave room for the second.
    EXPECT_EQ("d:38,1", format_of(dir, {"1.5000000000", "1234567890123456789012345678901234"}, &err));
    EXPECT_EQ("d:38,38", format_of(dir, {"1E-38", "0.5"}, &err));
    EXPECT_EQ(std::to_string(KELP_EUNFIT), format_of(dir, {"1E-38", "5"}, &err));
    EXPECT_NE(nullptr, strstr(err.text, "no one scale")) << err.text;
    EXPECT_EQ(std::to_string(KELP_EUNFIT), format_of(dir, {"1E+38"}, &err));
    EXPECT_EQ("d:38,0", format_of(dir, {"1E+37", "-9999999999999999999999999999999999E+4"}, &err));
    EXPECT_EQ(std::to_string(KELP_EUNFIT), format_of(dir, {"1E-39"}, &err));
    EXPECT_EQ(std::to_string(KELP_EUNFIT), format_of(dir, {"1", "NaN"}, &err));
    EXPECT_EQ(std::to_string(KELP_EUNFIT), format_of(dir, {"1", "-Infinity"}, &err));
    EXPECT_NE(nullptr, strstr(err.text, "a NaN or an infinity")) << err.text;
}

TEST(ArrowDecimal, AGivenScaleMustFitEveryValue) {
    support::temp_dir_t dir;
    support::write_table(dir / "t.cvn", decimals({"1.5", "2.25"}));
    kelp_error_t err{};
    ArrowArrayStream stream = open_file(dir / "t.cvn", {}, {.scale = {{"d", 1}}});
    int code = 0;
    (void)arrow_reader::read_all(&stream, &code);
    EXPECT_EQ(EINVAL, code);
    EXPECT_NE(nullptr, strstr(stream.get_last_error(&stream),
                              "column d holds a value that decimal128(38, 1) cannot express"))
        << stream.get_last_error(&stream);
    stream.release(&stream);
    for (const kelp_arrow_opt_t& bad :
         {kelp_arrow_opt_t{.scale = {{"x", 1}}}, kelp_arrow_opt_t{.scale = {{"d", 39}}},
          kelp_arrow_opt_t{.scale = {{"d", -1}}}})
        EXPECT_EQ(KELP_EARG, kelp_arrow_file(&stream, (dir / "t.cvn").c_str(), {}, bad, &err)) << err.text;
}

TEST(ArrowDecimal, EveryDecletIsDecoded) {
    // 0 to 999 in each position, against the library's own text of the value.
    table_t t;
    t.column = {{"a", CVN_TYP_DEC64, false, false}, {"b", CVN_TYP_DEC128, false, false}};
    t.value.resize(2);
    for (int i = 0; i < 1000; i++) {
        const std::string n = std::to_string(i), s = std::string(3 - n.size(), '0') + n;
        t.value[0].push_back(support::dec64(("9" + s + s + "123" + s + "000").c_str()));
        t.value[1].push_back(support::dec128(
            ("-" + std::to_string(i % 10) + s + s + "123" + s + "456" + s + s + s + "789" + s + s).c_str()));
    }
    support::temp_dir_t dir;
    support::write_table(dir / "t.cvn", t);
    ArrowArrayStream stream = open_file(dir / "t.cvn");
    int code = 0;
    const std::vector<values_t> got = arrow_reader::read_all(&stream, &code);
    EXPECT_EQ(scaled(t.value[0], CVN_TYP_DEC64, 0), got[0]);
    EXPECT_EQ(scaled(t.value[1], CVN_TYP_DEC128, 0), got[1]);
    stream.release(&stream);
}

// Texts.

TEST(ArrowText, MustBeUtf8UnlessBinaryIsAskedFor) {
    support::temp_dir_t dir;
    struct {
        const char* text;
        bool good;
    } const cases[] = {{"plain", true},
                       {"\xc2\x80", true},
                       {"\xed\x9f\xbf", true},
                       {"\xee\x80\x80", true},
                       {"\xf4\x8f\xbf\xbf", true},
                       {"12345678\xc3\xa4", true},
                       {"\x80", false},
                       {"\xc0\x80", false},
                       {"\xc1\xbf", false},
                       {"\xe0\x9f\xbf", false},
                       {"\xed\xa0\x80", false},
                       {"\xf0\x8f\xbf\xbf", false},
                       {"\xf4\x90\x80\x80", false},
                       {"\xf5\x80\x80\x80", false},
                       {"\xe2\x82", false},
                       {"\xc3", false},
                       {"1234567\xff", false}};
    for (const auto& c : cases) {
        table_t t;
        t.column = {{"s", CVN_TYP_CSTR, false, false}};
        // What follows a cut sequence must not complete it.
        t.value = {{support::text("ok"), support::text(c.text), support::text("\xc2\x80")}};
        support::write_table(dir / "t.cvn", t);
        ArrowArrayStream stream = open_file(dir / "t.cvn");
        int code = 0;
        const std::vector<values_t> got = arrow_reader::read_all(&stream, &code);
        EXPECT_EQ(c.good ? 0 : EINVAL, code) << c.text;
        if (c.good) {
            EXPECT_EQ(t.value, got);
        } else {
            EXPECT_NE(nullptr, strstr(stream.get_last_error(&stream), "no UTF-8"));
        }
        stream.release(&stream);
        stream = open_file(dir / "t.cvn", {}, {.scale = {}, .text_as_binary = true});
        EXPECT_EQ("z", arrow_reader::fields_of(&stream)[0].format);
        EXPECT_EQ(t.value, arrow_reader::read_all(&stream, &code));
        EXPECT_EQ(0, code);
        stream.release(&stream);
    }
}

TEST(ArrowFile, ReportsADamagedPage) {
    support::temp_dir_t dir;
    const table_t t = arrow_table(8, 300);
    support::write_table(dir / "t.cvn", t);
    std::string bytes = support::read_file(dir / "t.cvn");
    bytes[20] = static_cast<char>(bytes[20] ^ 1);
    support::write_file(dir / "t.cvn", bytes);
    ArrowArrayStream stream = open_file(dir / "t.cvn", {}, {.scale = {{"dec64", 2}, {"dec128", 4}}});
    int code = 0;
    (void)arrow_reader::read_all(&stream, &code);
    EXPECT_EQ(EIO, code);
    EXPECT_NE(nullptr, strstr(stream.get_last_error(&stream),
                              "column bool in row group 0 is damaged: its hash does not match"))
        << stream.get_last_error(&stream);
    stream.release(&stream);
}

TEST(ArrowFile, SurvivesAnyDamageToItsFooter) {
    support::temp_dir_t dir;
    support::write_table(dir / "t.cvn", decimals({"1.5", nullptr, "7"}));
    const std::string bytes = support::read_file(dir / "t.cvn");
    const support::layout_t layout(bytes);
    for (size_t i = layout.foot; i < bytes.size(); i++)
        for (const int flip : {1, 0x80}) {
            std::string bad = bytes;
            bad[i] = static_cast<char>(bad[i] ^ flip);
            support::write_file(dir / "bad.cvn", bad);
            ArrowArrayStream stream{};
            kelp_error_t err{};
            if (kelp_arrow_file(&stream, (dir / "bad.cvn").c_str(), {}, {}, &err) != 0) {
                EXPECT_NE('\0', err.text[0]) << i;
                EXPECT_EQ(nullptr, stream.release);
                continue;
            }
            int code = 0;
            (void)arrow_reader::read_all(&stream, &code);
            stream.release(&stream);
        }
}

TEST(ArrowFile, AFailureIsTheEndOfTheStream) {
    support::temp_dir_t dir;
    table_t t;
    t.column = {{"s", CVN_TYP_CSTR, false, false}};
    // Row groups are cut at 32 MiB of values, so the bad text is alone in the first.
    t.value = {{support::text(std::string(33 << 20, 'x') + "\xff"), support::text("good")}};
    support::write_table(dir / "t.cvn", t);
    kelp_arrow_opt_t binary;
    binary.text_as_binary = true;
    ArrowArrayStream stream = open_file(dir / "t.cvn", {}, binary);
    ArrowArray array;
    ASSERT_EQ(0, stream.get_next(&stream, &array));
    ASSERT_EQ(1, array.length);
    array.release(&array);
    stream.release(&stream);
    stream = open_file(dir / "t.cvn");
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(EINVAL, stream.get_next(&stream, &array)) << i;
        EXPECT_EQ(nullptr, array.release);
        ASSERT_NE(nullptr, stream.get_last_error(&stream));
        EXPECT_NE(nullptr, strstr(stream.get_last_error(&stream), "no UTF-8"));
    }
    stream.release(&stream);
}

TEST(ArrowFile, ATimeOutsideOfADayIsRefused) {
    support::temp_dir_t dir;
    for (const int ms : {0, 86399999, -1, 86400000, INT32_MIN}) {
        table_t t;
        t.column = {{"t", CVN_TYP_TIME_MILLIS, false, false}};
        t.value = {{support::i32(5), support::null_value(), support::i32(ms)}};
        support::write_table(dir / "t.cvn", t);
        ArrowArrayStream stream = open_file(dir / "t.cvn");
        int code = 0;
        const std::vector<values_t> got = arrow_reader::read_all(&stream, &code);
        const bool good = ms >= 0 && ms < 86400000;
        EXPECT_EQ(good ? 0 : EINVAL, code) << ms;
        if (good) {
            EXPECT_EQ(t.value, got);
        } else {
            ASSERT_NE(nullptr, stream.get_last_error(&stream));
            EXPECT_NE(nullptr, strstr(stream.get_last_error(&stream), "no time of a day"));
        }
        stream.release(&stream);
    }
}

TEST(ArrowFile, ANameThatIsNoUtf8IsRefused) {
    support::temp_dir_t dir;
    table_t t;
    t.column = {{"z\xfcrich", CVN_TYP_INT32, false, false}, {"i", CVN_TYP_INT32, false, false}};
    t.value = {{support::i32(1)}, {support::i32(2)}};
    support::write_table(dir / "t.cvn", t);
    ArrowArrayStream stream{};
    kelp_error_t err{};
    EXPECT_EQ(KELP_EUNFIT, kelp_arrow_file(&stream, (dir / "t.cvn").c_str(), {}, {}, &err));
    EXPECT_EQ(nullptr, stream.release);
    EXPECT_NE(nullptr, strstr(err.text, "is no UTF-8")) << err.text;
    stream = open_file(dir / "t.cvn", {"i"});
    int code = 0;
    EXPECT_EQ(std::vector<values_t>{t.value[1]}, arrow_reader::read_all(&stream, &code));
    EXPECT_EQ(0, code);
    stream.release(&stream);
}

TEST(ArrowFile, FiltersOnColumnsThatAreNotInTheResult) {
    support::temp_dir_t dir;
    const table_t t = arrow_table(11, 500);
    support::write_table(dir / "t.cvn", t);
    kelp_query_t q;
    q.column = {"cstr", "dec64"};
    q.cond = {{"int16", CVN_OP_GE, {"0"}}, {"bool", CVN_OP_EQ, {"true"}}};
    std::vector<values_t> want(2);
    for (size_t r = 0; r < t.nrow(); r++) {
        const support::value_t &b = t.value[0][r], &n = t.value[1][r];
        if (b.null || n.null || !b.bytes[0] || support::load<int16_t>(n.bytes, 0) < 0) continue;
        want[0].push_back(t.value[8][r]);
        want[1].push_back(t.value[9][r]);
    }
    ASSERT_GT(want[0].size(), 10u);
    ArrowArrayStream stream{};
    kelp_error_t err{};
    ASSERT_EQ(0, kelp_arrow_file_query(&stream, (dir / "t.cvn").c_str(), q, {}, &err)) << err.text;
    EXPECT_EQ((std::vector<field_t>{{"cstr", "u", true}, {"dec64", "d:38,2", true}}),
              arrow_reader::fields_of(&stream));
    int code = 0;
    EXPECT_EQ((std::vector<values_t>{want[0], scaled(want[1], CVN_TYP_DEC64, 2)}),
              arrow_reader::read_all(&stream, &code));
    EXPECT_EQ(0, code);
    stream.release(&stream);

    q.exact = false;
    q.column = {"cstr"};
    ASSERT_EQ(0, kelp_arrow_file_query(&stream, (dir / "t.cvn").c_str(), q, {}, &err)) << err.text;
    EXPECT_EQ(std::vector<values_t>{t.value[8]}, arrow_reader::read_all(&stream, &code));
    stream.release(&stream);
    q.cond = {{"int16", CVN_OP_EQ, {"x"}}};
    EXPECT_EQ(KELP_EARG, kelp_arrow_file_query(&stream, (dir / "t.cvn").c_str(), q, {}, &err));
    EXPECT_EQ(nullptr, stream.release);
}

// Scans.

// A server whose table has one column, of the type that `typ_of_look` gives for the n-th look at its columns;
// a scan gets a row of it.
fake::server_t::handler_t shifting_handler(std::function<std::vector<int32_t>(int)> typ_of_look) {
    auto nlook = std::make_shared<std::atomic<int>>(0);
    return [nlook, typ_of_look](int fd, const fake::request_t& r) {
        const bool look = r.method == "GET" && r.url.ends_with(".cvn");
        table_t t;
        std::vector<size_t> col;
        for (const int32_t typ : typ_of_look(look ? nlook->fetch_add(1) : nlook->load() - 1)) {
            const std::string name = "c" + std::to_string(t.column.size());
            if (r.body.find("\"" + name + "\"") != std::string::npos) col.push_back(t.column.size());
            t.column.push_back({name, typ, false, false});
            t.value.push_back({typ == CVN_TYP_DEC128 ? support::dec128("1.5")
                               : typ == CVN_TYP_CSTR ? support::text("")
                                                     : support::i32(1)});
        }
        if (!fake::serve_catalogue(fd, r, t, 1))
            fake::send_all(fd, replies::stream_reply(replies::record_of(t, col, 0, 1, false)));
    };
}

TEST(ArrowScan, ColumnsThatChangeBetweenTwoLooksAreAnError) {
    const std::vector<int32_t> decimal{CVN_TYP_DEC128}, text{CVN_TYP_CSTR}, number{CVN_TYP_INT32},
        two{CVN_TYP_DEC128, CVN_TYP_CSTR};
    // The looks are: for the list of columns, for the scales, and for the scan itself.
    for (const auto& looks : std::vector<std::vector<std::vector<int32_t>>>{{decimal, text, text},
                                                                            {decimal, number, number},
                                                                            {decimal, decimal, text},
                                                                            {decimal, decimal, two},
                                                                            {two, two, decimal},
                                                                            {number, text, text},
                                                                            {number, two, two}}) {
        fake::server_t server(
            shifting_handler([&](int n) { return looks.at(static_cast<size_t>(std::clamp(n, 0, 2))); }));
        kelp_query_t q;
        ASSERT_EQ(0, kelp_url_parse(&q.url, server.url("/d/s/t"), nullptr));
        q.njob = 1;
        ArrowArrayStream stream{};
        kelp_error_t err{};
        EXPECT_EQ(KELP_ECHANGED, kelp_arrow_scan(&stream, q, {}, {}, &err)) << err.text;
        EXPECT_STREQ("the table changed while it was read", err.text);
        EXPECT_EQ(nullptr, stream.release);
    }
    fake::server_t server(shifting_handler([&](int) { return two; }));
    kelp_query_t q;
    ASSERT_EQ(0, kelp_url_parse(&q.url, server.url("/d/s/t"), nullptr));
    ArrowArrayStream stream{};
    kelp_error_t err{};
    ASSERT_EQ(0, kelp_arrow_scan(&stream, q, {}, {}, &err)) << err.text;
    stream.release(&stream);
}

TEST(ArrowScan, CarriesWhatTheScanCarries) {
    const table_t t = arrow_table(9, 400);
    fake::server_t server([&](int fd, const fake::request_t& r) {
        if (fake::serve_catalogue(fd, r, t, 4)) return;
        std::vector<size_t> col;
        for (size_t c = 0; c < t.column.size(); c++)
            if (r.body.find("\"" + t.column[c].name + "\"") < r.body.find(']')) col.push_back(c);
        std::vector<std::string> piece;
        for (size_t g = 0; g < 4; g++)
            for (const std::string& p : replies::record_of(t, col, g * 100, (g + 1) * 100, true))
                piece.push_back(p);
        fake::send_all(fd, replies::stream_reply(piece));
    });
    kelp_query_t q;
    ASSERT_EQ(0, kelp_url_parse(&q.url, server.url("/d/s/t"), nullptr));
    q.njob = 1;
    ArrowArrayStream stream{};
    kelp_error_t err{};
    ASSERT_EQ(0, kelp_arrow_scan(&stream, q, {}, {}, &err)) << err.text;
    int code = 0;
    expect_table(t, arrow_reader::read_all(&stream, &code));
    EXPECT_EQ(0, code);
    stream.release(&stream);

    // Released in the middle.
    ASSERT_EQ(0, kelp_arrow_scan(&stream, q, {}, {}, &err)) << err.text;
    ArrowArray array;
    ASSERT_EQ(0, stream.get_next(&stream, &array));
    stream.release(&stream);
    EXPECT_EQ(100, array.length);
    array.release(&array);
}

TEST(ArrowScan, AnErrorOfTheScanIsTheStreamsError) {
    table_t t;
    t.column = {{"i", CVN_TYP_INT32, false, false}};
    t.value = {{support::i32(1), support::i32(2)}};
    fake::server_t server([&](int fd, const fake::request_t& r) {
        if (fake::serve_catalogue(fd, r, t, 1)) return;
        fake::send_all(fd, replies::STREAM_HEAD +
                               replies::chunk(replies::join(replies::record_of(t, {0}, 0, 2, false))) +
                               "500 Internal Server Error");
    });
    kelp_query_t q;
    ASSERT_EQ(0, kelp_url_parse(&q.url, server.url("/d/s/t"), nullptr));
    ArrowArrayStream stream{};
    ASSERT_EQ(0, kelp_arrow_scan(&stream, q, {}, {}, nullptr));
    int code = 0;
    (void)arrow_reader::read_all(&stream, &code);
    EXPECT_EQ(EIO, code);
    EXPECT_NE(nullptr, strstr(stream.get_last_error(&stream), "500 Internal Server Error"))
        << stream.get_last_error(&stream);
    stream.release(&stream);
}

}  // namespace
