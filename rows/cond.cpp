#include "rows/cond.h"

#include <ctype.h>
#include <string.h>
#include <strings.h>

#include <algorithm>

namespace rows {

constexpr char COND_FORMS[] =
    "write COLUMN OP VALUE with = != > >= < <=, COLUMN is [not] null, or COLUMN in (VALUE, ...), joined by "
    "'and', "
    "and texts in single quotes: qty > 10 and name is not null and \"a name\" = 'a text'";
constexpr std::string_view OPERATOR_MARKS = "=!<>";

// From text to a tree.

namespace {

struct lexer_t {
    std::string_view src;
    size_t at;
    cond_fault_t* fault;
};

// What ends a bare constant, so that each may mean something there.
constexpr const char* RESERVED[] = {"and", "or", "not", "in", "is", "like", "between", "null"};

struct operator_t {
    const char* mark;
    int op;
};

// Longer marks before those they begin with.
constexpr operator_t OPERATORS[] = {{"==", CVN_OP_EQ}, {"!=", CVN_OP_NE}, {"<>", CVN_OP_NE},
                                    {">=", CVN_OP_GE}, {"<=", CVN_OP_LE}, {"=", CVN_OP_EQ},
                                    {">", CVN_OP_GT},  {"<", CVN_OP_LT}};

}  // namespace

static bool syntax_fault(const lexer_t& lx, size_t at, const std::string& what) {
    *lx.fault = {.code = COND_SYNTAX,
                 .what = what + " at character " + std::to_string(at + 1),
                 .hint = COND_FORMS,
                 .name = {},
                 .text = {},
                 .typ = 0};
    return false;
}

static bool is_blank(char ch) { return isspace(static_cast<unsigned char>(ch)) != 0; }

static char skip_blanks(lexer_t* lx) {
    while (lx->at < lx->src.size() && is_blank(lx->src[lx->at])) lx->at++;
    return lx->at < lx->src.size() ? lx->src[lx->at] : '\0';
}

static bool at_end(lexer_t* lx) {
    (void)skip_blanks(lx);
    return lx->at == lx->src.size();
}

static bool same_word(std::string_view a, const char* b) {
    return a.size() == strlen(b) && strncasecmp(a.data(), b, a.size()) == 0;
}

// The word at `at`, up to a blank or one of `stop`.
static std::string_view word_at(const lexer_t& lx, size_t at, std::string_view stop) {
    size_t end = at;
    while (end < lx.src.size() && !is_blank(lx.src[end]) && stop.find(lx.src[end]) == stop.npos) end++;
    return lx.src.substr(at, end - at);
}

// Takes a word of the language, if it stands there as a word of its own.
static bool take_keyword(lexer_t* lx, const char* keyword) {
    (void)skip_blanks(lx);
    const std::string_view word = word_at(*lx, lx->at, "=!<>(),\"'");
    if (!same_word(word, keyword)) return false;
    lx->at += word.size();
    return true;
}

static bool take_mark(lexer_t* lx, std::string_view mark) {
    (void)skip_blanks(lx);
    if (!lx->src.substr(lx->at).starts_with(mark)) return false;
    lx->at += mark.size();
    return true;
}

// Takes what stands in quotes, which begin here.
static bool take_quoted(lexer_t* lx, std::string* ret) {
    const size_t begin = lx->at;
    const char quote = lx->src[begin];
    ret->clear();
    for (lx->at++; lx->at < lx->src.size(); lx->at++) {
        if (lx->src[lx->at] == quote) {
            const bool doubled = lx->src.substr(lx->at + 1).starts_with(quote);
            lx->at += doubled ? 1 : 0;
            if (!doubled) {
                lx->at++;
                return true;
            }
        }
        *ret += lx->src[lx->at];
    }
    return syntax_fault(*lx, begin, "no quote closes the one that begins");
}

static bool take_name(lexer_t* lx, std::string* ret) {
    if (skip_blanks(lx) == '"') return take_quoted(lx, ret);
    *ret = word_at(*lx, lx->at, "=!<>(),\"'");
    if (ret->empty()) return syntax_fault(*lx, lx->at, "a column name is missing");
    lx->at += ret->size();
    return true;
}

static bool take_constant(lexer_t* lx, cond_const_t* ret) {
    const char first = skip_blanks(lx);
    if (first == '\'' || first == '"') {
        ret->is_name = first == '"';
        return take_quoted(lx, &ret->text);
    }
    const size_t begin = lx->at;
    constexpr std::string_view STOP = "(),";
    if (at_end(lx) || STOP.find(first) != STOP.npos) return syntax_fault(*lx, begin, "a constant is missing");
    if (OPERATOR_MARKS.find(first) != OPERATOR_MARKS.npos)
        return syntax_fault(*lx, begin, "there is no such operator; a constant that begins so needs quotes");
    std::string_view word = word_at(*lx, begin, STOP);
    if (same_word(word, "null"))
        return syntax_fault(*lx, begin, "a comparison with null is never true, use 'is null',");
    for (;;) {
        lx->at += word.size();
        ret->text = lx->src.substr(begin, lx->at - begin);
        const size_t end = lx->at;
        const char next = skip_blanks(lx);
        word = word_at(*lx, lx->at, STOP);
        const bool goes_on = !word.empty() && next != '\'' && next != '"' &&
                             OPERATOR_MARKS.find(next) == OPERATOR_MARKS.npos &&
                             std::none_of(std::begin(RESERVED), std::end(RESERVED),
                                          [&](const char* reserved) { return same_word(word, reserved); });
        if (goes_on) continue;
        lx->at = end;
        return true;
    }
}

static bool take_list(lexer_t* lx, std::vector<cond_const_t>* ret) {
    if (!take_mark(lx, "(")) return syntax_fault(*lx, lx->at, "'(' is missing");
    if (take_mark(lx, ")")) return true;
    do {
        if (!take_constant(lx, &ret->emplace_back())) return false;
    } while (take_mark(lx, ","));
    return take_mark(lx, ")") || syntax_fault(*lx, lx->at, "',' or ')' is missing");
}

static bool take_term(lexer_t* lx, cond_t* ret) {
    ret->kind = COND_COMPARE;
    if (!take_name(lx, &ret->column)) return false;
    for (const operator_t& o : OPERATORS)
        if (take_mark(lx, o.mark)) {
            ret->op = o.op;
            return take_constant(lx, &ret->constant.emplace_back());
        }
    if (take_keyword(lx, "is")) {
        ret->op = take_keyword(lx, "not") ? CVN_OP_ISNOTNULL : CVN_OP_ISNULL;
        return take_keyword(lx, "null") || syntax_fault(*lx, lx->at, "'null' is missing");
    }
    if (take_keyword(lx, "isnull")) {
        ret->op = CVN_OP_ISNULL;
        return true;
    }
    if (take_keyword(lx, "isnotnull")) {
        ret->op = CVN_OP_ISNOTNULL;
        return true;
    }
    if (take_keyword(lx, "in")) {
        ret->op = CVN_OP_IN;
        return take_list(lx, &ret->constant);
    }
    return syntax_fault(*lx, lx->at, "an operator (= != > >= < <=, is, in) is missing");
}

bool cond_parse(cond_t* ret, std::string_view text, cond_fault_t* fault) {
    lexer_t lx{.src = text, .at = 0, .fault = fault};
    std::vector<cond_t> term;
    do {
        if (!take_term(&lx, &term.emplace_back())) return false;
        if (at_end(&lx)) {
            std::move(term.begin(), term.end(), std::back_inserter(ret->kid));
            return true;
        }
    } while (take_keyword(&lx, "and"));
    return syntax_fault(lx, lx.at, "'and' or the end is missing (a text of such words needs quotes)");
}

bool cond_add(cond_t* ret, std::string_view column, int op, std::span<const std::string> text,
              cond_fault_t* fault) {
    const auto wrong = [&](const char* what) {
        *fault = {.code = COND_SYNTAX,
                  .what = "the condition on column " + std::string(column) + " " + what,
                  .hint = {},
                  .name = std::string(column),
                  .text = {},
                  .typ = 0};
        return false;
    };
    if (op < CVN_OP_EQ || op > CVN_OP_IN) return wrong("has no valid operator");
    const bool none = op == CVN_OP_ISNULL || op == CVN_OP_ISNOTNULL;
    if (op != CVN_OP_IN && text.size() != (none ? 0 : 1))
        return wrong(none ? "takes no value" : "takes one value");
    cond_t& leaf = ret->kid.emplace_back();
    leaf.kind = COND_COMPARE;
    leaf.column = column;
    leaf.op = op;
    for (const std::string& t : text) leaf.constant.push_back({.text = t, .is_name = false});
    return true;
}

void cond_names(std::vector<std::string>* ret, const cond_t& cond) {
    for (const cond_t& kid : cond.kid) cond_names(ret, kid);
    if (cond.kind == COND_COMPARE) ret->push_back(cond.column);
}

bool names_parse(std::vector<std::string>* ret, std::string_view text, cond_fault_t* fault) {
    const auto bad = [fault](const char* what) {
        *fault = {.code = COND_SYNTAX,
                  .what = what,
                  .hint = "a list looks like: id,\"a name, with a comma\"",
                  .name = {},
                  .text = {},
                  .typ = 0};
        return false;
    };
    std::vector<std::string> names;
    lexer_t lx{.src = text, .at = 0, .fault = fault};
    for (;; lx.at++) {
        std::string& name = names.emplace_back();
        if (text.substr(lx.at).starts_with('"')) {
            if (!take_quoted(&lx, &name)) return bad("a quote is not closed");
            if (lx.at < text.size() && text[lx.at] != ',') return bad("text follows a closing quote");
        } else {
            name = text.substr(lx.at, text.find(',', lx.at) - lx.at);
            lx.at += name.size();
        }
        if (lx.at == text.size()) break;
    }
    std::move(names.begin(), names.end(), std::back_inserter(*ret));
    return true;
}

// Columns and values.

static bool bind_fault(cond_fault_t* fault, cond_fault_code_t code, const cond_t& leaf,
                       const std::string& text, const char* what, const char* hint) {
    *fault = {.code = code,
              .what = what ? what : "",
              .hint = hint ? hint : "",
              .name = leaf.column,
              .text = text,
              .typ = leaf.typ};
    return false;
}

static bool bind_leaf(cond_t* leaf, std::span<const cond_column_t> column, cond_fault_t* fault) {
    const auto find = [&](std::string_view name) {
        return std::find_if(column.begin(), column.end(),
                            [&](const cond_column_t& c) { return c.name == name; });
    };
    const auto at = find(leaf->column);
    if (at == column.end()) return bind_fault(fault, COND_COLUMN, *leaf, "", nullptr, nullptr);
    if (at->typ == 0) return bind_fault(fault, COND_TYPE, *leaf, "", nullptr, nullptr);
    leaf->col = static_cast<int>(at - column.begin());
    leaf->typ = at->typ;
    leaf->value.clear();
    for (const cond_const_t& constant : leaf->constant) {
        if (constant.is_name && find(constant.text) != column.end())
            return bind_fault(fault, COND_VALUE, *leaf, constant.text,
                              "may be a text or the column of that name", "write a text in single quotes");
        if (const char* why = value_from_text(&leaf->value.emplace_back(), constant.text, leaf->typ))
            return bind_fault(fault, COND_VALUE, *leaf, constant.text, why, value_hint(leaf->typ));
    }
    return true;
}

bool cond_bind(cond_t* cond, std::span<const cond_column_t> column, cond_fault_t* fault) {
    if (cond->kind == COND_COMPARE) return bind_leaf(cond, column, fault);
    return std::all_of(cond->kid.begin(), cond->kid.end(),
                       [&](cond_t& kid) { return cond_bind(&kid, column, fault); });
}

void cond_columns(std::vector<int>* ret, const cond_t& cond) {
    for (const cond_t& kid : cond.kid) cond_columns(ret, kid);
    if (cond.kind == COND_COMPARE && std::find(ret->begin(), ret->end(), cond.col) == ret->end())
        ret->push_back(cond.col);
}

void cond_renumber(cond_t* cond, std::span<const int> place) {
    for (cond_t& kid : cond->kid) cond_renumber(&kid, place);
    if (cond->kind == COND_COMPARE) cond->col = place[static_cast<size_t>(cond->col)];
}

bool cond_is_never(const cond_t& cond) {
    if (cond.kind == COND_COMPARE) return cond.op == CVN_OP_IN && cond.value.empty();
    return std::any_of(cond.kid.begin(), cond.kid.end(), cond_is_never);
}

// The exact decision: one pass over each column that has a condition.

// What an operator makes of an order of -1, 0, 1, or 2, which is none: NaN is unequal to everything.
static bool order_meets(int op, int order) {
    switch (op) {
        case CVN_OP_EQ: return order == 0;
        case CVN_OP_NE: return order != 0;
        case CVN_OP_GT: return order == 1;
        case CVN_OP_GE: return order == 0 || order == 1;
        case CVN_OP_LT: return order == -1;
        default: return order == -1 || order == 0;
    }
}

// Whether a value meets a comparison or a list.
static bool value_meets(const cond_t& cond, const cvn_datum_t& x) {
    if (cond.op != CVN_OP_IN) return order_meets(cond.op, value_cmp(x, cond.value[0].datum, cond.typ));
    return std::any_of(cond.value.begin(), cond.value.end(),
                       [&](const value_t& v) { return value_cmp(x, v.datum, cond.typ) == 0; });
}

static bool bool_meets(const cond_t& cond, bool x) {
    cvn_datum_t datum;
    memset(&datum, 0, sizeof(datum));
    datum.b = x;
    return value_meets(cond, datum);
}

// keep[r] &= what the operator makes of value r and `v`. The loops are simple enough for the compiler to do
// many rows at a time.
template <typename T>
static void keep_fixed(uint8_t* keep, const char* value, int64_t nrow, int op, T v) {
    const T* x = reinterpret_cast<const T*>(value);
    switch (op) {
        case CVN_OP_EQ:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] == v;
            break;
        case CVN_OP_NE:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] != v;
            break;
        case CVN_OP_GT:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] > v;
            break;
        case CVN_OP_GE:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] >= v;
            break;
        case CVN_OP_LT:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] < v;
            break;
        default:
            for (int64_t r = 0; r < nrow; r++) keep[r] &= x[r] <= v;
            break;
    }
}

