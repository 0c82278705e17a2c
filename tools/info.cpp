// cvn info: what a file says about itself. Only footers are read, so it is quick on files of any size.
#include <fmt/format.h>
#include <string.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "rows/value.h"
#include "tools/commands.h"
#include "tools/format.h"
#include "tools/schema.h"
#include "tools/source.h"
#include "tools/tool.h"

namespace {

using json = nlohmann::ordered_json;

struct info_opts_t {
    std::string path;
    bool json = false;
    bool rowgroups = false;
};

// One bound of a column.
struct bound_t {
    bool known = false;
    bool cut = false;  // a text that may go on after these bytes
    std::string text;
};

struct chunk_t {
    int64_t nnull = 0, nbyte = 0, zbyte = 0, offset = 0;
    bool compressed = false;
    bound_t min, max;
};

struct column_t {
    std::string name;
    cvn_typ_t typ = 0;
    bool zflag = false, nflag = false;
    int64_t nnull = 0, nbyte = 0, zbyte = 0;
    bound_t min, max;
};

struct group_t {
    int64_t nrow = 0, nbyte = 0, zbyte = 0;
    std::vector<chunk_t> chunk;
};

struct file_t {
    std::string path;
    bool split = false;
    int64_t nrow = 0, nrowgroup = 0, nbyte = 0, zbyte = 0;
    uint32_t hash = 0;
    std::vector<column_t> column;
    std::vector<group_t> group;
};

}  // namespace

static bound_t bound_of(const cvn_datum_t& datum, cvn_typ_t typ) {
    bound_t bound;
    bound.known = true;
    switch (cvn_storage(typ)) {
        case CVN_TYP_CSTR:
            // All 40 bytes in use: the text ends here or goes on, which the image does not tell.
            bound.cut = datum.raw[sizeof(datum.raw) - 1] != 0;
            bound.text.assign(datum.raw, strnlen(datum.raw, sizeof(datum.raw)));
            break;
        case CVN_TYP_BYTEA: bound.known = false; break;
        default: rows::value_append_text(&bound.text, datum, typ);
    }
    return bound;
}

static file_t read_file(const std::string& path, bool rowgroups) {
    rows::file_t open;
    source_open(&open, path);
    cvn_scan_t* const scan = open.scan;
    file_t file;
    file.path = path;
    file.split = scan->split_mode;
    file.nrow = scan->schema->nrow;
    file.nrowgroup = scan->schema->nrowgroup;
    file.hash = static_cast<uint32_t>(scan->schema_hash);
    const int ncol = scan->schema->ncol;
    for (int c = 0; c < ncol; c++) {
        column_t col;
        colstat_t stat;
        if (cvn_scan_colstat(scan, c, &stat) != 0) throw tool_error(path + ": the footer is damaged");
        col.name = schema_name(scan->coldef[c]);
        col.typ = scan->coldef[c].typ;
        col.zflag = scan->coldef[c].zflag != 0;
        col.nflag = scan->coldef[c].nflag != 0;
        col.nnull = stat.nnull;
        if (stat.hasminmax) {
            col.min = bound_of(stat.minval, col.typ);
            col.max = bound_of(stat.maxval, col.typ);
        }
        file.column.push_back(std::move(col));
    }
    for (int64_t rg = 0; rg < file.nrowgroup; rg++) {
        group_t group;
        group.nrow = cvn_scan_get_rowgroup_size(scan, rg);
        for (int c = 0; c < ncol; c++) {
            column_t& col = file.column[c];
            colmeta_t meta;
            if (cvn_scan_colmeta(scan, rg, c, &meta) != 0) throw tool_error(path + ": the footer is damaged");
            col.nbyte += meta.nbyte;
            col.zbyte += meta.zbyte;
            group.nbyte += meta.nbyte;
            group.zbyte += meta.zbyte;
            if (!rowgroups) continue;
            chunk_t chunk = {meta.nnull, meta.nbyte, meta.zbyte, meta.file_offset, meta.zflag != 0, {}, {}};
            if (meta.hasminmax) {
                chunk.min = bound_of(meta.minval, col.typ);
                chunk.max = bound_of(meta.maxval, col.typ);
            }
            group.chunk.push_back(std::move(chunk));
        }
        file.nbyte += group.nbyte;
        file.zbyte += group.zbyte;
        if (rowgroups) file.group.push_back(std::move(group));
    }
    return file;
}

// Bytes that are no UTF-8 would make nlohmann::json throw when it prints them.
static std::string clean(const std::string& text) {
    std::string quoted;
    format_json_text(&quoted, text);
    return nlohmann::json::parse(quoted).get<std::string>();
}

