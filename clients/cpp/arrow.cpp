// arrow: batches as an Arrow stream. A stream draws on a scan or on a local file, which both hand out
// batches.

#include "clients/cpp/arrow.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "clients/cpp/arrow_int.h"
#include "rows/file.h"

using namespace kelp;

namespace {

// Rows of a local file.
struct local_t {
    rows::file_t file;
    plan_t plan;
    bool exact = true;
    std::shared_ptr<const std::vector<kelp_column_t>> column;  // of the plan; batches outlive the file
};

// One of the two.
struct source_t {
    kelp_scan_t* scan = nullptr;
    local_t* local = nullptr;
};

struct arrow_t {
    source_t source;
    arrow_form_t form;
    bool ended = false;
    int failed = 0;  // errno of the first failure: there is nothing more after it
    kelp_error_t err{};
    char message[sizeof(kelp_error_t::text) + sizeof(kelp_error_t::hint) + 4] = "";
};

}  // namespace

// Local files.

static int fail_file(kelp_error_t* err, const rows::file_fault_t& fault) {
    const char* path = fault.path.c_str();
    const char* name = fault.name.c_str();
    switch (fault.kind) {
        case rows::FILE_PAGE:
            return kelp_fail(err, KELP_EDAMAGED, "verify the file",
                             "%.200s: a page of column %.100s in row group %lld is damaged: %s", path, name,
                             static_cast<long long>(fault.rg), fault.what);
        case rows::FILE_SAME_NAME:
            return kelp_fail(err, KELP_EFILE, "verify the file",
                             "%.200s: column %.100s cannot be read: another has its name", path, name);
        case rows::FILE_CODE: break;
        default:
            return kelp_fail(err, KELP_EFILE, nullptr, "cannot read %.300s: it is no regular file", path);
    }
    switch (fault.code) {
        case -1: return kelp_fail(err, KELP_EFILE, nullptr, "cannot read %.300s: its path is too long", path);
        case -2: return kelp_nomem(err);
        case -3:
            return kelp_fail(err, KELP_EFILE, nullptr, "cannot read %.300s: %s", path,
                             fault.err ? strerror(fault.err) : "it is too short");
        default:
            return kelp_fail(err, KELP_EFILE, "verify the file",
                             "cannot read %.300s: it is no colvane file, or a damaged one", path);
    }
}

static int local_fill(local_t* local, const char* fpath, const kelp_query_t& query, kelp_error_t* err) {
    rows::cond_t cond;
    if (const int code = query_cond(&cond, query, err)) return code;
    rows::file_fault_t fault;
    rows::file_t* file = &local->file;
    if (!rows::file_open(file, fpath, std::make_shared<rows::bufpool_t>(), &fault))
        return fail_file(err, fault);
    std::vector<kelp_column_t> have;
    for (const rows::file_column_t& c : file->column)
        have.push_back({c.name, strcmp(cvn_typ_str(c.typ), "unknown") == 0 ? 0 : c.typ});
    plan_t* plan = &local->plan;
    if (const int code = query_plan(plan, have, query.column, false, cond, err)) return code;
    local->exact = query.exact;
    std::vector<int> cno;
    for (const kelp_column_t& c : plan->column) {
        const auto at =
            std::find_if(have.begin(), have.end(), [&](const kelp_column_t& h) { return h.name == c.name; });
        cno.push_back(static_cast<int>(at - have.begin()));
    }
    if (!rows::file_want(file, cno, &fault)) return fail_file(err, fault);
    rows::cond_t of_file = plan->cond;
    rows::cond_renumber(&of_file, cno);
    if (!rows::file_push(file, of_file, &fault)) return fail_file(err, fault);
    local->column = std::make_shared<const std::vector<kelp_column_t>>(plan->column);
    return 0;
}

static int local_open(local_t** ret, const char* fpath, const kelp_query_t& query, kelp_error_t* err) {
    auto* local = new local_t{};
    const int code = kelp_guard(err, [&] { return local_fill(local, fpath, query, err); });
    if (code) {
        delete local;
        return code;
    }
    *ret = local;
    return 0;
}

