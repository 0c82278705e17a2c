// What the tests of the columnar library share: temporary directories, whole-file reading and writing, datums
// from values and back, and tables written and scanned through the library in one call.
#ifndef KELPD_TESTS_SUPPORT_H
#define KELPD_TESTS_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "colvane/colvane.h"
#include "reader/reader.h"

namespace support {

namespace fs = std::filesystem;
using namespace std::string_literals;
using reader::column_t;
using reader::value_t;
using reader::values_t;

// A fresh directory that disappears with the object. `root` is where it is made.
class temp_dir_t {
 public:
    explicit temp_dir_t(const fs::path& root = fs::temp_directory_path()) {
        std::string name = (root / "colvane-test-XXXXXX").string();
        if (!mkdtemp(name.data())) abort();
        path_ = name;
    }
    temp_dir_t(const temp_dir_t&) = delete;
    temp_dir_t& operator=(const temp_dir_t&) = delete;
    ~temp_dir_t() {
        std::error_code ignored;  // a leftover directory must not fail a test
        fs::remove_all(path_, ignored);
    }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    const std::string& str() const { return path_; }

 private:
    std::string path_;
};

// Where thousands of small files are made fastest: in memory, if the system has such a folder.
inline fs::path fast_root() {
    return access("/dev/shm", W_OK | X_OK) == 0 ? fs::path("/dev/shm") : fs::temp_directory_path();
}

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::string& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    ASSERT_TRUE(out.good()) << path;
}

template <typename T>
std::string image(T v) {
    return {reinterpret_cast<const char*>(&v), sizeof(v)};
}

// The image of a page's head: what stands before a body in a reply.
inline std::string image(const cvn_page_t& head) {
    return {reinterpret_cast<const char*>(&head), CVN_PAGE_HEADSZ};
}
inline std::string le16(int16_t v) { return image(v); }
inline std::string le32(int32_t v) { return image(v); }
inline std::string le64(int64_t v) { return image(v); }

template <typename T>
T load(std::string_view bytes, size_t at) {
    T v;
    memcpy(&v, bytes.data() + at, sizeof(v));
    return v;
}

template <typename T>
void patch(std::string& bytes, size_t at, T v) {
    ASSERT_LE(at + sizeof(v), bytes.size());
    memcpy(bytes.data() + at, &v, sizeof(v));
}

// Values as they are stored.
inline value_t null_value() { return {true, {}}; }
inline value_t text(std::string s) { return {false, std::move(s)}; }
inline value_t i16(int16_t v) { return {false, image(v)}; }
inline value_t i32(int32_t v) { return {false, image(v)}; }
inline value_t i64(int64_t v) { return {false, image(v)}; }
inline value_t i128(cvn_int128_t v) { return {false, image(v)}; }
inline value_t f32(float v) { return {false, image(v)}; }
inline value_t f64(double v) { return {false, image(v)}; }
inline value_t boolean(bool v) { return {false, std::string(1, v ? 1 : 0)}; }
inline value_t dec64(const char* s) {
    decDouble d;
    EXPECT_EQ(0, cvn_dec64_from_string(&d, s)) << s;
    return {false, image(d)};
}
inline value_t dec128(const char* s) {
    decQuad d;
    EXPECT_EQ(0, cvn_dec128_from_string(&d, s)) << s;
    return {false, image(d)};
}

// A datum that borrows the value's bytes.
inline cvn_datum_t to_datum(int32_t typ, const value_t& v) {
    cvn_datum_t d;
    memset(&d, 0, sizeof(d));
    if (v.null) return d;
    if (cvn_storage(typ) == CVN_TYP_CSTR) {
        d.t = v.bytes.c_str();
    } else if (cvn_storage(typ) == CVN_TYP_BYTEA) {
        d.a.ptr = v.bytes.data();
        d.a.len = static_cast<int32_t>(v.bytes.size());
    } else {
        memcpy(&d, v.bytes.data(), v.bytes.size());
    }
    return d;
}

struct table_t {
    std::vector<column_t> column;
    std::vector<values_t> value;  // per column
    size_t nrow() const { return value.empty() ? 0 : value[0].size(); }
};

inline int append_rows(cvn_t* w, const table_t& t) {
    std::vector<cvn_datum_t> datum(t.column.size());
    const auto isnull = std::make_unique<bool[]>(t.column.size());
    for (size_t r = 0; r < t.nrow(); r++) {
        for (size_t c = 0; c < t.column.size(); c++) {
            datum[c] = to_datum(t.column[c].typ, t.value[c][r]);
            isnull[c] = t.value[c][r].null;
        }
        if (const int e = cvn_append(w, static_cast<int>(t.column.size()), datum.data(), isnull.get()))
            return e;
    }
    return 0;
}