static json bound_json(const bound_t& bound) { return bound.known ? json(clean(bound.text)) : json(nullptr); }

static json column_json(const column_t& col) {
    json out = {{"name", clean(col.name)},
                {"type", cvn_typ_str(col.typ)},
                {"z", col.zflag},
                {"n", col.nflag},
                {"nulls", col.nnull},
                {"min", bound_json(col.min)},
                {"max", bound_json(col.max)},
                {"stored_bytes", col.zbyte},
                {"raw_bytes", col.nbyte}};
    if (col.min.cut) out["min_cut"] = true;
    if (col.max.cut) out["max_cut"] = true;
    return out;
}

static json file_json(const file_t& file) {
    json out = {{"path", clean(file.path)},
                {"split", file.split},
                {"rows", file.nrow},
                {"row_groups", file.nrowgroup},
                {"stored_bytes", file.zbyte},
                {"raw_bytes", file.nbyte},
                {"footer_hash", fmt::format("{:08x}", file.hash)}};
    out["columns"] = json::array();
    for (const column_t& col : file.column) out["columns"].push_back(column_json(col));
    if (file.group.empty()) return out;
    out["groups"] = json::array();
    for (const group_t& group : file.group) {
        json g = {{"rows", group.nrow}, {"stored_bytes", group.zbyte}, {"raw_bytes", group.nbyte}};
        g["chunks"] = json::array();
        for (size_t c = 0; c < group.chunk.size(); c++) {
            const chunk_t& chunk = group.chunk[c];
            g["chunks"].push_back({{"column", clean(file.column[c].name)},
                                   {"offset", chunk.offset},
                                   {"stored_bytes", chunk.zbyte},
                                   {"raw_bytes", chunk.nbyte},
                                   {"compressed", chunk.compressed},
                                   {"nulls", chunk.nnull},
                                   {"min", bound_json(chunk.min)},
                                   {"max", bound_json(chunk.max)}});
        }
        out["groups"].push_back(std::move(g));
    }
    return out;
}

static std::string bound_text(const bound_t& bound) {
    if (!bound.known) return "-";
    return tool_shown(1, format_cell(bound.text, 40)) + (bound.cut ? "..." : "");
}

static std::string ratio(int64_t raw, int64_t stored) {
    return stored > 0 ? fmt::format("{:.2f}", static_cast<double>(raw) / static_cast<double>(stored)) : "-";
}

