// cvn cat: the rows of files, filtered exactly. Statistics skip row groups first; the rows of the others are
// decided.
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>

#include "tools/commands.h"
#include "tools/format.h"
#include "tools/source.h"
#include "tools/tool.h"
#include "tools/where.h"

namespace {

struct cat_opts_t {
    std::string path;
    std::vector<std::string> columns;  // as texts: lists of names
    bool columns_given = false;
    std::vector<std::string> where;
    int64_t limit = -1;
    std::string format = "csv";
};

// The columns of the output, which the first file decides.
struct cat_head_t {
    bool known = false;
    std::vector<std::string> name;
    std::vector<cvn_typ_t> typ;
};

}  // namespace

static int find_column(const rows::file_t& file, const std::string& name) {
    for (size_t c = 0; c < file.column.size(); c++)
        if (file.column[c].name == name) return static_cast<int>(c);
    return -1;
}

static std::string column_list(const rows::file_t& file) {
    std::string out;
    for (size_t c = 0; c < file.column.size() && c < 50; c++)
        out += (c ? ", " : "") + format_cell(file.column[c].name, CVN_NAME_SZ);
    return out + (file.column.size() > 50 ? ", ..." : "");
}

[[noreturn]] static void fail_missing(const rows::file_t& file, const std::string& name) {
    throw tool_error(fmt::format("{}: there is no column {}; its columns are {}", file.path, tool_quote(name),
                                 column_list(file)));
}

// Finds the columns of the output in a file, and settles them by the first one.
static std::vector<int> shown_columns(const rows::file_t& file, bool chosen, cat_head_t* head) {
    if (!head->known && !chosen)
        for (const rows::file_column_t& c : file.column) head->name.push_back(c.name);
    if (head->known && !chosen && file.column.size() != head->name.size())
        throw tool_error(fmt::format(
            "{}: has {}, the files before it {}; use --columns to choose common ones", file.path,
            tool_counted(static_cast<int64_t>(file.column.size()), "column", "columns"), head->name.size()));
    std::vector<int> shown;
    for (size_t i = 0; i < head->name.size(); i++) {
        const int cno = find_column(file, head->name[i]);
        if (cno < 0) fail_missing(file, head->name[i]);
        const cvn_typ_t typ = file.column[static_cast<size_t>(cno)].typ;
        if (!head->known) {
            head->typ.push_back(typ);
        } else if (head->typ[i] != typ) {
            throw tool_error(fmt::format("{}: column {} is {}, in the files before it {}", file.path,
                                         tool_quote(head->name[i]), cvn_typ_str(typ),
                                         cvn_typ_str(head->typ[i])));
        }
        shown.push_back(cno);
    }
    return shown;
}

// Binds the conditions to the columns of a file.
static rows::cond_t bind(const rows::file_t& file, const rows::cond_t& where) {
    rows::cond_t cond = where;
    std::vector<rows::cond_column_t> column;
    for (const rows::file_column_t& c : file.column) column.push_back({c.name, c.typ});
    rows::cond_fault_t fault;
    if (rows::cond_bind(&cond, column, &fault)) return cond;
    if (fault.code == rows::COND_COLUMN) fail_missing(file, fault.name);
    if (fault.code == rows::COND_TYPE)
        throw tool_error(
            fmt::format("{}: column {} is of an unknown type", file.path, tool_quote(fault.name)));
    throw tool_error(fmt::format("{}: condition on column {} ({}): {} {}", file.path, tool_quote(fault.name),
                                 cvn_typ_str(fault.typ), tool_quote(fault.text), fault.what));
}

// Prints the rows of one row group, `limit` at most (negative: all). Returns how many.
static int64_t print_rows(const std::vector<rows::column_t>& column, const std::vector<size_t>& shown,
                          int64_t limit, format_t* format) {
    int64_t nrow = column.empty() ? 0 : column[0].vec.nrow;
    if (limit >= 0) nrow = std::min(nrow, limit);
    std::vector<cvn_datum_t> datum(shown.size());
    const std::unique_ptr<bool[]> isnull(new bool[shown.size() + 1]());
    for (int64_t row = 0; row < nrow; row++) {
        for (size_t i = 0; i < shown.size(); i++) {
            const cvn_vec_t& vec = column[shown[i]].vec;
            isnull[i] = cvn_vec_isnull(vec, row);
            if (!isnull[i]) cvn_vec_datum(vec, row, &datum[i]);
        }
        format_row(format, datum.data(), isnull.get());
    }
    return nrow;
}

