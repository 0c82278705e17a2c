// cvn create: a data file, or a series of them, from CSV. Rows go from the reader's buffer through the fast
// forms of value.h into the writer without a copy of their text in between. Files are written under temporary
// names and renamed when all of the input has been read, so that a failure leaves nothing behind.
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <memory>

#include "tools/commands.h"
#include "tools/csv.h"
#include "tools/progress.h"
#include "tools/schema.h"
#include "tools/tool.h"
#include "tools/value.h"

namespace {

constexpr char USAGE[] = "cvn create OUT.cvn IN.csv";

struct create_opts_t {
    std::string out;
    std::vector<std::string> csv;
    std::string schema;
    bool infer = false;
    bool header = true;
    std::string delimiter = ",";
    std::vector<std::string> null;
    bool null_given = false;
    int64_t rows = 0;  // 0: one file
    int64_t sample = 10000;
};

// The output: files under temporary names until output_commit.
struct output_t {
    struct file_t {
        std::string temp, final;
        bool placed = false;  // it has its final name
    };
    const create_opts_t* opts = nullptr;
    const std::vector<cvn_coldef_t>* coldef = nullptr;
    std::deque<file_t> file;
    cvn_t* writer = nullptr;
    int64_t nrow = 0;  // in the current file
    bool committed = false;

    output_t() = default;
    output_t(const output_t&) = delete;
    output_t& operator=(const output_t&) = delete;
    ~output_t() {
        if (writer) {
            (void)cvn_append(writer, -1, nullptr, nullptr);  // refused, and the writer told to drop its file
            (void)cvn_close(writer);
        }
        if (committed) return;
        for (const file_t& f : file) (void)unlink(f.placed ? f.final.c_str() : f.temp.c_str());
    }
};

// The name of file `n`: OUT.cvn, or OUT.n.cvn in a series.
std::string output_name(const create_opts_t& opts, size_t n) {
    if (opts.rows == 0) return opts.out;
    const std::string stem = opts.out.ends_with(".cvn") ? opts.out.substr(0, opts.out.size() - 4) : opts.out;
    return fmt::format("{}.{}.cvn", stem, n);
}

void output_close(output_t* output) {
    if (!output->writer) return;
    cvn_t* const writer = output->writer;
    output->writer = nullptr;
    errno = 0;
    const int code = cvn_close(writer);
    if (code != 0) throw tool_error(tool_code_text(code, errno, output->file.back().final));
}

void output_open(output_t* output) {
    const std::string final = output_name(*output->opts, output->file.size());
    tool_check_target(final, USAGE);
    output->file.push_back({fmt::format("{}.{}.tmp", final, getpid()), final});
    const std::string& temp = output->file.back().temp;
    errno = 0;
    const int code = cvn_create(&output->writer, temp.c_str());
    if (code != 0) {
        output->writer = nullptr;
        throw tool_error(tool_code_text(code, errno, temp));
    }
    for (const cvn_coldef_t& col : *output->coldef) {
        const int failed = cvn_create_column(output->writer, col.name, col.typ, col.zflag, col.nflag);
        if (failed != 0) {
            output->writer = nullptr;  // destroyed by the failure
            throw tool_error(tool_code_text(failed, 0, final));
        }
    }
    output->nrow = 0;
}

[[gnu::noinline]] void output_fail(output_t* output, int code) {
    throw tool_error(tool_code_text(code, output->writer->os_errno, output->file.back().final));
}

inline void output_append(output_t* output, const cvn_datum_t* datum, const bool* isnull) {
    if (output->opts->rows > 0 && output->nrow == output->opts->rows) output_close(output);
    if (!output->writer) [[unlikely]]
        output_open(output);
    const int code = cvn_append(output->writer, int(output->coldef->size()), datum, isnull);
    if (code != 0) [[unlikely]]
        output_fail(output, code);
    ++output->nrow;
}

void output_commit(output_t* output) {
    if (output->file.empty()) output_open(output);  // no rows: an empty table
    output_close(output);
    for (output_t::file_t& f : output->file) {
        tool_check_signals();
        if (rename(f.temp.c_str(), f.final.c_str()) != 0)
            throw tool_error(f.final + ": " + tool_strerror(errno));
        f.placed = true;
    }
    output->committed = true;
}

// The input: the CSV files one behind the other.
struct input_t {
    const create_opts_t* opts = nullptr;
    char delim = ',';
    size_t next = 0;  // the file to open next
    int fd = -1;
    csv_t csv;
    std::vector<std::string> name;  // the columns, as soon as they are known
    std::vector<int> field_of;      // for each column, its field in the rows of the current file
    int64_t before = 0;             // bytes of the files that are done
    int64_t total = 0;              // of all, or 0