static int local_next(local_t* local, kelp_batch_t** ret, kelp_error_t* err) {
    const plan_t& plan = local->plan;
    rows::file_fault_t fault;
    for (;;) {
        int64_t rg;
        if (!rows::file_next(&local->file, &rg, &fault)) return fail_file(err, fault);
        if (rg < 0) return KELP_END;
        auto batch = std::make_unique<batch_t>();
        batch->pool = local->file.pool;
        batch->schema = local->column;
        if (!rows::file_read(&local->file, rg, &batch->column, &fault)) return fail_file(err, fault);
        for (size_t k = 0; k < batch->column.size(); k++)
            batch->column[k].vec.name = (*local->column)[k].name.c_str();
        int64_t nrow = batch->column.empty() ? 0 : batch->column[0].vec.nrow;
        if (local->exact && plan.has_cond()) nrow = rows::cond_filter(batch->column, plan.nresult, plan.cond);
        if (nrow == 0) continue;
        for (size_t k = plan.nresult; k < batch->column.size(); k++)
            rows::column_free(local->file.pool.get(), &batch->column[k]);
        batch->column.resize(plan.nresult);
        for (const rows::column_t& c : batch->column) batch->vec.push_back(c.vec);
        batch->pub =
            kelp_batch_t{.nrow = nrow, .ncol = static_cast<int>(plan.nresult), .col = batch->vec.data()};
        *ret = &batch.release()->pub;
        return 0;
    }
}

static int source_next(source_t* s, kelp_batch_t** ret, kelp_error_t* err) {
    *ret = nullptr;
    return s->scan ? kelp_scan_next(s->scan, ret, err) : local_next(s->local, ret, err);
}

// Refuses a source whose columns are not those that an earlier look at the same place has found: what follows
// was prepared for those.
static int source_check(const source_t* s, const std::vector<kelp_column_t>& want, kelp_error_t* err) {
    std::vector<kelp_column_t> have;
    if (s->scan)
        have = kelp_scan_columns(s->scan);
    else
        have.assign(s->local->column->begin(),
                    s->local->column->begin() + static_cast<ptrdiff_t>(s->local->plan.nresult));
    const auto same = [](const kelp_column_t& a, const kelp_column_t& b) {
        return a.typ == b.typ && a.name == b.name;
    };
    if (std::equal(have.begin(), have.end(), want.begin(), want.end(), same)) return 0;
    return kelp_fail(err, s->scan ? KELP_ECHANGED : KELP_EFILE, "try again",
                     "the %s changed while it was read", s->scan ? "table" : "file");
}

static void source_free(source_t* s) {
    kelp_scan_close(s->scan);
    delete s->local;
    *s = source_t{};
}

// Reads the decimal columns of a source and settles their scales.
static int find_scales(source_t* s, const std::vector<kelp_column_t>& column, std::vector<int>* ret,
                       kelp_error_t* err) {
    std::vector<arrow_need_t> need(column.size());
    kelp_batch_t* batch = nullptr;
    int code;
    while ((code = source_next(s, &batch, err)) == 0) {
        for (size_t c = 0; c < need.size() && code == 0; c++)
            code = arrow_need_add(&need[c], batch->col[c], err);
        kelp_batch_free(batch);
        if (code) return code;
    }
    if (code != KELP_END) return code;
    ret->resize(need.size());
    for (size_t c = 0; c < need.size(); c++)
        if (const int unfit = arrow_need_scale(&(*ret)[c], need[c], column[c].name.c_str(), err))
            return unfit;
    return 0;
}

// The stream.

static int errno_of(int code) {
    switch (code) {
        case KELP_ENOMEM: return ENOMEM;
        case KELP_EARG:
        case KELP_EUNFIT: return EINVAL;
        case KELP_ECANCEL: return ECANCELED;
        case KELP_ETIMEOUT: return ETIMEDOUT;
        case KELP_ENOTFOUND: return ENOENT;
        default: return EIO;
    }
}