inline int declare(cvn_t* w, const std::vector<column_t>& column) {
    for (const column_t& c : column)
        if (const int e = cvn_create_column(w, c.name.c_str(), c.typ, c.zflag, c.nflag)) return e;
    return 0;
}

// Writes a table through the library.
inline void write_table(const std::string& path, const table_t& t) {
    cvn_t* w = nullptr;
    ASSERT_EQ(0, cvn_create(&w, path.c_str()));
    ASSERT_EQ(0, declare(w, t.column));
    ASSERT_EQ(0, append_rows(w, t));
    ASSERT_EQ(0, cvn_close(w));
}

// Scans all columns of a file or split directory through the library, decompressing, and decodes the pages
// with the second reader.
inline table_t scan_table(const std::string& path) {
    table_t t;
    cvn_scan_t* sc = nullptr;
    EXPECT_EQ(0, cvn_scan_open(&sc, path.c_str())) << path;
    if (!sc) return t;
    int ncol = 0;
    const cvn_coldef_t* def = nullptr;
    EXPECT_EQ(0, cvn_scan_coldef(&ncol, &def, sc));
    t.value.resize(static_cast<size_t>(ncol));
    for (int c = 0; c < ncol; c++) {
        t.column.push_back({def[c].name, def[c].typ, def[c].zflag != 0, def[c].nflag != 0});
        EXPECT_EQ(0, cvn_scan_add_required(sc, def[c].name));
    }
    int npage = 0;
    cvn_page_t** page = nullptr;
    int e;
    while ((e = cvn_scan_next(sc, &npage, &page, true)) == 0) {
        EXPECT_EQ(ncol, npage);
        for (int c = 0; c < npage; c++) {
            EXPECT_EQ(page[c]->nbyte, page[c]->zbyte);
            const values_t v =
                reader::decode_chunk(page[c]->typ, {page[c]->buf, static_cast<size_t>(page[c]->nbyte)},
                                     page[c]->nrow, page[c]->nmapoff);
            values_t& all = t.value[static_cast<size_t>(c)];
            all.insert(all.end(), v.begin(), v.end());
        }
    }
    EXPECT_EQ(-4, e);
    EXPECT_EQ(0, cvn_scan_close(sc));
    return t;
}

// Offsets of footer records in a file, for patching.
struct layout_t {
    size_t foot, foot_sz;
    int32_t ncol;
    explicit layout_t(std::string_view file)
        : foot_sz(static_cast<size_t>(load<int64_t>(file, file.size() - 16))) {
        foot = file.size() - 16 - foot_sz;
        ncol = load<int32_t>(file, foot + 4);
    }
    size_t coldef(int c) const { return foot + 40 + 136 * static_cast<size_t>(c); }
    size_t colstat(int c) const { return coldef(ncol) + 112 * static_cast<size_t>(c); }
    size_t group(int g) const {
        return colstat(ncol) + static_cast<size_t>(g) * (16 + 144 * static_cast<size_t>(ncol));
    }
    size_t meta(int g, int c) const { return group(g) + 16 + 144 * static_cast<size_t>(c); }
};

// A file of ten row groups of one row each, one column n of int32 with the values 0, 100, ... 900. Chunk g
// takes five bytes at 8 + 8 * g. The footer's hash and those of the chunks are left 0.
inline std::string ten_groups() {
    std::string out = "CVN1IX86", metas;
    for (int32_t g = 0; g < 10; g++) {
        metas += le32(8) + le32(1) + le32(1) + le32(0);
        metas += le64(static_cast<int64_t>(out.size())) + le32(1) + "\0\0\0\1"s + le32(5) + le32(5) +
                 le32(0) + le32(4) + le32(0) + std::string(12, '\0');
        const std::string bound = le32(g * 100) + std::string(44, '\0');
        metas += bound + bound;
        out += le32(g * 100) + std::string(4, '\0');
    }
    std::string name = "n";
    name.resize(128, '\0');
    const std::string foot = le32(1) + le32(1) + le64(10) + le64(10) + le32(136) + le32(112) + le64(1600) +
                             name + le32(CVN_TYP_INT32) + le32(0) + le64(0) + le64(1) +
                             std::string(48, '\0') + le32(900) + std::string(44, '\0') + metas;
    return out + foot + le64(static_cast<int64_t>(foot.size())) + le32(0) + "CVN1";
}

inline std::string random_bytes(std::mt19937_64& rng, size_t n) {
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(rng());
    return s;
}