    input_t() = default;
    input_t(const input_t&) = delete;
    input_t& operator=(const input_t&) = delete;
    ~input_t() { close_file(); }
    void close_file() {
        if (fd > 0) close(fd);
        fd = -1;
    }
};

bool is_blank(const csv_t& csv) { return csv.nfield == 1 && csv.field[0].len == 0 && !csv.field[0].quoted; }

// Matches the header row against the columns.
void match_header(input_t* input) {
    const csv_t& csv = input->csv;
    input->field_of.assign(input->name.size(), -1);
    for (size_t i = 0; i < csv.nfield; ++i) {
        const std::string_view text(csv.field[i].ptr, csv.field[i].len);
        const auto it = std::find(input->name.begin(), input->name.end(), text);
        if (it == input->name.end()) {
            throw tool_error(fmt::format(
                "{}:{}: the header names a column {} that {}", csv.name, csv.line, tool_quote(text),
                input->opts->infer ? "the first file does not have"
                                   : "the schema does not have; add it to --schema"));
        }
        int* const field = &input->field_of[size_t(it - input->name.begin())];
        if (*field >= 0)
            throw tool_error(
                fmt::format("{}:{}: the header names {} twice", csv.name, csv.line, tool_quote(text)));
        *field = int(i);
    }
    for (size_t c = 0; c < input->name.size(); ++c)
        if (input->field_of[c] < 0)
            throw tool_error(fmt::format(
                "{}:{}: the header has no column {}{}", csv.name, csv.line, tool_quote(input->name[c]),
                input->opts->infer ? "" : "; without a header row, use --no-header"));
}

// Opens the next file and reads its header. Returns false when there is none.
bool open_file(input_t* input) {
    if (input->fd >= 0) input->before += input->csv.nbyte;
    input->close_file();
    const create_opts_t& opts = *input->opts;
    if (input->next == opts.csv.size()) return false;
    const std::string& path = opts.csv[input->next++];
    input->fd = path == "-" ? 0 : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (input->fd < 0) throw tool_error(path + ": " + tool_strerror(errno));
    (void)posix_fadvise(input->fd, 0, 0, POSIX_FADV_SEQUENTIAL);  // a hint; pipes have no use for it
    csv_open(&input->csv, input->fd, path == "-" ? "standard input" : path, input->delim);
    if (!opts.header) {
        input->field_of.clear();
        return true;
    }
    do {
        if (!csv_next(&input->csv))
            throw tool_error(input->csv.name +
                             ": is empty, where a header row should be (or use --no-header)");
    } while (is_blank(input->csv) && input->name.size() != 1);
    if (input->name.empty())
        for (size_t i = 0; i < input->csv.nfield; ++i)
            input->name.emplace_back(input->csv.field[i].ptr, input->csv.field[i].len);
    match_header(input);
    return true;
}

// Advances to the next row, in this file or the next, and proves its number of fields. Empty lines are rows
// only where the table has a single column.
inline bool next_row(input_t* input) {
    for (;;) {
        while (input->fd < 0 || !csv_next(&input->csv))
            if (!open_file(input)) return false;
        const csv_t& csv = input->csv;
        const size_t ncol = input->name.size();
        if (csv.nfield != ncol || ncol == 1 || input->field_of.empty()) [[unlikely]] {
            if (is_blank(csv) && ncol != 1) continue;
            if (input->name.empty())  // no header: the first row tells how many columns there are
                for (size_t i = 0; i < csv.nfield; ++i) input->name.push_back(fmt::format("c{}", i + 1));
            if (csv.nfield != input->name.size())
                throw tool_error(fmt::format("{}:{}: the row has {} field{}, but there are {} columns{}",
                                             csv.name, csv.line, csv.nfield, csv.nfield == 1 ? "" : "s",
                                             input->name.size(),
                                             csv.nfield == 1 ? "; is another --delimiter needed?" : ""));
            if (input->field_of.empty())
                for (size_t i = 0; i < csv.nfield; ++i) input->field_of.push_back(int(i));
        }
        return true;
    }
}

bool is_null(const create_opts_t& opts, const csv_field_t& field) {
    if (field.quoted) return false;
    if (!opts.null_given) return field.len == 0;
    for (const std::string& text : opts.null)
        if (text == std::string_view(field.ptr, field.len)) return true;
    return false;
}

// One row of the sample, with its own copy of the text.
struct sample_t {
    std::string name;
    int64_t line;
    std::unique_ptr<char[]> text;
    std::vector<csv_field_t> field;  // in column order
};

// Rows to values.
struct convert_t {
    const create_opts_t* opts;
    const std::vector<cvn_coldef_t>* coldef;
    std::vector<cvn_datum_t> datum;
    std::unique_ptr<bool[]> isnull;
    std::vector<int> fast;  // per column: its type where a fast form exists, else 0
};

[[noreturn]] void bad_field(const convert_t& convert, size_t c, const std::string& file, int64_t line,
                            std::string_view text, const std::string& why) {
    const cvn_coldef_t& col = (*convert.coldef)[c];
    std::string hint;
    if (convert.opts->infer)
        hint = fmt::format(
            "; the type was chosen from the first {} rows: try a bigger --sample, or give --schema",
            tool_count(convert.opts->sample));
    else if (text.empty() && !convert.opts->null_given)
        hint = "; NULL is an empty field without quotes";
    throw tool_error(fmt::format("{}:{}: column {} ({}): {} {}{}", file, line, tool_quote(schema_name(col)),
                                 cvn_typ_str(col.typ), tool_quote(text), why, hint));
}

[[gnu::noinline]] void convert_slow(convert_t* convert, size_t c, const csv_field_t& field,
                                    const std::string& file, int64_t line) {
    const std::string before(field.ptr, field.len);  // bytea is decoded in place
    const char* const why = value_parse(&convert->datum[c], field.ptr, field.len, (*convert->coldef)[c].typ);
    if (why) bad_field(*convert, c, file, line, before, why);
}

void convert_row(convert_t* convert, const csv_field_t* fields, const int* field_of, bool has_nul,
                 const std::string& file, int64_t line) {
    const size_t ncol = convert->coldef->size();
    cvn_datum_t* const datum = convert->datum.data();
    bool* const isnull = convert->isnull.get();
    const int* const fast = convert->fast.data();
    const bool null_given = convert->opts->null_given;
    for (size_t c = 0; c < ncol; ++c) {
        const csv_field_t& field = fields[field_of[c]];
        if (null_given) [[unlikely]]
            isnull[c] = is_null(*convert->opts, field);
        else
            isnull[c] = field.len == 0 && !field.quoted;
        if (isnull[c]) continue;
        int64_t v;
        switch (fast[c]) {
            case CVN_TYP_CSTR:
                if (has_nul && memchr(field.ptr, 0, field.len)) [[unlikely]]
                    bad_field(*convert, c, file, line, {field.ptr, field.len},
                              "holds a NUL byte, which a text cannot; use bytea, or --null");
                datum[c].t = field.ptr;
                continue;
            case CVN_TYP_INT64:
                if (value_fast_int(field.ptr, field.len, &datum[c].I)) [[likely]]
                    continue;
                break;
            case CVN_TYP_INT32:
                if (value_fast_int(field.ptr, field.len, &v) && int32_t(v) == v) [[likely]] {
                    datum[c].i = int32_t(v);
                    continue;
                }
                break;
            case CVN_TYP_INT16:
                if (value_fast_int(field.ptr, field.len, &v) && int16_t(v) == v) [[likely]] {
                    datum[c].s = int16_t(v);
                    continue;
                }
                break;
            case CVN_TYP_DOUBLE:
                if (value_fast_double(field.ptr, field.len, &datum[c].F)) [[likely]]
                    continue;
                break;
            case CVN_TYP_DATE:
                if (value_fast_date(field.ptr, field.len, &datum[c].i)) [[likely]]
                    continue;
                break;
            case CVN_TYP_DEC64:
                if (!has_nul && field.len > 0 && cvn_dec64_from_string(&datum[c].dec64, field.ptr) == 0)
                    [[likely]]
                    continue;
                break;
            default: break;
        }
        convert_slow(convert, c, field, file, line);
    }
}

void convert_begin(convert_t* convert, const create_opts_t* opts, const std::vector<cvn_coldef_t>* coldef) {
    convert->opts = opts;
    convert->coldef = coldef;
    convert->datum.assign(coldef->size(), cvn_datum_t{});
    convert->isnull.reset(new bool[coldef->size()]());
    for (const cvn_coldef_t& col : *coldef) {
        const bool plain = col.typ < 0x10000 || col.typ == CVN_TYP_DATE;
        convert->fast.push_back(plain ? col.typ : 0);
    }
}

// Reads the sample and chooses the types.
std::vector<cvn_coldef_t> infer(input_t* input, std::deque<sample_t>* sample) {
    const create_opts_t& opts = *input->opts;
    std::vector<schema_guess_t> guess;
    while (int64_t(sample->size()) < opts.sample && next_row(input)) {
        const csv_t& csv = input->csv;
        guess.resize(input->name.size());
        sample_t row = {csv.name, csv.line, nullptr, {}};
        size_t size = CSV_PADSZ;
        for (size_t c = 0; c < guess.size(); ++c) size += csv.field[c].len + 1;
        row.text.reset(new char[size]());
        char* to = row.text.get();
        for (size_t c = 0; c < guess.size(); ++c) {
            csv_field_t field = csv.field[size_t(input->field_of[c])];
            memcpy(to, field.ptr, field.len);
            field.ptr = to;
            to += field.len + 1;
            if (!is_null(opts, field)) schema_guess_add(&guess[c], {field.ptr, field.len});
            row.field.push_back(field);
        }
        sample->push_back(std::move(row));
    }
    if (input->name.empty())
        throw tool_error("the input is empty; there is nothing to choose a schema from (give --schema)");
    guess.resize(input->name.size());
    std::vector<cvn_coldef_t> coldef;
    for (size_t c = 0; c < guess.size(); ++c) {
        const cvn_typ_t typ = schema_guess_type(guess[c]);
        coldef.push_back(schema_column(input->name[c], typ, typ == CVN_TYP_CSTR));
    }
    return coldef;
}

char delimiter_of(const std::string& text) {
    if (text == "\\t" || text == "tab" || text == "TAB") return '\t';
    if (text.size() != 1 || text[0] == '"' || text[0] == '\n' || text[0] == '\r' || text[0] == 0)
        throw tool_usage("--delimiter takes one character, or 'tab'; it cannot be a quote or a line end");
    return text[0];
}

int create_run(create_opts_t opts) {
    std::vector<cvn_coldef_t> coldef;
    input_t input;
    input.opts = &opts;
    input.delim = delimiter_of(opts.delimiter);
    if (opts.csv.empty()) opts.csv.emplace_back("-");
    if (opts.out == "-" || opts.out.empty() || opts.out.ends_with('/'))
        throw tool_usage("OUT.cvn must be the name of a file");
    if (!opts.infer) {
        coldef = schema_parse(opts.schema);
        for (const cvn_coldef_t& col : coldef) input.name.push_back(schema_name(col));
    }
    tool_check_target(output_name(opts, 0), USAGE);
    for (const std::string& path : opts.csv) {
        struct stat st;
        if (path == "-" ? fstat(0, &st) != 0 : stat(path.c_str(), &st) != 0)
            throw tool_error(path + ": " + tool_strerror(errno));
        if (S_ISDIR(st.st_mode)) throw tool_error(path + ": is a directory");
        input.total = S_ISREG(st.st_mode) && input.total >= 0 ? input.total + st.st_size : -1;
    }
    progress_t progress;
    progress_begin(&progress, std::max<int64_t>(input.total, 0), "rows");
    std::deque<sample_t> sample;
    if (opts.infer) {
        coldef = infer(&input, &sample);
        bool exact;
        const std::string text = schema_text(coldef, &exact);
        fmt::print(stderr, "cvn: schema chosen from {} row{}{}:\n  --schema '{}'\n",
                   tool_count(int64_t(sample.size())), sample.size() == 1 ? "" : "s",
                   exact ? "" : " (one of the names cannot be written in a schema)", text);
    }
    output_t output;
    output.opts = &opts;
    output.coldef = &coldef;
    convert_t convert;
    convert_begin(&convert, &opts, &coldef);
    int64_t nrow = 0;
    std::vector<int> straight;
    for (size_t c = 0; c < coldef.size(); ++c) straight.push_back(int(c));
    for (; !sample.empty(); sample.pop_front()) {
        const sample_t& row = sample.front();
        convert_row(&convert, row.field.data(), straight.data(), true, row.name, row.line);
        output_append(&output, convert.datum.data(), convert.isnull.get());
        ++nrow;
    }
    int64_t seen = 0;
    while (next_row(&input)) {
        const csv_t& csv = input.csv;
        convert_row(&convert, csv.field.data(), input.field_of.data(), csv.has_nul, csv.name, csv.line);
        output_append(&output, convert.datum.data(), convert.isnull.get());
        ++nrow;
        if (csv.nbyte != seen) [[unlikely]] {  // a block is done
            seen = csv.nbyte;
            progress_update(&progress, input.before + seen, nrow);
        }
    }
    output_commit(&output);
    progress_end(&progress);
    return 0;
}

}  // namespace

