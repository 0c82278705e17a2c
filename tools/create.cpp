// cvn create: a data file, or a series of them, from CSV. Rows go from the reader's buffer through the fast
// forms of value.h into the writer without a copy of their text in between. Files are written under temporary
// names and renamed when all of the input has been read, so that a failure leaves nothing behind and takes
// nothing away.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <deque>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "rows/value.h"
#include "tools/commands.h"
#include "tools/csv.h"
#include "tools/format.h"
#include "tools/progress.h"
#include "tools/schema.h"
#include "tools/tool.h"

namespace {

constexpr char USAGE[] = "cvn create OUT.cvn IN.csv";
constexpr size_t SAMPLE_MAXSZ = size_t{64} << 20;  // of text; types are chosen from no more, however few rows

struct create_opts_t {
    std::string out;
    std::vector<std::string> csv;
    std::string schema;
    bool infer = false;
    bool no_header = false;
    std::string delimiter = ",";
    std::vector<std::string> null;
    bool null_given = false;
    int64_t rows = 0;  // 0: one file
    int64_t sample = 10000;
};

// The output: files under temporary names until output_commit.
struct output_t {
    enum place_t {
        TEMP,      // under its temporary name
        NEW,       // under its final name, which nothing had before
        SWAPPED,   // likewise; what was there before has the temporary name
        REPLACED,  // likewise; what was there before is gone, since the file system cannot swap
    };
    struct file_t {
        std::string temp, final;
        place_t place = TEMP;
    };
    const create_opts_t* opts = nullptr;
    const std::vector<cvn_coldef_t>* coldef = nullptr;
    std::deque<file_t> file;
    cvn_t* writer = nullptr;
    int64_t nrow = 0;  // in the current file

    output_t() = default;
    output_t(const output_t&) = delete;
    output_t& operator=(const output_t&) = delete;
    ~output_t() {
        if (writer) {
            (void)cvn_append(writer, -1, nullptr, nullptr);  // refused, and the writer told to drop its file
            (void)cvn_close(writer);
        }
        for (const file_t& f : file)
            if (f.place == TEMP || f.place == SWAPPED) (void)unlink(f.temp.c_str());
    }
};

}  // namespace

// What names in a series share, and the rest of them: the number and ".cvn".
static std::string series_stem(const create_opts_t& opts) {
    return opts.out.ends_with(".cvn") ? opts.out.substr(0, opts.out.size() - 4) : opts.out;
}

// The name of file `n`: OUT.cvn, or OUT.n.cvn in a series.
static std::string output_name(const create_opts_t& opts, size_t n) {
    if (opts.rows == 0) return opts.out;
    return fmt::format("{}.{}.cvn", series_stem(opts), n);
}

static void output_close(output_t* output) {
    if (!output->writer) return;
    cvn_t* const writer = output->writer;
    output->writer = nullptr;
    errno = 0;
    const int code = cvn_close(writer);
    if (code != 0) throw tool_error(tool_code_text(code, errno, output->file.back().final));
}