// A random value of a type; small alphabets and extremes come often.
inline value_t random_value(std::mt19937_64& rng, int32_t typ) {
    const uint64_t r = rng();
    const bool small = r % 3 == 0;
    switch (cvn_storage(typ)) {
        case CVN_TYP_BOOL: return boolean(r & 16);
        case CVN_TYP_INT16: return i16(small ? static_cast<int16_t>(r % 7) : static_cast<int16_t>(rng()));
        case CVN_TYP_INT32: return i32(small ? static_cast<int32_t>(r % 7) - 3 : static_cast<int32_t>(rng()));
        case CVN_TYP_INT64:
            return i64(r % 50 == 0 ? INT64_MIN : r % 51 == 0 ? INT64_MAX : static_cast<int64_t>(rng()));
        case CVN_TYP_INT128: {
            const unsigned __int128 hi = small ? (r & 8 ? ~uint64_t{0} : 0) : rng();
            return i128(static_cast<cvn_int128_t>(hi << 64 | rng()));
        }
        case CVN_TYP_FLOAT:
            return f32(r % 40 == 0   ? std::numeric_limits<float>::quiet_NaN()
                       : r % 41 == 0 ? -0.0f
                                     : static_cast<float>(static_cast<int64_t>(rng())) / 3.0f);
        case CVN_TYP_DOUBLE:
            return f64(r % 40 == 0   ? std::numeric_limits<double>::quiet_NaN()
                       : r % 41 == 0 ? -std::numeric_limits<double>::infinity()
                                     : static_cast<double>(static_cast<int64_t>(rng())) / 7.0);
        case CVN_TYP_BYTEA: return text(random_bytes(rng, r % 60));
        case CVN_TYP_CSTR: {
            std::string s(r % 11 == 0 ? 38 + r % 7 : r % 12, 'a');
            for (char& c : s) c = static_cast<char>(r & 1 ? 'a' + rng() % 3 : 128 + rng() % 100);
            return text(s);
        }
        case CVN_TYP_DEC64:
        case CVN_TYP_DEC128: {
            const bool wide = cvn_storage(typ) == CVN_TYP_DEC128;
            std::string s = rng() & 1 ? "-" : "";
            for (size_t i = 1 + rng() % (wide ? 34 : 16); i > 0; i--)
                s += static_cast<char>('0' + rng() % 10);
            s += "E" + std::to_string(static_cast<int>(rng() % 40) - 20);
            if (r % 30 == 0) s = "NaN";
            if (r % 31 == 0) s = "-Infinity";
            return wide ? dec128(s.c_str()) : dec64(s.c_str());
        }
        default: ADD_FAILURE() << "no such type " << typ; return {};
    }
}

inline values_t random_values(std::mt19937_64& rng, int32_t typ, size_t nrow, unsigned null_percent) {
    values_t v;
    for (size_t r = 0; r < nrow; r++)
        v.push_back(rng() % 100 < null_percent ? null_value() : random_value(rng, typ));
    return v;
}

// All 14 types, a fifth of the values NULL.
inline table_t all_types_table(uint64_t seed, size_t nrow) {
    std::mt19937_64 rng(seed);
    table_t t;
    for (const int32_t typ : reader::ALL_TYPES) {
        t.column.push_back({cvn_typ_str(typ), typ, rng() % 2 == 0, false});
        t.value.push_back(random_values(rng, typ, nrow, 20));
    }
    return t;
}

inline table_t random_table(uint64_t seed) {
    std::mt19937_64 rng(seed);
    table_t t;
    const size_t ncol = 1 + rng() % 20, nrow = rng() % 4 == 0 ? rng() % 3 : rng() % 1500;
    for (size_t c = 0; c < ncol; c++) {
        const int32_t typ = reader::ALL_TYPES[rng() % 14];
        t.column.push_back({"c"s.append(std::to_string(c)), typ, rng() % 2 == 0, rng() % 4 == 0});
        static constexpr unsigned PERCENT[4] = {0, 5, 60, 100};
        t.value.push_back(random_values(rng, typ, nrow, PERCENT[rng() % 4]));
    }
    return t;
}

// A scan that closes itself.
class scan_t {
 public:
    explicit scan_t(const std::string& path) { code = cvn_scan_open(&sc, path.c_str()); }
    scan_t(const scan_t&) = delete;
    scan_t& operator=(const scan_t&) = delete;
    ~scan_t() {
        if (sc) cvn_scan_close(sc);
    }
    operator cvn_scan_t*() const { return sc; }
    cvn_scan_t* operator->() const { return sc; }
    cvn_scan_t* sc = nullptr;
    int code = 0;
};

inline std::vector<std::string> names_in(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace support
#endif
