// Conditions on rows. The library's predicates decide on row groups from statistics and have habits of their
// own with NaN, so each is handed over only where it provably keeps every row that the exact decision
// selects.
#include "tools/where.h"

#include <ctype.h>
#include <fmt/format.h>
#include <string.h>

#include <algorithm>

#include "tools/schema.h"
#include "tools/tool.h"

namespace {

struct token_t {
    enum kind_t { END, WORD, NAME, TEXT, MARK } kind;
    std::string text;
    size_t at;
};

struct lexer_t {
    const std::string* src;
    size_t at;
};

[[noreturn]] void fail(const std::string& src, size_t at, const std::string& what) {
    throw tool_usage(
        fmt::format("condition {}: {} at character {}; conditions look like: qty > 10 and name is not null "
                    "and day in (2024-01-30, 2024-01-31) and \"a name\" = 'a text'",
                    tool_quote(src, 200), what, at + 1));
}

bool is_mark(char ch) { return strchr("=!<>(),", ch) != nullptr; }

token_t next_token(lexer_t* lexer) {
    const std::string& src = *lexer->src;
    size_t& at = lexer->at;
    while (at < src.size() && isspace(static_cast<unsigned char>(src[at]))) ++at;
    const size_t begin = at;
    if (at == src.size()) return {token_t::END, "", begin};
    const char ch = src[at];
    if (ch == '"' || ch == '\'') {
        std::string text;
        for (++at;; ++at) {
            if (at == src.size()) fail(src, begin, "the quote that begins");
            if (src[at] == ch) {
                if (at + 1 >= src.size() || src[at + 1] != ch) break;
                ++at;
            }
            text += src[at];
        }
        ++at;
        return {ch == '"' ? token_t::NAME : token_t::TEXT, text, begin};
    }
    if (ch != 0 && is_mark(ch)) {
        static const char* const two[] = {"==", "!=", "<>", ">=", "<="};
        for (const char* mark : two)
            if (src.compare(at, 2, mark) == 0) {
                at += 2;
                return {token_t::MARK, mark, begin};
            }
        ++at;
        return {token_t::MARK, std::string(1, ch), begin};
    }
    while (at < src.size() && !isspace(static_cast<unsigned char>(src[at])) &&
           (src[at] == 0 || !is_mark(src[at])) && src[at] != '"' && src[at] != '\'')
        ++at;
    return {token_t::WORD, src.substr(begin, at - begin), begin};
}

bool is_word(const token_t& token, const char* word) {
    return token.kind == token_t::WORD && strcasecmp(token.text.c_str(), word) == 0;
}

std::string constant(const std::string& src, const token_t& token) {
    if (token.kind == token_t::TEXT) return token.text;
    if (token.kind == token_t::NAME)
        fail(src, token.at, "a constant stands in single quotes, not double ones,");
    if (token.kind != token_t::WORD) fail(src, token.at, "a constant is missing");
    if (is_word(token, "null")) fail(src, token.at, "a comparison with null is never true, use 'is null',");
    return token.text;
}

int operator_code(const std::string& mark) {
    if (mark == "=" || mark == "==") return CVN_OP_EQ;
    if (mark == "!=" || mark == "<>") return CVN_OP_NE;
    if (mark == ">") return CVN_OP_GT;
    if (mark == ">=") return CVN_OP_GE;
    if (mark == "<") return CVN_OP_LT;
    if (mark == "<=") return CVN_OP_LE;
    return 0;
}

bool has_nan(cvn_typ_t typ) {
    switch (typ & 0xffff) {
        case CVN_TYP_FLOAT:
        case CVN_TYP_DOUBLE:
        case CVN_TYP_DEC64:
        case CVN_TYP_DEC128: return true;
        default: return false;
    }
}

// A NaN that comes first in a row group becomes its minimum and maximum and hides the others, and with it the
// file's: then no bound of the column says anything.
bool bounds_hold(cvn_scan_t* scan, int cno, cvn_typ_t typ) {
    if (!has_nan(typ)) return true;
    colstat_t stat;
    if (cvn_scan_colstat(scan, cno, &stat) != 0) return false;
    if (stat.hasminmax && (value_is_nan(stat.minval, typ) || value_is_nan(stat.maxval, typ))) return false;
    for (int64_t rg = 0; rg < scan->schema->nrowgroup; ++rg) {
        colmeta_t meta;
        if (cvn_scan_colmeta(scan, rg, cno, &meta) != 0) return false;
        if (meta.hasminmax && (value_is_nan(meta.minval, typ) || value_is_nan(meta.maxval, typ)))
            return false;
    }
    return true;
}

void push(cvn_scan_t* scan, const where_cond_t& cond, int op, const cvn_datum_t* datum) {
    cvn_datum_t copy;
    memset(&copy, 0, sizeof(copy));
    if (datum) copy = *datum;
    const std::string name = schema_name(scan->coldef[cond.cno]);
    const int code = cvn_scan_add_lens(scan, name.c_str(), op, datum ? 1 : 0, datum ? &copy : nullptr);
    if (code == -2) throw std::bad_alloc();
    if (code != 0)
        throw tool_error(
            fmt::format("the library refuses a condition on column {} ({})", tool_quote(name), code));
}

}  // namespace