template <typename T, typename GET>
static void keep_fixed_in(uint8_t* keep, const char* value, int64_t nrow, const std::vector<value_t>& arg,
                          GET get) {
    const T* x = reinterpret_cast<const T*>(value);
    std::vector<T> list;
    for (const value_t& v : arg)
        if (get(v.datum) == get(v.datum))  // NOLINT(misc-redundant-expression): false for a NaN
            list.push_back(get(v.datum));  // a NaN equals nothing, and has no place in an order
    std::sort(list.begin(), list.end());
    for (int64_t r = 0; r < nrow; r++)
        if (keep[r])  // NOLINTNEXTLINE(misc-redundant-expression): false for a NaN
            keep[r] = std::binary_search(list.begin(), list.end(), x[r]) && x[r] == x[r];
}

template <typename T, typename GET>
static void keep_number(uint8_t* keep, const cvn_vec_t& vec, const cond_t& cond, GET get) {
    if (cond.op == CVN_OP_IN)
        keep_fixed_in<T>(keep, vec.value, vec.nrow, cond.value, get);
    else
        keep_fixed<T>(keep, vec.value, vec.nrow, cond.op, get(cond.value[0].datum));
}

// Decimals, whose order is a function.
static void keep_ordered(uint8_t* keep, const cvn_vec_t& vec, const cond_t& cond) {
    cvn_datum_t datum;
    memset(&datum, 0, sizeof(datum));
    for (int64_t r = 0; r < vec.nrow; r++) {
        if (!keep[r]) continue;
        cvn_vec_datum(vec, r, &datum);
        keep[r] = value_meets(cond, datum);
    }
}