static int stream_fail(arrow_t* a, int code) {
    snprintf(a->message, sizeof(a->message), "%s%s%s%s", a->err.text, a->err.hint[0] ? " (" : "", a->err.hint,
             a->err.hint[0] ? ")" : "");
    return errno_of(code);
}

static int stream_get_schema(ArrowArrayStream* stream, ArrowSchema* out) {
    auto* a = static_cast<arrow_t*>(stream->private_data);
    *out = ArrowSchema{};
    const int code =
        kelp_guard(&a->err, [&] { return arrow_schema(a->form, out) ? 0 : kelp_nomem(&a->err); });
    if (code == 0) return 0;
    if (out->release) out->release(out);
    return stream_fail(a, code);
}

static int next_array(arrow_t* a, ArrowArray* out) {
    kelp_batch_t* batch = nullptr;
    int code = source_next(&a->source, &batch, &a->err);
    if (code == KELP_END) {
        a->ended = true;
        return 0;
    }
    if (code) return code;
    code = kelp_guard(&a->err, [&] { return arrow_array(a->form, batch_of(batch), out, &a->err); });
    kelp_batch_free(batch);
    if (code && out->release) out->release(out);
    return code;
}

static int stream_get_next(ArrowArrayStream* stream, ArrowArray* out) {
    auto* a = static_cast<arrow_t*>(stream->private_data);
    *out = ArrowArray{};
    if (a->failed) return a->failed;
    if (a->ended) return 0;
    const int code = kelp_guard(&a->err, [&] { return next_array(a, out); });
    if (code) a->failed = stream_fail(a, code);
    return a->failed;
}

static const char* stream_get_last_error(ArrowArrayStream* stream) {
    const auto* a = static_cast<const arrow_t*>(stream->private_data);
    return a->message[0] ? a->message : nullptr;
}

static void stream_release(ArrowArrayStream* stream) {
    auto* a = static_cast<arrow_t*>(stream->private_data);
    source_free(&a->source);
    delete a;
    stream->release = nullptr;
}

static int given_scale(const kelp_arrow_opt_t& arrow, const std::vector<kelp_column_t>& column,
                       std::vector<int>* ret, kelp_error_t* err) {
    ret->assign(column.size(), -1);
    for (const auto& [name, scale] : arrow.scale) {
        const auto at = std::find_if(column.begin(), column.end(),
                                     [&name = name](const kelp_column_t& c) { return c.name == name; });
        if (at == column.end() || !arrow_is_decimal(at->typ))
            return kelp_fail(err, KELP_EARG, nullptr,
                             "a scale is given for %.100s, which is no decimal column of the result",
                             name.c_str());
        if (scale < 0 || scale > ARROW_DECIMAL_DIGITS)
            return kelp_fail(err, KELP_EARG, "give a scale from 0 to 38",
                             "the scale %d of column %.100s is not possible", scale, name.c_str());
        (*ret)[static_cast<size_t>(at - column.begin())] = scale;
    }
    return 0;
}

// Settles the scales of the columns. `again` opens a source of just those whose scale is to be found.
template <typename AGAIN>
static int settle_scales(arrow_t* a, const kelp_arrow_opt_t& arrow, AGAIN again, kelp_error_t* err) {
    a->form.text_as_binary = arrow.text_as_binary;
    if (const int code = given_scale(arrow, a->form.column, &a->form.scale, err)) return code;
    std::vector<std::string> name;
    std::vector<kelp_column_t> unknown;
    for (size_t c = 0; c < a->form.column.size(); c++)
        if (arrow_is_decimal(a->form.column[c].typ) && a->form.scale[c] < 0) {
            name.push_back(a->form.column[c].name);
            unknown.push_back(a->form.column[c]);
        }
    if (!name.empty()) {
        source_t source;
        std::vector<int> found;
        if (const int code = again(&source, name)) return code;
        const int code = kelp_guard(err, [&] {
            const int changed = source_check(&source, unknown, err);
            return changed ? changed : find_scales(&source, unknown, &found, err);
        });
        source_free(&source);
        if (code) return code;
        size_t i = 0;
        for (size_t c = 0; c < a->form.column.size(); c++)
            if (arrow_is_decimal(a->form.column[c].typ) && a->form.scale[c] < 0)
                a->form.scale[c] = found[i++];
    }
    return 0;
}