static void output_open(output_t* output) {
    const std::string final = output_name(*output->opts, output->file.size());
    tool_check_target(final, USAGE);
    int fd;
    output->file.push_back({tool_temp_create(final, &fd), final});
    close(fd);
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

[[gnu::noinline]] static void output_fail(output_t* output, int code) {
    throw tool_error(tool_code_text(code, output->writer->os_errno, output->file.back().final));
}

static inline void output_append(output_t* output, const cvn_datum_t* datum, const bool* isnull) {
    if (output->opts->rows > 0 && output->nrow == output->opts->rows) output_close(output);
    if (!output->writer) [[unlikely]]
        output_open(output);
    const int code = cvn_append(output->writer, static_cast<int>(output->coldef->size()), datum, isnull);
    if (code != 0) [[unlikely]]
        output_fail(output, code);
    output->nrow++;
}

// Refuses to leave files of an older, longer series after the new one: whoever reads the directory would
// take them for part of it.
static void check_older_series(const output_t& output) {
    const std::string stem = series_stem(*output.opts);
    const size_t slash = stem.rfind('/');
    const std::string prefix = (slash == std::string::npos ? stem : stem.substr(slash + 1)) + ".";
    const std::string path = slash == std::string::npos ? "." : stem.substr(0, slash + 1);
    DIR* const dir = opendir(path.c_str());
    if (!dir) return;  // one may write without seeing what is there
    size_t left = 0, least = 0;
    std::string first;
    while (const dirent* entry = readdir(dir)) {
        const std::string_view name = entry->d_name;
        if (!name.starts_with(prefix) || !name.ends_with(".cvn") || name.size() < prefix.size() + 5) continue;
        const char* const end = name.data() + name.size() - 4;
        size_t number = 0;
        const auto [stop, ec] = std::from_chars(name.data() + prefix.size(), end, number);
        if (ec != std::errc() || stop != end || number < output.file.size()) continue;
        if (left++ > 0 && number > least) continue;
        least = number;
        first = name;
    }
    closedir(dir);
    if (left == 0) return;
    throw tool_error(fmt::format(
        "{}{}{}: would stay behind the new series of {}, from an older one that was longer; remove what is "
        "no "
        "longer wanted (nothing was changed)",
        slash == std::string::npos ? "" : path, first, left == 1 ? "" : fmt::format(" and {} more", left - 1),
        tool_counted(static_cast<int64_t>(output.file.size()), "file", "files")));
}

// Gives a file its name, in exchange for the older one where the file system can do that.
static bool output_place(output_t::file_t* file) {
    const char *const temp = file->temp.c_str(), *const final = file->final.c_str();
    if (renameat2(AT_FDCWD, temp, AT_FDCWD, final, RENAME_EXCHANGE) == 0) {
        file->place = output_t::SWAPPED;
        return true;
    }
    const bool fresh = errno == ENOENT;
    if (rename(temp, final) != 0) return false;
    file->place = fresh ? output_t::NEW : output_t::REPLACED;
    return true;
}

// Undoes that. Returns false when it cannot be undone.
static bool output_unplace(output_t::file_t* file) {
    const char *const temp = file->temp.c_str(), *const final = file->final.c_str();
    switch (file->place) {
        case output_t::TEMP: return true;
        case output_t::NEW:
            if (rename(final, temp) != 0) return false;
            break;
        case output_t::SWAPPED:
            if (renameat2(AT_FDCWD, temp, AT_FDCWD, final, RENAME_EXCHANGE) == 0) break;
            file->place = output_t::REPLACED;  // so that the older one keeps at least its temporary name
            return false;
        case output_t::REPLACED: return false;
    }
    file->place = output_t::TEMP;
    return true;
}

// All files get their names, or none does.
static void output_commit(output_t* output) {
    if (output->file.empty()) output_open(output);  // no rows: an empty table
    output_close(output);
    for (const output_t::file_t& f : output->file) tool_check_target(f.final, USAGE);
    if (output->opts->rows > 0) check_older_series(*output);
    tool_check_signals();  // the last time: from here on it is done to the end, or undone
    for (output_t::file_t& f : output->file) {
        if (output_place(&f)) continue;
        const std::string why = tool_strerror(errno);
        std::string stays;
        for (output_t::file_t& placed : output->file)
            if (!output_unplace(&placed)) stays += (stays.empty() ? "" : ", ") + placed.final;
        throw tool_error(
            fmt::format("{}: {}{}{}", f.final, why,
                        stays.empty() ? "; nothing was changed" : "; already replaced: ", stays));
    }
}

namespace {

// The input: the CSV files one after the other.
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

}  // namespace

static bool is_blank(const csv_t& csv) {
    return csv.nfield == 1 && csv.field[0].len == 0 && !csv.field[0].quoted;
}

// Matches the header row against the columns.
static void match_header(input_t* input) {
    const csv_t& csv = input->csv;
    input->field_of.assign(input->name.size(), -1);
    std::unordered_map<std::string_view, size_t> column;
    for (size_t c = 0; c < input->name.size(); c++) column.emplace(input->name[c], c);
    for (size_t i = 0; i < csv.nfield; i++) {
        const std::string_view text(csv.field[i].ptr, csv.field[i].len);
        const auto it = column.find(text);
        if (it == column.end()) {
            throw tool_error(fmt::format(
                "{}:{}: the header names a column {} that {}", csv.name, csv.line, tool_quote(text),
                input->opts->infer ? "the first file does not have"
                                   : "the schema does not have; add it to --schema"));
        }
        int* const field = &input->field_of[it->second];
        if (*field >= 0)
            throw tool_error(
                fmt::format("{}:{}: the header names {} twice", csv.name, csv.line, tool_quote(text)));
        *field = static_cast<int>(i);
    }
    for (size_t c = 0; c < input->name.size(); c++)
        if (input->field_of[c] < 0)
            throw tool_error(fmt::format(
                "{}:{}: the header has no column {}{}", csv.name, csv.line, tool_quote(input->name[c]),
                input->opts->infer ? "" : "; without a header row, use --no-header"));
}

// Takes the columns' names from the header row.
static void name_columns(input_t* input) {
    const csv_t& csv = input->csv;
    for (size_t i = 0; i < csv.nfield; i++) {
        const std::string_view text(csv.field[i].ptr, csv.field[i].len);
        const char* const why = schema_name_fault(text);
        if (why)
            throw tool_error(
                fmt::format("{}:{}: the header's column {}, {}, {}; change it, or use --no-header", csv.name,
                            csv.line, i + 1, tool_quote(text), why));
        input->name.emplace_back(text);
    }
}

// Whether the row looks as if its input ended lines in CR alone, so that all of them came as one.
static bool has_bare_cr(const csv_t& csv) {
    for (size_t i = 0; i < csv.nfield; i++)
        if (!csv.field[i].quoted && memchr(csv.field[i].ptr, '\r', csv.field[i].len)) return true;
    return false;
}

constexpr char CR_HINT[] =
    "lines must end in LF or CR LF; do they end in CR alone? 'tr \"\\r\" \"\\n\"' helps";

// Opens the next file and reads its header. Returns false when there is none.
static bool open_file(input_t* input) {
    if (input->fd >= 0) input->before += input->csv.nbyte;
    input->close_file();
    const create_opts_t& opts = *input->opts;
    if (input->next == opts.csv.size()) return false;
    const std::string& path = opts.csv[input->next++];
    input->fd = path == "-" ? 0 : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (input->fd < 0) throw tool_error(path + ": " + tool_strerror(errno));
    (void)posix_fadvise(input->fd, 0, 0, POSIX_FADV_SEQUENTIAL);  // a hint; pipes have no use for it
    csv_open(&input->csv, input->fd, path == "-" ? "standard input" : path, input->delim);
    if (opts.no_header) {
        input->field_of.clear();
        return true;
    }
    do {
        if (!csv_next(&input->csv))
            throw tool_error(input->csv.name +
                             ": is empty, where a header row should be (or use --no-header)");
    } while (is_blank(input->csv) && input->name.size() != 1);
    if (has_bare_cr(input->csv))
        throw tool_error(fmt::format("{}:{}: the header row has a carriage return in it; {}", input->csv.name,
                                     input->csv.line, CR_HINT));
    if (input->name.empty()) name_columns(input);
    match_header(input);
    return true;
}

// Advances to the next row, in this file or the next, and proves its number of fields. Empty lines are rows
// only where the table has a single column.
static inline bool next_row(input_t* input) {
    for (;;) {
        while (input->fd < 0 || !csv_next(&input->csv))
            if (!open_file(input)) return false;
        const csv_t& csv = input->csv;
        const size_t ncol = input->name.size();
        if (csv.nfield != ncol || ncol == 1 || input->field_of.empty()) [[unlikely]] {
            if (is_blank(csv) && ncol != 1) continue;
            if (input->name.empty())  // no header: the first row tells how many columns there are
                for (size_t i = 0; i < csv.nfield; i++) input->name.push_back(fmt::format("c{}", i + 1));
            if (csv.nfield != input->name.size()) {
                const char* const hint = has_bare_cr(csv)  ? CR_HINT
                                         : csv.nfield == 1 ? "is another --delimiter needed?"
                                                           : "";
                throw tool_error(
                    fmt::format("{}:{}: the row has {}, but there {} {}{}{}", csv.name, csv.line,
                                tool_counted(static_cast<int64_t>(csv.nfield), "field", "fields"),
                                input->name.size() == 1 ? "is" : "are",
                                tool_counted(static_cast<int64_t>(input->name.size()), "column", "columns"),
                                *hint ? "; " : "", hint));
            }
            if (input->field_of.empty())
                for (size_t i = 0; i < csv.nfield; i++) input->field_of.push_back(static_cast<int>(i));
        }
        return true;
    }
}

static bool is_null(const create_opts_t& opts, const csv_field_t& field) {
    if (field.quoted) return false;
    if (!opts.null_given) return field.len == 0;
    for (const std::string& text : opts.null)
        if (text == std::string_view(field.ptr, field.len)) return true;
    return false;
}

namespace {

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
    int64_t nsample = 0;    // rows that the types were chosen from
};

}  // namespace