// Texts and byte strings: a text ends at its first NUL, so that unsigned bytes and lengths order both.
static void keep_text(uint8_t* keep, const cvn_vec_t& vec, const cond_t& cond) {
    std::vector<std::string_view> list;
    for (const value_t& v : cond.value)
        list.push_back(vec.gap == 1 ? std::string_view(v.datum.t)
                                    : std::string_view(v.datum.a.ptr, static_cast<size_t>(v.datum.a.len)));
    for (int64_t r = 0; r < vec.nrow; r++) {
        if (!keep[r]) continue;
        const std::string_view x = cvn_vec_text(vec, r);
        switch (cond.op) {
            case CVN_OP_EQ: keep[r] = x == list[0]; break;
            case CVN_OP_NE: keep[r] = x != list[0]; break;
            case CVN_OP_GT: keep[r] = x > list[0]; break;
            case CVN_OP_GE: keep[r] = x >= list[0]; break;
            case CVN_OP_LT: keep[r] = x < list[0]; break;
            case CVN_OP_LE: keep[r] = x <= list[0]; break;
            default: keep[r] = std::find(list.begin(), list.end(), x) != list.end(); break;
        }
    }
}

static void keep_bool(uint8_t* keep, const cvn_vec_t& vec, const cond_t& cond) {
    const uint8_t answer[2] = {bool_meets(cond, false), bool_meets(cond, true)};
    for (int64_t r = 0; r < vec.nrow; r++) keep[r] &= answer[vec.value[r] != 0];
}

