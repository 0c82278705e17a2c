// Column definitions and the guessing of types.
#include "tools/schema.h"

#include <ctype.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <charconv>
#include <set>

#include "rows/file.h"
#include "rows/value.h"
#include "tools/tool.h"

const char* const SCHEMA_SYNTAX =
    "a schema is NAME TYPE [-z] [-n], ... with the types bool, int16, int32, int64, int128, float, double, "
    "dec64, "
    "dec128, date, time_millis, timestamp_millis, cstr and bytea; -z compresses eagerly, -n keeps no minimum "
    "and "
    "maximum; a name with spaces or commas stands in double quotes";

// The types that are tried, in the order of preference.
constexpr std::array<cvn_typ_t, 9> GUESS = {
    CVN_TYP_BOOL, CVN_TYP_INT64,       CVN_TYP_INT128,           CVN_TYP_DOUBLE, CVN_TYP_DEC128,
    CVN_TYP_DATE, CVN_TYP_TIME_MILLIS, CVN_TYP_TIMESTAMP_MILLIS, CVN_TYP_BYTEA};

// Cuts a definition string at the commas outside quotes, as the library's parser does.
static std::vector<std::string> pieces(const std::string& text) {
    std::vector<std::string> out(1);
    bool quoted = false, word = false;
    for (const char ch : text) {
        if (ch == ',' && !quoted) {
            out.emplace_back();
            word = false;
            continue;
        }
        if (ch == '"' && (quoted || !word)) quoted = !quoted;
        word = quoted || (!isspace(static_cast<unsigned char>(ch)) && ch != '"');
        out.back() += ch;
    }
    return out;
}

// Parses one string and gives the array back to the allocator. Returns false for bad syntax.
static bool parse(const std::string& text, std::vector<cvn_coldef_t>* ret) {
    cvn_coldef_t* coldef = nullptr;
    int ncol = 0;
    const int code = cvn_coldef_parse(&coldef, &ncol, text.c_str());
    if (code == -2) throw std::bad_alloc();
    if (code != 0) return false;
    ret->assign(coldef, coldef + ncol);
    free(coldef);
    return true;
}

// A number as people write it, so that printing the value gives the text again: no leading zeros, no plus
// sign.
static bool is_canonical_number(std::string_view text) {
    if (!text.empty() && text[0] == '-') text.remove_prefix(1);
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    return text[0] != '0' || text.size() == 1 || text[1] == '.' || text[1] == 'e' || text[1] == 'E';
}

static bool is_word_number(std::string_view text) { return text == "NaN" || text == "inf" || text == "-inf"; }

// Splits a number into its digits, without zeros at either end, and the exponent of the first one. Two texts
// are the same number when both are equal.
static void normal_digits(std::string_view text, std::string* digits, int* exponent) {
    digits->clear();
    *exponent = 0;
    int point = -1, ndigit = 0, shift = 0;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '.') {
            point = ndigit;
        } else if (text[i] == 'e' || text[i] == 'E') {
            const char* first = text.data() + i + 1;
            if (first < text.data() + text.size() && *first == '+') first++;
            std::from_chars(first, text.data() + text.size(), shift);
            break;
        } else if (text[i] >= '0' && text[i] <= '9') {
            *digits += text[i];
            ndigit++;
        }
    }
    if (point < 0) point = ndigit;
    const size_t lead = digits->find_first_not_of('0');
    if (lead == std::string::npos) {
        digits->clear();
        return;
    }
    digits->erase(0, lead);
    digits->erase(digits->find_last_not_of('0') + 1);
    *exponent = point - static_cast<int>(lead) + shift;
}

// Whether a double, printed with the fewest digits, is the number that the text says.
static bool is_exact_double(std::string_view text) {
    double v;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size()) return false;
    char buf[64];
    const auto res = std::to_chars(buf, buf + sizeof(buf), v, std::chars_format::scientific);
    std::string a, b;
    int ea, eb;
    normal_digits(text, &a, &ea);
    normal_digits(std::string_view(buf, static_cast<size_t>(res.ptr - buf)), &b, &eb);
    return a == b && ea == eb;
}

