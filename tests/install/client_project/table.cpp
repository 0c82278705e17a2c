// A program that knows of the installed headers only: table URL FILE writes a data file, uploads it, counts,
// reads the rows over two conditions and as an Arrow stream, and removes the table again.
#include <colvane/arrow.h>
#include <colvane/client.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

static int failed(const char* what, const kelp_error_t& err) {
    std::fprintf(stderr, "table: %s: code %d: %s (%s)\n", what, err.code, err.text, err.hint);
    return 1;
}

static int not_written(const char* path, int code, int err) {
    std::fprintf(stderr, "table: %s: code %d: %s\n", path, code,
                 code == -3 ? strerror(err) : "cannot be written");
    std::remove(path);
    return 1;
}

static int write_file(const char* path) {
    cvn_t* w = nullptr;
    int code = cvn_create(&w, path);
    if (code == 0) code = cvn_create_column(w, "id", CVN_TYP_INT64, false, false);
    if (code == 0) code = cvn_create_column(w, "price", CVN_TYP_DEC64, true, false);
    if (code == 0) code = cvn_create_column(w, "note", CVN_TYP_CSTR, true, false);
    if (code != 0) return not_written(path, code, errno);
    for (int r = 0; r < 1000 && code == 0; ++r) {
        char price[32], note[32];
        std::snprintf(price, sizeof price, "%d.%02d", r, r % 100);
        std::snprintf(note, sizeof note, "row %d", r);
        cvn_datum_t datum[3];
        std::memset(datum, 0, sizeof datum);
        datum[0].I = r;
        code = cvn_dec64_from_string(&datum[1].dec64, price);
        datum[2].t = note;
        const bool isnull[3] = {false, false, r % 10 == 3};
        if (code == 0) code = cvn_append(w, 3, datum, isnull);
    }
    int err = w->os_errno;
    const int closed = cvn_close(w);  // 0 after a failed append too
    if (code == 0 && closed != 0) {
        code = closed;
        err = errno;
    }
    return code == 0 ? 0 : not_written(path, code, err);
}

static int read_rows(const kelp_url_t& url) {
    kelp_query_t query;
    query.url = url;
    query.column = {"note", "id"};
    query.cond.resize(2);
    kelp_error_t err;
    if (kelp_cond_parse(&query.cond[0], "price >= 990.5", &err) != 0) return failed("condition", err);
    if (kelp_cond_parse(&query.cond[1], "id != 995", &err) != 0) return failed("condition", err);
    kelp_scan_t* scan = nullptr;
    if (kelp_scan_open(&scan, query, kelp_opt_t{}, &err) != 0) return failed("scan", err);
    kelp_batch_t* batch = nullptr;
    int code;
    while ((code = kelp_scan_next(scan, &batch, &err)) == KELP_OK) {
        for (int64_t r = 0; r < batch->nrow; ++r) {
            const bool null = kelp_vec_isnull(batch->col[0], r);
            const std::string note(kelp_vec_text(batch->col[0], r));
            std::printf("%lld %s\n", static_cast<long long>(kelp_vec_get<int64_t>(batch->col[1], r)),
                        null ? "NULL" : note.c_str());
        }
        kelp_batch_free(batch);
    }
    kelp_scan_close(scan);
    return code == KELP_END ? 0 : failed("scan", err);
}

static int read_arrow(const kelp_url_t& url) {
    kelp_query_t query;
    query.url = url;
    kelp_error_t err;
    ArrowArrayStream stream;
    if (kelp_arrow_scan(&stream, query, kelp_arrow_opt_t{}, kelp_opt_t{}, &err) != 0)
        return failed("arrow", err);
    ArrowSchema schema;
    if (stream.get_schema(&stream, &schema) != 0) return 1;
    for (int64_t c = 0; c < schema.n_children; ++c)
        std::printf("%s %s\n", schema.children[c]->name, schema.children[c]->format);
    schema.release(&schema);
    int64_t nrow = 0;
    for (;;) {
        ArrowArray array;
        if (stream.get_next(&stream, &array) != 0) return 1;
        if (!array.release) break;
        nrow += array.length;
        array.release(&array);
    }
    stream.release(&stream);
    std::printf("%lld rows\n", static_cast<long long>(nrow));
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    kelp_error_t err;
    kelp_url_t url;
    if (kelp_url_parse(&url, argv[1], &err) != 0) return failed("URL", err);
    if (write_file(argv[2]) != 0) return 1;
    const kelp_opt_t opt;
    if (kelp_upload(url, argv[2], nullptr, nullptr, opt, &err) != 0) return failed("upload", err);
    kelp_query_t all;
    all.url = url;
    int64_t nrow;
    if (kelp_count(&nrow, all, opt, &err) != 0) return failed("count", err);
    std::printf("%lld rows\n", static_cast<long long>(nrow));
    if (read_rows(url) != 0 || read_arrow(url) != 0) return 1;
    if (kelp_remove(url, opt, &err) != 0) return failed("removal", err);
    if (kelp_count(&nrow, all, opt, &err) == 0) return 1;
    std::printf("removed: code %d\n", err.code);
    return 0;
}