// Clears keep[r] where row r is NULL (`null` true) or is not.
static void drop_nulls(uint8_t* keep, const cvn_vec_t& vec, bool null) {
    if (null && vec.nnull == 0) return;
    for (int64_t r = 0; r < vec.nrow; r++) keep[r] &= cvn_vec_isnull(vec, r) != null;
}

static void decide_leaf(uint8_t* keep, const cond_t& cond, const cvn_vec_t& vec) {
    if (cond.op == CVN_OP_ISNULL) return drop_nulls(keep, vec, false);
    drop_nulls(keep, vec, true);  // a comparison with NULL is unknown, which is not true
    if (cond.op == CVN_OP_ISNOTNULL) return;
    using datum_t = cvn_datum_t;
    switch (cvn_storage(cond.typ)) {
        case CVN_TYP_BOOL: return keep_bool(keep, vec, cond);
        case CVN_TYP_INT16:
            return keep_number<int16_t>(keep, vec, cond, [](const datum_t& v) { return v.s; });
        case CVN_TYP_INT32:
            return keep_number<int32_t>(keep, vec, cond, [](const datum_t& v) { return v.i; });
        case CVN_TYP_INT64:
            return keep_number<int64_t>(keep, vec, cond, [](const datum_t& v) { return v.I; });
        case CVN_TYP_INT128:
            return keep_number<cvn_int128_t>(keep, vec, cond, [](const datum_t& v) { return v.L; });
        case CVN_TYP_FLOAT: return keep_number<float>(keep, vec, cond, [](const datum_t& v) { return v.f; });
        case CVN_TYP_DOUBLE:
            return keep_number<double>(keep, vec, cond, [](const datum_t& v) { return v.F; });
        case CVN_TYP_BYTEA:
        case CVN_TYP_CSTR: return keep_text(keep, vec, cond);
        default: return keep_ordered(keep, vec, cond);
    }
}