void where_parse(std::vector<where_term_t>* ret, const std::string& text) {
    lexer_t lexer = {&text, 0};
    for (;;) {
        where_term_t term;
        token_t token = next_token(&lexer);
        if (token.kind != token_t::WORD && token.kind != token_t::NAME)
            fail(text, token.at, "a column name is missing");
        term.name = token.text;
        token = next_token(&lexer);
        if (is_word(token, "is")) {
            term.op = CVN_OP_ISNULL;
            token = next_token(&lexer);
            if (is_word(token, "not")) {
                term.op = CVN_OP_ISNOTNULL;
                token = next_token(&lexer);
            }
            if (!is_word(token, "null")) fail(text, token.at, "'null' is missing");
        } else if (is_word(token, "in")) {
            term.op = CVN_OP_IN;
            token = next_token(&lexer);
            if (token.kind != token_t::MARK || token.text != "(") fail(text, token.at, "'(' is missing");
            token = next_token(&lexer);
            if (token.kind != token_t::MARK || token.text != ")") {
                for (;;) {
                    term.text.push_back(constant(text, token));
                    token = next_token(&lexer);
                    if (token.kind == token_t::MARK && token.text == ")") break;
                    if (token.kind != token_t::MARK || token.text != ",")
                        fail(text, token.at, "',' or ')' is missing");
                    token = next_token(&lexer);
                }
            }
        } else {
            term.op = token.kind == token_t::MARK ? operator_code(token.text) : 0;
            if (term.op == 0) fail(text, token.at, "an operator (= != > >= < <=, is, in) is missing");
            token = next_token(&lexer);
            term.text.push_back(constant(text, token));
        }
        ret->push_back(std::move(term));
        token = next_token(&lexer);
        if (token.kind == token_t::END) return;
        if (!is_word(token, "and")) fail(text, token.at, "'and' or the end is missing");
    }
}

void where_parse_names(std::vector<std::string>* ret, const std::string& text) {
    const auto bad = [&text](const char* what) {
        throw tool_usage(fmt::format("columns {}: {}; a list looks like: id,\"a name, with a comma\"",
                                     tool_quote(text, 200), what));
    };
    for (size_t at = 0;; ++at) {
        std::string name;
        if (at < text.size() && text[at] == '"') {
            for (++at;; ++at) {
                if (at == text.size()) bad("a quote is not closed");
                if (text[at] == '"') {
                    if (at + 1 >= text.size() || text[at + 1] != '"') break;
                    ++at;
                }
                name += text[at];
            }
            ++at;
            if (at < text.size() && text[at] != ',') bad("text follows a closing quote");
        } else {
            const size_t end = std::min(text.find(',', at), text.size());
            name = text.substr(at, end - at);
            at = end;
        }
        ret->push_back(std::move(name));
        if (at == text.size()) return;
    }
}

