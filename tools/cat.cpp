// cvn cat: the rows of a file, filtered exactly. Statistics skip row groups first; the rows of the others are
// decided one by one.
#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "tools/commands.h"
#include "tools/format.h"
#include "tools/rows.h"
#include "tools/schema.h"
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

int find_column(const cvn_scan_t* scan, const std::string& name) {
    for (int c = 0; c < scan->schema->ncol; ++c)
        if (schema_name(scan->coldef[c]) == name) return c;
    return -1;
}

std::string column_list(const cvn_scan_t* scan) {
    std::string out;
    for (int c = 0; c < scan->schema->ncol && c < 50; ++c)
        out += (c ? ", " : "") + format_cell(schema_name(scan->coldef[c]), CVN_NAME_SZ);
    return out + (scan->schema->ncol > 50 ? ", ..." : "");
}

// Writes the rows of one file. Returns false when the limit is reached.
bool cat_file(const std::string& path, const cat_opts_t& opts, const std::vector<std::string>& names,
              const std::vector<where_term_t>& term, cat_head_t* head, format_t* format, tool_out_t* out,
              int64_t* left) {
    const source_scan_t open(path);
    cvn_scan_t* const scan = open.scan;
    const int ncol = scan->schema->ncol;
    if (!head->known) {
        if (opts.columns_given) {
            head->name = names;
        } else {
            for (int c = 0; c < ncol; ++c) head->name.push_back(schema_name(scan->coldef[c]));
        }
    } else if (!opts.columns_given && size_t(ncol) != head->name.size()) {
        throw tool_error(
            fmt::format("{}: has {}, the files before it {}; use --columns to choose common ones", path,
                        tool_counted(ncol, "column", "columns"), head->name.size()));
    }
    // What is printed comes first among the required columns; what only a condition needs, behind it.
    std::vector<int> required, shown;
    const auto require = [&](int cno) {
        const auto it = std::find(required.begin(), required.end(), cno);
        if (it != required.end()) return int(it - required.begin());
        const std::string name = schema_name(scan->coldef[cno]);
        if (cvn_scan_add_required(scan, name.c_str()) != 0)
            throw tool_error(
                fmt::format("{}: column {} cannot be read; 'cvn verify' tells more", path, tool_quote(name)));
        required.push_back(cno);
        return int(required.size()) - 1;
    };
    const auto missing = [&](const std::string& name) {
        return tool_error(fmt::format("{}: there is no column {}; its columns are {}", path, tool_quote(name),
                                      column_list(scan)));
    };
    for (size_t i = 0; i < head->name.size(); ++i) {
        // By name; without --columns also by position, as a damaged file may have one name twice.
        const int cno = !head->known && !opts.columns_given ? int(i) : find_column(scan, head->name[i]);
        if (cno < 0) throw missing(head->name[i]);
        const cvn_typ_t typ = scan->coldef[cno].typ;
        if (!head->known) {
            head->typ.push_back(typ);
        } else if (head->typ[i] != typ) {
            throw tool_error(fmt::format("{}: column {} is {}, in the files before it {}", path,
                                         tool_quote(head->name[i]), cvn_typ_str(typ),
                                         cvn_typ_str(head->typ[i])));
        }
        shown.push_back(require(cno));
    }
    for (const where_term_t& t : term)
        if (find_column(scan, t.name) < 0) throw missing(t.name);
    std::vector<where_cond_t> cond;
    try {
        cond = where_bind(term, scan->coldef, ncol);
    } catch (const tool_error& error) {
        throw tool_error(path + ": " + error.what());
    }
    std::vector<int> cond_page;
    for (const where_cond_t& c : cond) cond_page.push_back(require(c.cno));
    if (!head->known) {
        head->known = true;
        const std::map<std::string, format_kind_t> kind = {
            {"csv", FORMAT_CSV}, {"jsonl", FORMAT_JSONL}, {"table", FORMAT_TABLE}};
        format_begin(format, kind.at(opts.format), out, head->name, head->typ);
    }
    if (*left == 0) return false;
    where_push_down(scan, cond);

    std::vector<rows_column_t> column(required.size());
    std::vector<cvn_datum_t> datum(shown.size());
    const std::unique_ptr<bool[]> isnull(new bool[shown.size() + 1]());
    for (;;) {
        tool_check_signals();
        int npage = 0;
        cvn_page_t** page = nullptr;
        errno = 0;
        const int code = cvn_scan_next(scan, &npage, &page, true);
        if (code == -4) return true;
        if (code != 0) throw tool_error(tool_code_text(code, errno, path));
        const int64_t nrow = npage > 0 ? page[0]->nrow : 0;
        for (int p = 0; p < npage; ++p) {
            const char* why =
                page[p]->nrow != nrow ? "it has another number of rows than its neighbours" : nullptr;
            if (!why)
                why = rows_decode(&column[size_t(p)], page[p]->typ, nrow, page[p]->buf, page[p]->nbyte,
                                  page[p]->nmapoff);
            if (why)
                throw tool_error(
                    fmt::format("{}: a page of column {} is damaged: {}; 'cvn verify' tells more", path,
                                tool_quote(schema_name(scan->coldef[required[size_t(p)]])), why));
        }
        for (int64_t row = 0; row < nrow; ++row) {
            bool match = true;
            for (size_t i = 0; i < cond.size() && match; ++i) {
                const rows_column_t& col = column[size_t(cond_page[i])];
                cvn_datum_t value;
                const bool null = rows_isnull(col, row);
                if (!null) rows_datum(col, row, &value);
                match = where_match(cond[i], value, null);
            }
            if (!match) continue;
            for (size_t i = 0; i < shown.size(); ++i) {
                const rows_column_t& col = column[size_t(shown[i])];
                isnull[i] = rows_isnull(col, row);
                if (!isnull[i]) rows_datum(col, row, &datum[i]);
            }
            format_row(format, datum.data(), isnull.get());
            if (*left > 0 && --*left == 0) return false;
        }
    }
}

int cat_run(const cat_opts_t& opts) {
    std::vector<where_term_t> term;
    for (const std::string& text : opts.where) where_parse(&term, text);
    std::vector<std::string> names;
    for (const std::string& text : opts.columns) where_parse_names(&names, text);
    const source_t source = source_find(opts.path);
    tool_out_t out;
    format_t format;
    cat_head_t head;
    int64_t left = opts.limit;
    for (const std::string& path : source.path)
        if (!cat_file(path, opts, names, term, &head, &format, &out, &left)) break;
    format_end(&format);
    return 0;
}

}  // namespace

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