void cond_decide(uint8_t* keep, const cond_t& cond, std::span<const column_t> column) {
    if (cond.kind == COND_COMPARE) return decide_leaf(keep, cond, column[static_cast<size_t>(cond.col)].vec);
    for (const cond_t& kid : cond.kid) cond_decide(keep, kid, column);
}

int64_t cond_filter(std::span<column_t> column, size_t nresult, const cond_t& cond) {
    const int64_t nrow = column.empty() ? 0 : column[0].vec.nrow;
    if (nrow == 0) return 0;
    std::vector<uint8_t> keep(static_cast<size_t>(nrow), 1);
    cond_decide(keep.data(), cond, column);
    std::vector<int32_t> row(static_cast<size_t>(nrow));
    size_t n = 0;
    for (int64_t r = 0; r < nrow; r++) {
        row[n] = static_cast<int32_t>(r);
        n += keep[static_cast<size_t>(r)];
    }
    if (n > 0 && n < static_cast<size_t>(nrow))
        for (size_t c = 0; c < nresult; c++) column_compact(&column[c], {row.data(), n});
    return static_cast<int64_t>(n);
}

// Skipping by statistics.

cond_trust_t cond_prove(cvn_scan_t* scan, int cno, cvn_typ_t typ) {
    const auto holds = [typ](const auto& stat) {
        return !stat.hasminmax || (!value_is_nan(stat.minval, typ) && !value_is_nan(stat.maxval, typ));
    };
    colstat_t stat;
    if (cvn_scan_colstat(scan, cno, &stat) != 0 || !holds(stat)) return COND_NEVER;
    for (int64_t rg = 0; rg < scan->schema->nrowgroup; rg++) {
        colmeta_t meta;
        if (cvn_scan_colmeta(scan, rg, cno, &meta) != 0 || !holds(meta)) return COND_NEVER;
    }
    return COND_PROVED;
}