[[noreturn]] static void bad_field(const convert_t& convert, size_t c, const std::string& file, int64_t line,
                                   std::string_view text, const std::string& why) {
    const cvn_coldef_t& col = (*convert.coldef)[c];
    std::string hint;
    if (convert.opts->infer)
        hint = fmt::format("; the type was chosen from the first {}: {}give --schema",
                           tool_counted(convert.nsample, "row", "rows"),
                           convert.nsample < convert.opts->sample ? "" : "try a bigger --sample, or ");
    else if (text.empty() && !convert.opts->null_given)
        hint = "; NULL is an empty field without quotes";
    throw tool_error(fmt::format("{}:{}: column {} ({}): {} {}{}", file, line, tool_quote(schema_name(col)),
                                 cvn_typ_str(col.typ), tool_quote(text), why, hint));
}

[[gnu::noinline]] static void convert_slow(convert_t* convert, size_t c, const csv_field_t& field,
                                           const std::string& file, int64_t line) {
    const std::string before(field.ptr, field.len);  // bytea is decoded in place
    const char* const why =
        rows::value_parse(&convert->datum[c], field.ptr, field.len, (*convert->coldef)[c].typ);
    if (why) bad_field(*convert, c, file, line, before, why);
}

static void convert_row(convert_t* convert, const csv_field_t* fields, const int* field_of, bool has_nul,
                        const std::string& file, int64_t line) {
    const size_t ncol = convert->coldef->size();
    cvn_datum_t* const datum = convert->datum.data();
    bool* const isnull = convert->isnull.get();
    const int* const fast = convert->fast.data();
    const bool null_given = convert->opts->null_given;
    for (size_t c = 0; c < ncol; c++) {
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
                if (rows::value_fast_int(field.ptr, field.len, &datum[c].I)) [[likely]]
                    continue;
                break;
            case CVN_TYP_INT32:
                if (rows::value_fast_int(field.ptr, field.len, &v) && static_cast<int32_t>(v) == v)
                    [[likely]] {
                    datum[c].i = static_cast<int32_t>(v);
                    continue;
                }
                break;
            case CVN_TYP_INT16:
                if (rows::value_fast_int(field.ptr, field.len, &v) && static_cast<int16_t>(v) == v)
                    [[likely]] {
                    datum[c].s = static_cast<int16_t>(v);
                    continue;
                }
                break;
            case CVN_TYP_DOUBLE:
                if (rows::value_fast_double(field.ptr, field.len, &datum[c].F)) [[likely]]
                    continue;
                break;
            case CVN_TYP_DATE:
                if (rows::value_fast_date(field.ptr, field.len, &datum[c].i)) [[likely]]
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

static void convert_begin(convert_t* convert, const create_opts_t* opts,
                          const std::vector<cvn_coldef_t>* coldef) {
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
static std::vector<cvn_coldef_t> infer(input_t* input, std::deque<sample_t>* sample) {
    const create_opts_t& opts = *input->opts;
    std::vector<schema_guess_t> guess;
    size_t total = 0;
    while (static_cast<int64_t>(sample->size()) < opts.sample && total < SAMPLE_MAXSZ && next_row(input)) {
        const csv_t& csv = input->csv;
        guess.resize(input->name.size());
        sample_t row = {csv.name, csv.line, nullptr, {}};
        size_t size = CSV_PADSZ;
        for (size_t c = 0; c < guess.size(); c++) size += csv.field[c].len + 1;
        total += size + guess.size() * sizeof(csv_field_t);
        row.text.reset(new char[size]());
        char* to = row.text.get();
        for (size_t c = 0; c < guess.size(); c++) {
            csv_field_t field = csv.field[static_cast<size_t>(input->field_of[c])];
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
    for (size_t c = 0; c < guess.size(); c++) {
        const cvn_typ_t typ = schema_guess_type(guess[c]);
        coldef.push_back(schema_column(input->name[c], typ, typ == CVN_TYP_CSTR));
    }
    return coldef;
}

static char delimiter_of(const std::string& text) {
    if (text == "\\t" || text == "tab" || text == "TAB") return '\t';
    if (text.size() != 1 || text[0] == '"' || text[0] == '\n' || text[0] == '\r' || text[0] == 0)
        throw tool_usage("--delimiter takes one character, or 'tab'; it cannot be a quote or a line end");
    return text[0];
}

// One word of a shell's command line.
static std::string shell_quote(const std::string& text) {
    std::string out = "'";
    for (const char ch : text) out += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    return out + "'";
}

static int create_run(create_opts_t opts) {
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
        const std::string text = schema_text(coldef, &exact), shown = format_cell(text, SIZE_MAX);
        tool_say(fmt::format("schema chosen from {}{}:\n  --schema {}",
                             tool_counted(static_cast<int64_t>(sample.size()), "row", "rows"),
                             exact && shown == text ? "" : " (one of the names cannot be written so)",
                             shell_quote(shown)));
    }
    output_t output;
    output.opts = &opts;
    output.coldef = &coldef;
    convert_t convert;
    convert_begin(&convert, &opts, &coldef);
    convert.nsample = static_cast<int64_t>(sample.size());
    int64_t nrow = 0;
    std::vector<int> straight;
    for (size_t c = 0; c < coldef.size(); c++) straight.push_back(static_cast<int>(c));
    for (; !sample.empty(); sample.pop_front()) {
        const sample_t& row = sample.front();
        convert_row(&convert, row.field.data(), straight.data(), true, row.name, row.line);
        output_append(&output, convert.datum.data(), convert.isnull.get());
        nrow++;
    }
    int64_t seen = 0;
    while (next_row(&input)) {
        const csv_t& csv = input.csv;
        convert_row(&convert, csv.field.data(), input.field_of.data(), csv.has_nul, csv.name, csv.line);
        output_append(&output, convert.datum.data(), convert.isnull.get());
        nrow++;
        if (csv.nbyte != seen) [[unlikely]] {  // a block is done
            seen = csv.nbyte;
            progress_update(&progress, input.before + seen, nrow);
        }
    }
    output_commit(&output);
    progress_end(&progress);
    return 0;
}

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
        "After a type, -z compresses eagerly and -n keeps no minimum and maximum.\n"
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
    sub->add_flag("--no-header", opts->no_header, "The files have no header row; columns go by position");
    sub->add_option("--delimiter", opts->delimiter,
                    "What parts the fields: a character, or tab (default: a comma)");
    CLI::Option* const null =
        sub->add_option("--null", opts->null,
                        "The text that means NULL (without quotes around it); may be repeated")
            ->allow_extra_args(false);
    sub->add_option("--rows", opts->rows, "Cut the output into OUT.0.cvn, OUT.1.cvn, ... of this many rows")
        ->check(whole_number(1));
    sub->add_option("--sample", opts->sample,
                    "Rows to choose the types from (default: 10000; no more than about 64 MiB of them)")
        ->check(whole_number(1));
    sub->callback([opts, ret, schema, null] {
        opts->infer = schema->count() == 0;
        opts->null_given = null->count() > 0;
        *ret = create_run(*opts);
    });
}
