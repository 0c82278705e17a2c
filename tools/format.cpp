// Rows as text.
#include "tools/format.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "rows/show.h"
#include "rows/value.h"

constexpr size_t TABLE_HELD = 1000;  // rows that decide the widths of a table
constexpr size_t TABLE_CELL = 60;    // characters of a cell

static void csv_row(format_t* format, const cvn_datum_t* datum, const bool* isnull) {
    std::string* const out = &format->out->buf;
    for (size_t i = 0; i < format->typ.size(); i++) {
        if (i > 0) *out += ',';
        if (isnull[i]) continue;
        if (cvn_storage(format->typ[i]) == CVN_TYP_CSTR)
            format_csv_text(out, datum[i].t);
        else
            rows::value_append_text(out, datum[i], format->typ[i]);
    }
    *out += '\n';
}

static void json_row(format_t* format, const cvn_datum_t* datum, const bool* isnull) {
    std::string* const out = &format->out->buf;
    for (size_t i = 0; i < format->typ.size(); i++) {
        *out += format->key[i];
        const cvn_typ_t typ = format->typ[i];
        if (isnull[i]) {
            *out += "null";
            continue;
        }
        switch (typ) {
            // What JSON's numbers hold everywhere is a number, anything else keeps its digits as a string.
            case CVN_TYP_BOOL:
            case CVN_TYP_INT16:
            case CVN_TYP_INT32:
            case CVN_TYP_INT64: rows::value_append_text(out, datum[i], typ); continue;
            case CVN_TYP_FLOAT:
            case CVN_TYP_DOUBLE: {
                const double v = typ == CVN_TYP_FLOAT ? static_cast<double>(datum[i].f) : datum[i].F;
                if (v - v == 0) {  // finite
                    rows::value_append_text(out, datum[i], typ);
                    continue;
                }
                break;
            }
            case CVN_TYP_CSTR: format_json_text(out, datum[i].t); continue;
            default: break;
        }
        std::string text;
        if (cvn_storage(typ) == CVN_TYP_CSTR)
            text = datum[i].t;
        else
            rows::value_append_text(&text, datum[i], typ);
        format_json_text(out, text);
    }
    *out += format->typ.empty() ? "{}\n" : "}\n";
}

static std::string table_cell(const format_t* format, const std::string& text) {
    std::string cell = format_cell(text, TABLE_CELL);
    return format->terminal ? rows::show_escape(cell) : cell;
}

static void table_line(format_t* format, const std::vector<std::string>& cell) {
    std::string* const out = &format->out->buf;
    for (size_t i = 0; i < cell.size(); i++) {
        if (i > 0) *out += "  ";
        const size_t width = format_width(cell[i]);
        const size_t pad = format->width[i] > width ? format->width[i] - width : 0;
        if (rows::value_is_number(format->typ[i])) out->append(pad, ' ');
        *out += cell[i];
        if (!rows::value_is_number(format->typ[i]) && i + 1 < cell.size()) out->append(pad, ' ');
    }
    *out += '\n';
}

static void table_head(format_t* format) {
    format->wide_known = true;
    std::vector<std::string> head, rule;
    for (size_t i = 0; i < format->name.size(); i++) {
        head.push_back(table_cell(format, format->name[i]));
        format->width[i] = format_width(head[i]);
        for (const auto& row : format->held)
            format->width[i] = std::max(format->width[i], format_width(row[i]));
        rule.emplace_back(format->width[i], '-');
    }
    table_line(format, head);
    table_line(format, rule);
    for (const auto& row : format->held) table_line(format, row);
    format->held.clear();
}

static void table_row(format_t* format, const cvn_datum_t* datum, const bool* isnull) {
    std::vector<std::string> cell;
    for (size_t i = 0; i < format->typ.size(); i++) {
        if (isnull[i]) {
            cell.emplace_back("NULL");
            continue;
        }
        std::string text;
        rows::value_append_text(&text, datum[i], format->typ[i]);
        cell.push_back(table_cell(format, text));
    }
    if (format->wide_known) return table_line(format, cell);
    format->held.push_back(std::move(cell));
    if (format->held.size() >= TABLE_HELD) table_head(format);
}

void format_csv_text(std::string* out, std::string_view text) {
    bool special = false;
    for (const char ch : text) special |= (ch == ',') | (ch == '"') | (ch == '\r') | (ch == '\n');
    // Empty and unquoted would be NULL, and the first byte of a byte-order mark could be taken for one.
    if (!text.empty() && text[0] != '\xEF' && !special) {
        *out += text;
        return;
    }
    *out += '"';
    for (const char ch : text) {
        if (ch == '"') *out += '"';
        *out += ch;
    }
    *out += '"';
}

void format_json_text(std::string* out, std::string_view text) {
    bool plain = true;
    for (const char ch : text) plain &= ch >= 0x20 && ch < 0x7f && ch != '"' && ch != '\\';
    if (plain) {
        *out += '"';
        *out += text;
        *out += '"';
        return;
    }
    *out += nlohmann::json(std::string(text)).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

size_t format_width(std::string_view text) {
    size_t n = 0;
    for (const char ch : text) n += (static_cast<unsigned char>(ch) & 0xc0) != 0x80;
    return n;
}

std::string format_cell(std::string_view text, size_t max) {
    std::string out;
    size_t n = 0;
    for (size_t i = 0; i < text.size(); i++) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xc0) != 0x80 && ++n > max) return out + "...";
        if (byte == '\n')
            out += "\\n";
        else if (byte == '\r')
            out += "\\r";
        else if (byte == '\t')
            out += "\\t";
        else if (byte < 0x20 || byte == 0x7f)
            out += fmt::format("\\x{:02x}", byte);
        else
            out += text[i];
    }
    return out;
}

void format_begin(format_t* format, format_kind_t kind, tool_out_t* out, std::vector<std::string> name,
                  std::vector<cvn_typ_t> typ) {
    *format = format_t();
    format->kind = kind;
    format->out = out;
    format->terminal = tool_is_terminal(out->fd);
    format->name = std::move(name);
    format->typ = std::move(typ);
    format->width.assign(format->name.size(), 0);
    if (kind == FORMAT_CSV) {
        for (size_t i = 0; i < format->name.size(); i++) {
            if (i > 0) out->buf += ',';
            format_csv_text(&out->buf, format->name[i]);
        }
        out->buf += '\n';
    }
    if (kind == FORMAT_JSONL) {
        for (size_t i = 0; i < format->name.size(); i++) {
            std::string key = i == 0 ? "{" : ", ";
            format_json_text(&key, format->name[i]);
            format->key.push_back(key + ": ");
        }
    }
}

void format_row(format_t* format, const cvn_datum_t* datum, const bool* isnull) {
    switch (format->kind) {
        case FORMAT_CSV: csv_row(format, datum, isnull); break;
        case FORMAT_JSONL: json_row(format, datum, isnull); break;
        case FORMAT_TABLE: table_row(format, datum, isnull); break;
    }
    tool_out_spill(format->out);
}

void format_end(format_t* format) {
    if (format->kind == FORMAT_TABLE && !format->wide_known) table_head(format);
    tool_out_flush(format->out);
}