static void push_one(std::vector<cond_push_t>* ret, const cond_t& leaf, int op, const cvn_datum_t& value) {
    ret->push_back({.col = leaf.col, .op = op, .has_value = true, .value = value});
}

// A stored byte other than 0 and 1 also means true, so a bool is only ever compared with 0.
static void push_bool(std::vector<cond_push_t>* ret, const cond_t& leaf) {
    cvn_datum_t zero;
    memset(&zero, 0, sizeof(zero));
    if (!bool_meets(leaf, false)) push_one(ret, leaf, CVN_OP_NE, zero);
    if (!bool_meets(leaf, true)) push_one(ret, leaf, CVN_OP_EQ, zero);
}

// A list becomes the range that it spans; the library's own reduction of int16 and decimal lists can end below
// the largest element. NaN equals nothing and has no place in the range.
static void push_list(std::vector<cond_push_t>* ret, const cond_t& leaf) {
    const cvn_datum_t *least = nullptr, *most = nullptr;
    for (const value_t& v : leaf.value) {
        if (value_is_nan(v.datum, leaf.typ)) continue;
        if (!least || value_cmp(v.datum, *least, leaf.typ) == -1) least = &v.datum;
        if (!most || value_cmp(v.datum, *most, leaf.typ) == 1) most = &v.datum;
    }
    if (!least) return;
    push_one(ret, leaf, CVN_OP_GE, *least);
    push_one(ret, leaf, CVN_OP_LE, *most);
}

static void push_leaf(std::vector<cond_push_t>* ret, const cond_t& leaf,
                      const std::function<cond_trust_t(int col)>& trust) {
    const int storage = cvn_storage(leaf.typ);
    if (leaf.op == CVN_OP_ISNULL || leaf.op == CVN_OP_ISNOTNULL) {
        cond_push_t push{.col = leaf.col, .op = leaf.op, .has_value = false, .value = {}};
        ret->push_back(push);
        return;
    }
    if (storage == CVN_TYP_BOOL) return push_bool(ret, leaf);
    if (storage == CVN_TYP_BYTEA) return;  // has no bounds
    if (value_has_nan(leaf.typ)) {
        const cond_trust_t trusted = trust(leaf.col);
        if (trusted == COND_NEVER || (trusted == COND_PROVED && leaf.op == CVN_OP_NE)) return;
    }
    if (leaf.op == CVN_OP_IN) return push_list(ret, leaf);
    if (!value_is_nan(leaf.value[0].datum, leaf.typ)) push_one(ret, leaf, leaf.op, leaf.value[0].datum);
}

void cond_push(std::vector<cond_push_t>* ret, const cond_t& cond,
               const std::function<cond_trust_t(int col)>& trust) {
    if (cond.kind == COND_COMPARE) return push_leaf(ret, cond, trust);
    for (const cond_t& kid : cond.kid) cond_push(ret, kid, trust);
}

}  // namespace rows