void create_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<create_opts_t>();
    CLI::App* const sub = app->add_subcommand(
        "create",
        "Make a data file from CSV.\n"
        "\n"
        "Each CSV file begins with a header row, whose names are matched with the columns in any order; "
        "with\n"
        "--no-header the columns go by position. Without --schema the types are chosen from a sample of the "
        "rows and\n"
        "printed. An empty field without quotes is NULL, a quoted one (\"\") the empty text.\n"
        "\n"
        "Types: bool, int16, int32, int64, int128, float, double, dec64 and dec128 (decimals, exact), date\n"
        "(2024-01-31), time_millis (12:30:00.250), timestamp_millis (2024-01-31T12:30:00Z), cstr (text), "
        "bytea (\\x00ff).\n"
        "Behind a type, -z compresses eagerly and -n keeps no minimum and maximum.\n"
        "\n"
        "Examples:\n"
        "  cvn create orders.cvn orders.csv\n"
        "  cvn create --schema 'id int64, name cstr -z, price dec64' orders.cvn orders.csv\n"
        "  zcat *.csv.gz | cvn create --no-header --schema 'id int64, \"unit price\" double' orders.cvn -\n"
        "  cvn create --delimiter tab --null NA --rows 1000000 orders.cvn orders.tsv    makes orders.0.cvn, "
        "...");
    sub->add_option("OUT", opts->out, "The data file to write (OUT.cvn)")->required();
    sub->add_option("CSV", opts->csv, "CSV files; - or nothing is the standard input");
    CLI::Option* const schema =
        sub->add_option("--schema", opts->schema, "The columns: 'NAME TYPE [-z] [-n], ...'");
    sub->add_flag("!--no-header", opts->header, "The files have no header row; columns go by position");
    sub->add_option("--delimiter", opts->delimiter,
                    "What parts the fields: a character, or tab (default: a comma)");
    CLI::Option* const null =
        sub->add_option("--null", opts->null,
                        "The text that means NULL (without quotes around it); may be repeated")
            ->allow_extra_args(false);
    sub->add_option("--rows", opts->rows, "Cut the output into OUT.0.cvn, OUT.1.cvn, ... of this many rows")
        ->check(CLI::PositiveNumber);
    sub->add_option("--sample", opts->sample, "Rows to choose the types from (default: 10000)")
        ->check(CLI::PositiveNumber);
    sub->callback([opts, ret, schema, null] {
        opts->infer = schema->count() == 0;
        opts->null_given = null->count() > 0;
        *ret = create_run(*opts);
    });
}