static bool fits(std::string_view text, cvn_typ_t typ) {
    switch (typ) {
        case CVN_TYP_BOOL: return text == "true" || text == "false";
        case CVN_TYP_INT64:
        case CVN_TYP_INT128:
            if (!is_canonical_number(text) || text == "-0") return false;
            break;
        case CVN_TYP_DOUBLE:
            if (is_word_number(text)) return true;
            return is_canonical_number(text) && is_exact_double(text);
        case CVN_TYP_DEC128:
            if (!is_canonical_number(text)) return false;
            break;
        // These are also read from other texts, which do not come back as they were.
        case CVN_TYP_DATE:
            if (text.find('-', 1) == text.npos) return false;
            break;
        case CVN_TYP_TIME_MILLIS:
            if (text.find(':') == text.npos && !text.ends_with("ms")) return false;
            break;
        case CVN_TYP_TIMESTAMP_MILLIS:
            if (text.find(':') == text.npos) return false;
            break;
        case CVN_TYP_BYTEA:
            if (!text.starts_with("\\x") && !text.starts_with("\\X")) return false;
            break;
        default: break;
    }
    rows::value_t value;
    return rows::value_from_text(&value, text, typ) == nullptr;
}

std::string schema_name(const cvn_coldef_t& coldef) { return rows::file_column_name(coldef); }

const char* schema_name_fault(std::string_view name) {
    static_assert(CVN_NAME_SZ == 128);  // the number below
    if (name.empty()) return "is empty";
    if (name.size() >= CVN_NAME_SZ) return "is longer than 127 bytes";
    return name.find('\0') == name.npos ? nullptr : "holds a NUL byte";
}

cvn_coldef_t schema_column(std::string_view name, cvn_typ_t typ, bool zflag) {
    if (const char* const why = schema_name_fault(name))
        throw tool_error(fmt::format("the column name {} {}", tool_quote(name), why));
    cvn_coldef_t coldef = {};
    memcpy(coldef.name, name.data(), name.size());
    coldef.typ = typ;
    coldef.zflag = zflag;
    return coldef;
}

std::vector<cvn_coldef_t> schema_parse(const std::string& text) {
    std::vector<cvn_coldef_t> coldef;
    if (!parse(text, &coldef)) {
        // The parser says only that something is wrong: try the definitions one by one to say where.
        std::vector<cvn_coldef_t> one;
        for (const std::string& piece : pieces(text))
            if (!parse(piece, &one) || one.empty() || one[0].typ == 0)
                throw tool_usage(fmt::format("--schema: {} is no column definition; {}", tool_quote(piece),
                                             SCHEMA_SYNTAX));
        throw tool_usage(fmt::format("--schema: bad syntax; {}", SCHEMA_SYNTAX));
    }
    if (coldef.empty()) throw tool_usage(fmt::format("--schema: no columns; {}", SCHEMA_SYNTAX));
    std::set<std::string> names;
    for (size_t i = 0; i < coldef.size(); i++) {
        const std::string name = schema_name(coldef[i]);
        if (name.empty() && coldef[i].typ == 0)
            throw tool_usage(fmt::format("--schema: definition {} is empty (a comma too many?)", i + 1));
        if (name.empty()) throw tool_usage(fmt::format("--schema: column {} has an empty name", i + 1));
        if (coldef[i].typ == 0)
            throw tool_usage(
                fmt::format("--schema: column {} has no type; {}", tool_quote(name), SCHEMA_SYNTAX));
        if (!names.insert(name).second)
            throw tool_usage(fmt::format("--schema: two columns are named {}", tool_quote(name)));
    }
    return coldef;
}

std::string schema_text(const std::vector<cvn_coldef_t>& coldef, bool* ret_exact) {
    *ret_exact = true;
    std::string out;
    for (const cvn_coldef_t& col : coldef) {
        const std::string name = schema_name(col);
        bool bare = !name.empty() && name[0] != '"';
        for (const char ch : name)
            if (isspace(static_cast<unsigned char>(ch)) || ch == ',') bare = false;
        if (!bare && (name.find('"') != std::string::npos || name == ",")) *ret_exact = false;
        if (!out.empty()) out += ", ";
        out += bare ? name : '"' + name + '"';
        out += ' ';
        out += cvn_typ_str(col.typ);
        if (col.zflag) out += " -z";
        if (col.nflag) out += " -n";
    }
    return out;
}

void schema_guess_add(schema_guess_t* guess, std::string_view text) {
    guess->any = true;
    if (!is_word_number(text)) guess->real = true;
    for (size_t i = 0; i < GUESS.size(); i++)
        if ((guess->fit >> i & 1) != 0 && !fits(text, GUESS[i])) guess->fit &= ~(1u << i);
}

cvn_typ_t schema_guess_type(const schema_guess_t& guess) {
    if (!guess.any) return CVN_TYP_CSTR;
    for (size_t i = 0; i < GUESS.size(); i++) {
        if ((guess.fit >> i & 1) == 0) continue;
        if (GUESS[i] == CVN_TYP_DOUBLE && !guess.real) continue;  // nothing but words
        return GUESS[i];
    }
    return CVN_TYP_CSTR;
}