std::vector<where_cond_t> where_bind(const std::vector<where_term_t>& terms, const cvn_coldef_t* coldef,
                                     int ncol) {
    std::vector<where_cond_t> out;
    for (const where_term_t& term : terms) {
        where_cond_t cond;
        while (cond.cno < ncol && schema_name(coldef[cond.cno]) != term.name) ++cond.cno;
        if (cond.cno == ncol) throw tool_error(fmt::format("there is no column {}", tool_quote(term.name)));
        cond.typ = coldef[cond.cno].typ;
        cond.op = term.op;
        for (const std::string& text : term.text) {
            value_t value;
            if (const char* why = value_from_text(&value, text, cond.typ))
                throw tool_error(fmt::format("condition on column {} ({}): {} {}", tool_quote(term.name),
                                             cvn_typ_str(cond.typ), tool_quote(text), why));
            cond.value.push_back(std::move(value));
        }
        out.push_back(std::move(cond));
    }
    return out;
}

bool where_match(const where_cond_t& cond, const cvn_datum_t& datum, bool isnull) {
    if (cond.op == CVN_OP_ISNULL) return isnull;
    if (isnull) return false;
    if (cond.op == CVN_OP_ISNOTNULL) return true;
    if (cond.op == CVN_OP_IN) {
        for (const value_t& value : cond.value)
            if (value_cmp(datum, value.datum, cond.typ) == 0) return true;
        return false;
    }
    const int order = value_cmp(datum, cond.value[0].datum, cond.typ);  // 2 when there is none
    switch (cond.op) {
        case CVN_OP_EQ: return order == 0;
        case CVN_OP_NE: return order != 0;
        case CVN_OP_GT: return order == 1;
        case CVN_OP_GE: return order == 0 || order == 1;
        case CVN_OP_LT: return order == -1;
        case CVN_OP_LE: return order == 0 || order == -1;
        default: return false;
    }
}

void where_push_down(cvn_scan_t* scan, const std::vector<where_cond_t>& conds) {
    for (const where_cond_t& cond : conds) {
        if (cond.op == CVN_OP_ISNULL || cond.op == CVN_OP_ISNOTNULL) {
            push(scan, cond, cond.op, nullptr);
            continue;
        }
        // Byte strings have no bounds. Where NaN can be, a row group of one value may hold NaNs as well,
        // which are unequal to it: "not equal" says nothing there.
        if ((cond.typ & 0xffff) == CVN_TYP_BYTEA || !bounds_hold(scan, cond.cno, cond.typ)) continue;
        if (cond.op == CVN_OP_NE && has_nan(cond.typ)) continue;
        if (cond.op != CVN_OP_IN) {
            if (!value_is_nan(cond.value[0].datum, cond.typ)) push(scan, cond, cond.op, &cond.value[0].datum);
            continue;
        }
        // The list as the range that it spans. NaN equals nothing and is left out.
        const cvn_datum_t *low = nullptr, *high = nullptr;
        for (const value_t& value : cond.value) {
            if (value_is_nan(value.datum, cond.typ)) continue;
            if (!low || value_cmp(value.datum, *low, cond.typ) < 0) low = &value.datum;
            if (!high || value_cmp(value.datum, *high, cond.typ) == 1) high = &value.datum;
        }
        if (!low) {
            const int code = add_in(scan, schema_name(scan->coldef[cond.cno]).c_str(), 0, nullptr);
            if (code != 0) throw tool_error("the library refuses an empty list");
            continue;
        }
        push(scan, cond, CVN_OP_GE, low);
        push(scan, cond, CVN_OP_LE, high);
    }
}