// Prints rows of cells in columns as wide as they need; those of `right` are aligned to the right.
static void print_cells(std::string* out, const std::vector<std::vector<std::string>>& rows,
                        const std::vector<bool>& right, size_t indent) {
    std::vector<size_t> width(right.size());
    for (const auto& row : rows)
        for (size_t i = 0; i < row.size(); i++) width[i] = std::max(width[i], format_width(row[i]));
    for (const auto& row : rows) {
        std::string line(indent, ' ');
        for (size_t i = 0; i < row.size(); i++) {
            const size_t pad = width[i] - format_width(row[i]);
            if (i > 0) line += "  ";
            if (right[i]) line.append(pad, ' ');
            line += row[i];
            if (!right[i]) line.append(pad, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        *out += line + "\n";
    }
}

static void print_file(std::string* out, const file_t& file) {
    *out += fmt::format("{}: {}{}, {}, {}, {} stored of {} raw (ratio {})\n", file.path,
                        file.split ? "split, " : "", tool_counted(file.nrow, "row", "rows"),
                        tool_counted(file.nrowgroup, "row group", "row groups"),
                        tool_counted(static_cast<int64_t>(file.column.size()), "column", "columns"),
                        tool_bytes(static_cast<double>(file.zbyte)),
                        tool_bytes(static_cast<double>(file.nbyte)), ratio(file.nbyte, file.zbyte));
    std::vector<std::vector<std::string>> rows = {
        {"column", "type", "flags", "nulls", "min", "max", "stored", "raw", "ratio"}};
    for (const column_t& col : file.column) {
        std::string flags = col.zflag ? "-z" : "";
        if (col.nflag) flags += flags.empty() ? "-n" : " -n";
        rows.push_back({tool_shown(1, format_cell(col.name, 60)), cvn_typ_str(col.typ),
                        flags.empty() ? "-" : flags, tool_count(col.nnull), bound_text(col.min),
                        bound_text(col.max), tool_bytes(static_cast<double>(col.zbyte)),
                        tool_bytes(static_cast<double>(col.nbyte)), ratio(col.nbyte, col.zbyte)});
    }
    print_cells(out, rows, {false, false, false, true, false, false, true, true, true}, 2);
    for (size_t rg = 0; rg < file.group.size(); rg++) {
        const group_t& group = file.group[rg];
        *out += fmt::format(
            "  row group {}: {}, {} stored of {} raw\n", rg, tool_counted(group.nrow, "row", "rows"),
            tool_bytes(static_cast<double>(group.zbyte)), tool_bytes(static_cast<double>(group.nbyte)));
        rows = {{"column", "offset", "nulls", "min", "max", "stored", "raw", "lz4"}};
        for (size_t c = 0; c < group.chunk.size(); c++) {
            const chunk_t& chunk = group.chunk[c];
            rows.push_back({tool_shown(1, format_cell(file.column[c].name, 60)),
                            fmt::format("{}", chunk.offset), tool_count(chunk.nnull), bound_text(chunk.min),
                            bound_text(chunk.max), tool_bytes(static_cast<double>(chunk.zbyte)),
                            tool_bytes(static_cast<double>(chunk.nbyte)), chunk.compressed ? "yes" : "no"});
        }
        print_cells(out, rows, {false, true, true, false, false, true, true, false}, 4);
    }
}

static int info_run(const info_opts_t& opts) {
    const rows::file_list_t source = source_find(opts.path);
    tool_out_t out;
    json files = json::array();
    file_t total;
    size_t nbad = 0;
    for (const std::string& path : source.path) {
        file_t file;
        try {
            file = read_file(path, opts.rowgroups);
            file_t sum = total;
            tool_add_claim(&sum.nrow, file.nrow, path);
            tool_add_claim(&sum.nrowgroup, file.nrowgroup, path);
            tool_add_claim(&sum.nbyte, file.nbyte, path);
            tool_add_claim(&sum.zbyte, file.zbyte, path);
            total = sum;
        } catch (const tool_error& error) {
            if (!source.many) throw;
            tool_out_flush(&out);  // so that the message comes in its place
            tool_say(error.what());
            nbad++;
            continue;
        }
        if (opts.json)
            files.push_back(file_json(file));
        else
            print_file(&out.buf, file);
        if (!opts.json) tool_out_spill(&out);
    }
    if (opts.json && source.many) {
        out.buf = json({{"path", clean(opts.path)},
                        {"files", files},
                        {"rows", total.nrow},
                        {"row_groups", total.nrowgroup},
                        {"stored_bytes", total.zbyte},
                        {"raw_bytes", total.nbyte}})
                      .dump(2) +
                  "\n";
    } else if (opts.json) {
        out.buf = files[0].dump(2) + "\n";
    } else if (source.many) {
        out.buf += fmt::format("{}: {}{}, {}, {}, {} stored of {} raw (ratio {})\n", opts.path,
                               tool_counted(static_cast<int64_t>(source.path.size() - nbad), "file", "files"),
                               nbad > 0 ? fmt::format(" (and {} left out)", nbad) : "",
                               tool_counted(total.nrow, "row", "rows"),
                               tool_counted(total.nrowgroup, "row group", "row groups"),
                               tool_bytes(static_cast<double>(total.zbyte)),
                               tool_bytes(static_cast<double>(total.nbyte)), ratio(total.nbyte, total.zbyte));
    }
    tool_out_flush(&out);
    return nbad > 0 ? 1 : 0;
}

void info_register(CLI::App* app, int* ret) {
    auto opts = std::make_shared<info_opts_t>();
    CLI::App* const sub =
        app->add_subcommand("info",
                            "Tell what is in a data file, a split directory, or each file of a directory.\n"
                            "\n"
                            "Per column: the type, the flags it was made with (-z compresses eagerly, -n "
                            "keeps no minimum and maximum), NULLs,\n"
                            "the smallest and largest value, and its bytes as stored and raw. Texts are kept "
                            "to 40 bytes there; '...' marks\n"
                            "one that may be longer. Only the footer is read.\n"
                            "\n"
                            "Examples:\n"
                            "  cvn info orders.cvn\n"
                            "  cvn info orders.cvn --rowgroups\n"
                            "  cvn info base/sales/public/orders --json");
    sub->add_option("PATH", opts->path, "The data file or directory")->required();
    sub->add_flag("--json", opts->json, "Print JSON");
    sub->add_flag("--rowgroups", opts->rowgroups, "Also tell about every row group and its chunks");
    sub->callback([opts, ret] { *ret = info_run(*opts); });
}
