// query: from what the caller asks to what the server is asked.
//
// A condition is used twice: the server gets what its statistics can decide without losing a row (rows/cond.h
// knows what that is), and every row that comes is decided here.

#include <string.h>

#include <algorithm>
#include <charconv>

#include "clients/cpp/client_int.h"

using namespace kelp;

static constexpr size_t REQUEST_MAX = 32768;  // what the server accepts as a request's body
// What is sent of a longer text: of more than 39 bytes statistics compare the first 39, so this means the
// same.
static constexpr size_t PUSH_TEXTMAX = 48;

// Conditions.

// Words a fault; `text` is the condition's where it has one.
static int fail_cond(kelp_error_t* err, const rows::cond_fault_t& fault, const std::string* text) {
    if (text)
        return kelp_fail(err, KELP_EARG, fault.hint.c_str(), "condition '%.200s': %s", text->c_str(),
                         fault.what.c_str());
    if (fault.code == rows::COND_TYPE)
        return kelp_fail(err, KELP_EPROTO, "use a newer client", "column %.100s is of an unknown type",
                         fault.name.c_str());
    if (fault.code == rows::COND_VALUE)
        return kelp_fail(err, KELP_EARG, fault.hint.c_str(), "condition on column %.100s (%s): '%.100s' %s",
                         fault.name.c_str(), cvn_typ_str(fault.typ), fault.text.c_str(), fault.what.c_str());
    return kelp_fail(err, KELP_EARG, fault.hint.c_str(), "%.400s", fault.what.c_str());
}

int kelp_cond_parse(kelp_cond_t* ret_cond, std::string_view text, kelp_error_t* err) {
    return kelp_guard(err, [&] {
        *ret_cond = kelp_cond_t{};
        rows::cond_t cond;
        rows::cond_fault_t fault;
        const std::string copy(text);
        if (!rows::cond_parse(&cond, text, &fault)) return fail_cond(err, fault, &copy);
        if (cond.kid.size() != 1)
            return kelp_fail(err, KELP_EARG, "give each by itself, or put the value in quotes",
                             "'%.200s' holds more than one condition", copy.c_str());
        const rows::cond_t& leaf = cond.kid[0];
        kelp_cond_t out{.column = leaf.column, .op = leaf.op, .value = {}};
        for (const rows::cond_const_t& constant : leaf.constant) out.value.push_back(constant.text);
        *ret_cond = std::move(out);
        return 0;
    });
}

int kelp::query_cond(rows::cond_t* ret, const kelp_query_t& query, kelp_error_t* err) {
    rows::cond_t cond;
    rows::cond_fault_t fault;
    for (const kelp_cond_t& c : query.cond)
        if (!rows::cond_add(&cond, c.column, c.op, c.value, &fault)) return fail_cond(err, fault, nullptr);
    for (const std::string& text : query.where)
        if (!rows::cond_parse(&cond, text, &fault)) return fail_cond(err, fault, &text);
    *ret = std::move(cond);
    return 0;
}

// Columns.

static std::string name_list(const std::vector<kelp_column_t>& have) {
    std::string s = "the table has ";
    for (size_t i = 0; i < have.size() && s.size() < 200; i++) s += (i ? ", " : "") + have[i].name;
    return s;
}

// Finds a column of the table, and its place among those requested, where it is added if need be.
static int find_column(plan_t* plan, size_t* ret, const std::vector<kelp_column_t>& have,
                       const std::string& name, kelp_error_t* err) {
    for (size_t i = 0; i < plan->column.size(); i++)
        if (plan->column[i].name == name) {
            *ret = i;
            return 0;
        }
    const auto found =
        std::find_if(have.begin(), have.end(), [&](const kelp_column_t& c) { return c.name == name; });
    if (found == have.end())
        return kelp_fail(err, KELP_EARG, name_list(have).c_str(), "there is no column %.100s", name.c_str());
    if (found->typ == 0)
        return kelp_fail(err, KELP_EPROTO, "use a newer client", "column %.100s is of an unknown type",
                         name.c_str());
    *ret = plan->column.size();
    plan->column.push_back(*found);
    return 0;
}

int kelp::query_plan(plan_t* ret, const std::vector<kelp_column_t>& have,
                     const std::vector<std::string>& column, bool rows_only, const rows::cond_t& cond,
                     kelp_error_t* err) {
    plan_t plan;
    std::vector<std::string> want = column;
    if (want.empty())
        for (const kelp_column_t& c : have) want.push_back(c.name);
    if (rows_only) want.clear();
    size_t at;
    for (const std::string& name : want) {
        if (const int code = find_column(&plan, &at, have, name, err)) return code;
        if (at + 1 != plan.column.size() || plan.nresult == plan.column.size())
            return kelp_fail(err, KELP_EARG, column.empty() ? "name the columns that are wanted" : nullptr,
                             "column %.100s is named twice", name.c_str());
        plan.nresult++;
    }
    std::vector<rows::cond_column_t> bindable;
    for (const kelp_column_t& c : have) bindable.push_back({c.name, c.typ});
    plan.cond = cond;
    rows::cond_fault_t fault;
    if (!rows::cond_bind(&plan.cond, bindable, &fault)) {
        if (fault.code == rows::COND_COLUMN) return find_column(&plan, &at, have, fault.name, err);
        return fail_cond(err, fault, nullptr);
    }
    std::vector<int> used;
    rows::cond_columns(&used, plan.cond);
    std::vector<int> place(have.size(), -1);
    for (const int c : used) {
        if (const int code = find_column(&plan, &at, have, have[static_cast<size_t>(c)].name, err))
            return code;
        place[static_cast<size_t>(c)] = static_cast<int>(at);
    }
    rows::cond_renumber(&plan.cond, place);
    *ret = std::move(plan);
    return 0;
}