// The names of Arrow's fields are UTF-8.
static int check_names(const std::vector<kelp_column_t>& column, kelp_error_t* err) {
    for (const kelp_column_t& c : column)
        if (!arrow_is_utf8(c.name.data(), c.name.size()))
            return kelp_fail(err, KELP_EUNFIT, "leave the column out",
                             "the name of column %.100s is no UTF-8", c.name.c_str());
    return 0;
}

static void make_stream(ArrowArrayStream* ret, arrow_t* a) {
    *ret = ArrowArrayStream{.get_schema = stream_get_schema,
                            .get_next = stream_get_next,
                            .get_last_error = stream_get_last_error,
                            .release = stream_release,
                            .private_data = a};
}

static int arrow_err(int code, arrow_t* a) {
    if (a) source_free(&a->source);
    delete a;
    return code;
}

int kelp_arrow_scan(ArrowArrayStream* ret_stream, const kelp_query_t& query, const kelp_arrow_opt_t& arrow,
                    const kelp_opt_t& opt, kelp_error_t* err) {
    auto* a = new (std::nothrow) arrow_t{};
    if (!a) return kelp_nomem(err);
    const int code = kelp_guard(err, [&] {
        // The scales come first: the connections of the scan itself would lie idle meanwhile.
        std::vector<kelp_column_t> have;
        if (const int failed = kelp_table_columns(&have, query.url, opt, err)) return failed;
        plan_t plan;
        rows::cond_t cond;
        if (const int failed = query_cond(&cond, query, err)) return failed;
        if (const int failed = query_plan(&plan, have, query.column, query.rows_only, cond, err))
            return failed;
        a->form.column.assign(plan.column.begin(),
                              plan.column.begin() + static_cast<ptrdiff_t>(plan.nresult));
        const auto again = [&](source_t* source, const std::vector<std::string>& name) {
            kelp_query_t q = query;
            q.column = name;
            return kelp_scan_open(&source->scan, q, opt, err);
        };
        if (const int failed = check_names(a->form.column, err)) return failed;
        if (const int failed = settle_scales(a, arrow, again, err)) return failed;
        if (const int failed = kelp_scan_open(&a->source.scan, query, opt, err)) return failed;
        return source_check(&a->source, a->form.column, err);
    });
    if (code) return arrow_err(code, a);
    make_stream(ret_stream, a);
    return 0;
}

int kelp_arrow_file_query(ArrowArrayStream* ret_stream, const char* fpath, const kelp_query_t& query,
                          const kelp_arrow_opt_t& arrow, kelp_error_t* err) {
    auto* a = new (std::nothrow) arrow_t{};
    if (!a) return kelp_nomem(err);
    const int code = kelp_guard(err, [&] {
        if (const int failed = local_open(&a->source.local, fpath, query, err)) return failed;
        const plan_t& plan = a->source.local->plan;
        a->form.column.assign(plan.column.begin(),
                              plan.column.begin() + static_cast<ptrdiff_t>(plan.nresult));
        if (const int failed = check_names(a->form.column, err)) return failed;
        const auto again = [&](source_t* source, const std::vector<std::string>& name) {
            kelp_query_t q = query;
            q.column = name;
            return local_open(&source->local, fpath, q, err);
        };
        return settle_scales(a, arrow, again, err);
    });
    if (code) return arrow_err(code, a);
    make_stream(ret_stream, a);
    return 0;
}

int kelp_arrow_file(ArrowArrayStream* ret_stream, const char* fpath, const std::vector<std::string>& column,
                    const kelp_arrow_opt_t& arrow, kelp_error_t* err) {
    return kelp_guard(err, [&] {
        kelp_query_t query;
        query.column = column;
        return kelp_arrow_file_query(ret_stream, fpath, query, arrow, err);
    });
}