// Prints the rows of one file. Returns false when the limit is reached.
static bool cat_file(const std::string& path, const cat_opts_t& opts, const rows::cond_t& where,
                     cat_head_t* head, format_t* format, tool_out_t* out, int64_t* left) {
    rows::file_t file;
    source_open(&file, path);
    const std::vector<int> cno = shown_columns(file, opts.columns_given, head);
    rows::cond_t cond = bind(file, where);
    if (!head->known) {
        head->known = true;
        const std::map<std::string, format_kind_t> kind = {
            {"csv", FORMAT_CSV}, {"jsonl", FORMAT_JSONL}, {"table", FORMAT_TABLE}};
        format_begin(format, kind.at(opts.format), out, head->name, head->typ);
    }
    if (*left == 0) return false;

    // Each column is read once, however often it is printed. What only a condition needs comes last.
    std::vector<int> want, place(file.column.size(), -1);
    std::vector<size_t> shown;
    const auto add = [&](int c) {
        int& at = place[static_cast<size_t>(c)];
        if (at < 0) {
            at = static_cast<int>(want.size());
            want.push_back(c);
        }
        return static_cast<size_t>(at);
    };
    for (const int c : cno) shown.push_back(add(c));
    const size_t nresult = want.size();
    std::vector<int> used;
    rows::cond_columns(&used, cond);
    for (const int c : used) (void)add(c);
    rows::file_fault_t fault;
    if (!rows::file_want(&file, want, &fault) || !rows::file_push(&file, cond, &fault)) source_fail(fault);
    rows::cond_renumber(&cond, place);

    std::vector<rows::column_t> column;
    const auto give_back = [&] {
        for (rows::column_t& c : column) rows::column_free(file.pool.get(), &c);
    };
    try {
        for (;;) {
            tool_check_signals();
            int64_t rg;
            if (!rows::file_next(&file, &rg, &fault)) source_fail(fault);
            if (rg < 0) break;
            if (!rows::file_read(&file, rg, &column, &fault)) source_fail(fault);
            if (!cond.kid.empty() && rows::cond_filter(column, nresult, cond) == 0) continue;
            const int64_t n = print_rows(column, shown, *left, format);
            if (*left > 0 && (*left -= n) == 0) break;
        }
    } catch (...) {
        give_back();
        throw;
    }
    give_back();
    return *left != 0;
}

static int cat_run(const cat_opts_t& opts) {
    const rows::cond_t where = where_parse(opts.where);
    cat_head_t head;
    head.name = where_names(opts.columns);
    const rows::file_list_t source = source_find(opts.path);
    tool_out_t out;
    format_t format;
    int64_t left = opts.limit;
    for (const std::string& path : source.path)
        if (!cat_file(path, opts, where, &head, &format, &out, &left)) break;
    format_end(&format);
    return 0;
}

void cat_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<cat_opts_t>();
    CLI::App* const sub = app->add_subcommand(
        "cat",
        "Print the rows of a data file, a split directory or a directory of data files.\n"
        "\n"
        "A condition compares a column with a constant: = != > >= < <=, 'is null', 'is not null', 'in (a, "
        "b)', joined by\n"
        "'and'. Constants are written as in CSV (qty > 10, day >= 2024-01-31); texts and names with spaces "
        "are quoted:\n"
        "\"ship mode\" = 'REG AIR'. A comparison with NULL is unknown and selects nothing. Row groups that "
        "cannot hold a\n"
        "matching row are not read. With several --where all must hold.\n"
        "\n"
        "'cvn create' makes the same table from what the csv format prints: NULL is an empty field, the "
        "empty text \"\".\n"
        "\n"
        "Examples:\n"
        "  cvn cat orders.cvn --limit 10 --format table\n"
        "  cvn cat orders.cvn --columns id,qty --where 'qty > 10 and day in (2024-01-30, 2024-01-31)'\n"
        "  cvn cat orders.cvn --where \"mode = 'AIR'\" --where 'note is not null' --format jsonl");
    sub->add_option("PATH", opts->path, "The data file or directory")->required();
    CLI::Option* const columns = sub->add_option("--columns", opts->columns,
                                                 "The columns to print, in this order: a,b,\"c d\" "
                                                 "(default: all)")
                                     ->allow_extra_args(false);
    sub->add_option("--where", opts->where, "A condition on the rows; may be repeated")
        ->allow_extra_args(false);
    sub->add_option("--limit", opts->limit, "Stop after this many rows")->check(whole_number(0));
    sub->add_option("--format", opts->format, "csv, jsonl or table (default: csv)")
        ->check(CLI::IsMember({"csv", "jsonl", "table"}));
    sub->callback([opts, ret, columns] {
        opts->columns_given = columns->count() > 0;
        *ret = cat_run(*opts);
    });
}