// Requests.

// `precision` digits express every value of the type.
template <typename T>
static std::string float_text(T v, int precision) {
    char buf[64];
    const auto [end, ec] = std::to_chars(buf, buf + sizeof(buf), v, std::chars_format::general, precision);
    return std::string(buf, ec == std::errc{} ? end : buf);  // they always fit
}

// Writes a value so that the server reads exactly it. False when there is no such text.
static bool push_text(std::string* ret, const cvn_datum_t& v, int storage) {
    char buf[64];
    switch (storage) {
        case CVN_TYP_BOOL: *ret = v.b ? "1" : "0"; return true;
        case CVN_TYP_INT16: *ret = std::to_string(v.s); return true;
        case CVN_TYP_INT32: *ret = std::to_string(v.i); return true;
        case CVN_TYP_INT64: *ret = std::to_string(v.I); return true;
        case CVN_TYP_INT128: (void)cvn_int128_to_string(buf, v.L); break;  // always 0
        case CVN_TYP_FLOAT: *ret = float_text(v.f, 9); return true;
        case CVN_TYP_DOUBLE: *ret = float_text(v.F, 17); return true;
        case CVN_TYP_DEC64: (void)cvn_dec64_to_string(buf, &v.dec64); break;
        case CVN_TYP_DEC128: (void)cvn_dec128_to_string(buf, &v.dec128); break;
        case CVN_TYP_CSTR: {
            const size_t len = strlen(v.t);
            ret->assign(v.t, std::min(len, PUSH_TEXTMAX));
            // Strings of a request are taken as they stand, so what would need an escape cannot be said.
            return ret->find_first_of("\"\\") == ret->npos &&
                   std::none_of(ret->begin(), ret->end(),
                                [](char c) { return static_cast<unsigned char>(c) < ' '; });
        }
        default: return false;
    }
    *ret = buf;
    return true;
}

std::vector<pushed_t> kelp::query_push(const plan_t& plan, bool no_nan) {
    std::vector<rows::cond_push_t> push;
    rows::cond_push(&push, plan.cond,
                    [no_nan](int) { return no_nan ? rows::COND_PROMISED : rows::COND_NEVER; });
    std::vector<pushed_t> out;
    for (const rows::cond_push_t& p : push) {
        pushed_t one{.col = p.col, .op = p.op, .has_value = p.has_value, .value = {}};
        const int storage = cvn_storage(plan.column[static_cast<size_t>(p.col)].typ);
        if (!p.has_value || push_text(&one.value, p.value, storage)) out.push_back(std::move(one));
    }
    return out;
}

static std::string json_string(std::string_view s) { return "\"" + std::string(s) + "\""; }

int kelp::query_request(std::string* ret, const plan_t& plan, bool no_nan, int id, int nfrag,
                        kelp_error_t* err) {
    static constexpr const char* OPS[] = {"", "==", "!=", ">", ">=", "<", "<=", "isnull", "isnotnull"};
    for (const kelp_column_t& c : plan.column)
        // Strings of a request are taken as they stand, so what would need an escape cannot be said.
        if (std::any_of(c.name.begin(), c.name.end(), [](char ch) {
                return ch == '"' || ch == '\\' || static_cast<unsigned char>(ch) < ' ';
            }))
            return kelp_fail(err, KELP_EARG, "rename the column in its file",
                             "the name of column %.100s cannot be put into a request", c.name.c_str());
    std::string body = R"({"column": [)";
    for (size_t c = 0; c < plan.column.size(); c++)
        body += (c ? ", " : "") + json_string(plan.column[c].name);
    body += "]";
    const std::string tail = R"(, "fragment": [)" + std::to_string(id) + ", " + std::to_string(nfrag) + "]}";
    std::string cond;
    std::vector<rows::cond_push_t> push;
    rows::cond_push(&push, plan.cond,
                    [no_nan](int) { return no_nan ? rows::COND_PROMISED : rows::COND_NEVER; });
    for (const rows::cond_push_t& p : push) {
        const kelp_column_t& c = plan.column[static_cast<size_t>(p.col)];
        std::string value;
        if (p.has_value && !push_text(&value, p.value, cvn_storage(c.typ))) continue;
        std::string one = "[" + json_string(c.name) + ", " + json_string(OPS[p.op]);
        if (p.has_value) one += ", " + json_string(value);
        one += "]";
        if (body.size() + cond.size() + one.size() + tail.size() + 32 > REQUEST_MAX) continue;
        cond += (cond.empty() ? "" : ", ") + one;
    }
    if (!cond.empty()) body += R"(, "condition": [)" + cond + "]";
    body += tail;
    if (body.size() > REQUEST_MAX)
        return kelp_fail(err, KELP_EARG, "name fewer columns",
                         "the request for %zu columns exceeds %zu bytes", plan.column.size(), REQUEST_MAX);
    *ret = body;
    return 0;
}
