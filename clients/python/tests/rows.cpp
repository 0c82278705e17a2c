// Rows in and out of a data file through the library, for the tests of the Python package.
//
//   rows OUT.cvn SCHEMA < ROWS    writes the rows with cvn_append
//   rows --dump FILE > ROWS       reads a file or a split directory back with cvn_scan_next
//   rows --split FILE DIRECTORY   splits a file
//
// ROWS is one value after the other, row by row: a byte that is 1 for NULL, an int32 length, and the bytes
// that the column stores for the value (for bytea and cstr without length and NUL).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "colvane/colvane.h"

namespace {

[[noreturn]] void fail(const char* what, int code) {
    fprintf(stderr, "rows: %s: %d\n", what, code);
    exit(1);
}

struct value_t {
    bool isnull = false;
    std::string bytes;
};

bool read_value(value_t& value) {
    const int head = getchar();
    if (head == EOF) return false;
    int32_t size = 0;
    if (fread(&size, sizeof(size), 1, stdin) != 1 || size < 0) fail("input", -6);
    value.isnull = head != 0;
    value.bytes.resize(static_cast<size_t>(size));
    if (size > 0 && fread(value.bytes.data(), value.bytes.size(), 1, stdin) != 1) fail("input", -6);
    return true;
}

void write_value(bool isnull, const char* bytes, int32_t size) {
    putchar(isnull ? 1 : 0);
    fwrite(&size, sizeof(size), 1, stdout);
    fwrite(bytes, 1, static_cast<size_t>(size), stdout);
}

cvn_datum_t datum_of(const value_t& value, cvn_typ_t typ) {
    cvn_datum_t datum;
    memset(&datum, 0, sizeof(datum));
    if (value.isnull) return datum;
    const int width = cvn_typlen(typ);
    if (width == -2) {
        datum.t = value.bytes.c_str();
    } else if (width == -1) {
        datum.a.ptr = value.bytes.data();
        datum.a.len = static_cast<int32_t>(value.bytes.size());
    } else {
        if (width != static_cast<int>(value.bytes.size())) fail("width", width);
        memcpy(&datum, value.bytes.data(), value.bytes.size());
    }
    return datum;
}

int write_file(const char* path, const char* schema) {
    cvn_coldef_t* coldef = nullptr;
    int ncol = 0;
    int code = cvn_coldef_parse(&coldef, &ncol, schema);
    if (code != 0) fail("schema", code);
    cvn_t* writer = nullptr;
    code = cvn_create(&writer, path);
    if (code != 0) fail("create", code);
    for (int i = 0; i < ncol; i++) {
        code = cvn_create_column(writer, coldef[i].name, coldef[i].typ, coldef[i].zflag != 0,
                                 coldef[i].nflag != 0);
        if (code != 0) fail("column", code);
    }
    std::vector<value_t> row(static_cast<size_t>(ncol));
    std::vector<cvn_datum_t> datum(row.size());
    const auto isnull = std::make_unique<bool[]>(row.size());
    for (;;) {
        size_t i = 0;
        while (i < row.size() && read_value(row[i])) {
            datum[i] = datum_of(row[i], coldef[i].typ);
            isnull[i] = row[i].isnull;
            ++i;
        }
        if (i == 0) break;
        if (i < row.size()) fail("input", -6);
        code = cvn_append(writer, ncol, datum.data(), isnull.get());
        if (code != 0) fail("append", code);
    }
    free(coldef);
    code = cvn_close(writer);
    if (code != 0) fail("close", code);
    return 0;
}

// The value of one row of an uncompressed page; `at` walks the values of a variable-length column.
void dump_value(const cvn_page_t* page, int row, size_t& at) {
    const char* nmap = page->buf + page->nmapoff;
    const bool isnull = (nmap[row / 8] & (0x80 >> (row % 8))) != 0;
    const int width = cvn_typlen(page->typ);
    const char* value = page->buf + at;
    int32_t size = width;
    if (width == -2) {
        size = static_cast<int32_t>(strlen(value));
        at += static_cast<size_t>(size) + 1;
    } else if (width == -1) {
        memcpy(&size, value, sizeof(size));
        value += sizeof(size);
        at += sizeof(size) + static_cast<size_t>(size);
    } else {
        at += static_cast<size_t>(width);
    }
    write_value(isnull, value, isnull ? 0 : size);
}

int dump_file(const char* path) {
    cvn_scan_t* scan = nullptr;
    int code = cvn_scan_open(&scan, path);
    if (code != 0) fail("open", code);
    int ncol = 0;
    const cvn_coldef_t* coldef = nullptr;
    code = cvn_scan_coldef(&ncol, &coldef, scan);
    if (code != 0) fail("coldef", code);
    for (int i = 0; i < ncol; i++) {
        code = cvn_scan_add_required(scan, coldef[i].name);
        if (code != 0) fail("required", code);
    }
    cvn_page_t** page = nullptr;
    int npage = 0;
    while ((code = cvn_scan_next(scan, &npage, &page, true)) == 0) {
        std::vector<size_t> at(static_cast<size_t>(npage), 0);
        for (int row = 0; row < page[0]->nrow; row++) {
            for (int i = 0; i < npage; i++) dump_value(page[i], row, at[static_cast<size_t>(i)]);
        }
    }
    if (code != -4) fail("next", code);
    cvn_scan_close(scan);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], "--dump") == 0) return dump_file(argv[2]);
    if (argc == 4 && strcmp(argv[1], "--split") == 0) {
        const int code = cvnx_split(argv[3], argv[2]);
        if (code != 0) fail("split", code);
        return 0;
    }
    if (argc == 3) return write_file(argv[1], argv[2]);
    fprintf(stderr, "usage: rows OUT.cvn SCHEMA | rows --dump FILE | rows --split FILE DIRECTORY\n");
    return 2;
}
