// Any text as what a user types: a URL, a condition, a value. What is accepted and written out again is read
// as the same.
//
//   byte 0      which of the three, and of a value the type
//   the rest    the text
#include <algorithm>

#include "fuzz/fuzz_client.h"

using namespace kelp;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static void url(std::string_view text) {
    kelp_url_t url;
    kelp_error_t err{};
    if (const int code = kelp_url_parse(&url, text, &err)) {
        (void)fuzz::error_text(code, err);
        fuzz::demand(code == KELP_EARG && url.base.empty() && url.database.empty(),
                     "a bad URL leaves a result");
        return;
    }
    const std::string written = kelp_url_format(url, false);
    kelp_url_t again;
    fuzz::demand(kelp_url_parse(&again, written, &err) == 0, "a written URL is not read");
    fuzz::demand(again.base == url.base && again.database == url.database && again.schema == url.schema &&
                     again.entity == url.entity && again.partition == url.partition,
                 "a written URL is read as another");
    fuzz::demand(kelp_url_depth(again) == kelp_url_depth(url), "a written URL has another depth");
    const std::string shown = kelp_url_format(url, true);
    const size_t host = shown.find("://") + 3;
    fuzz::demand(shown.substr(host, shown.find('/', host) - host).find('@') == std::string::npos,
                 "a URL for display holds a user name");
}

static std::string quoted(const std::string& s) {
    std::string out = "\"";
    for (const char c : s) out += c == '"' ? "\"\"" : std::string(1, c);
    return out + "\"";
}

static std::string written(const kelp_cond_t& cond) {
    static constexpr const char* OPS[] = {
        "", "==", "!=", ">", ">=", "<", "<=", "is null", "is not null", "in"};
    std::string s = quoted(cond.column) + " " + OPS[cond.op] + " ";
    if (cond.op == CVN_OP_IN) s += "(";
    for (size_t i = 0; i < cond.value.size(); i++) s += (i ? ", " : "") + quoted(cond.value[i]);
    return cond.op == CVN_OP_IN ? s + ")" : s;
}

static void condition(std::string_view text) {
    kelp_cond_t cond;
    kelp_error_t err{};
    if (const int code = kelp_cond_parse(&cond, text, &err)) {
        (void)fuzz::error_text(code, err);
        fuzz::demand(code == KELP_EARG && cond.column.empty() && cond.value.empty(),
                     "a bad condition leaves a result");
        return;
    }
    fuzz::demand(cond.op >= CVN_OP_EQ && cond.op <= CVN_OP_IN, "a condition without an operator");
    const bool none = cond.op == CVN_OP_ISNULL || cond.op == CVN_OP_ISNOTNULL;
    fuzz::demand(cond.op == CVN_OP_IN || cond.value.size() == (none ? 0 : 1),
                 "a condition with other values");
    kelp_cond_t again;
    fuzz::demand(kelp_cond_parse(&again, written(cond), &err) == 0, "a written condition is not read");
    fuzz::demand(again.column == cond.column && again.op == cond.op && again.value == cond.value,
                 "a written condition is read as another");
}

static void value(std::string_view text, cvn_typ_t typ) {
    rows::value_t value;
    if (const char* why = rows::value_from_text(&value, text, typ)) {
        fuzz::demand(*why != '\0', "a value is refused without a reason");
        return;
    }
    // What is written is read as the same value, bit for bit but for the kind of a NaN.
    std::string written;
    rows::value_append_text(&written, value.datum, typ);
    rows::value_t again;
    fuzz::demand(rows::value_from_text(&again, written, typ) == nullptr, "a written value is not read");
    const bool nan = rows::value_is_nan(value.datum, typ);
    fuzz::demand(
        nan ? rows::value_is_nan(again.datum, typ) : rows::value_cmp(value.datum, again.datum, typ) == 0,
        "a written value is read as another");

    // And what the server is asked with it is no more than a comparison.
    plan_t plan;
    rows::cond_fault_t fault;
    kelp_error_t err{};
    const std::vector<std::string> values = {std::string(text)};
    fuzz::demand(rows::cond_add(&plan.cond, "c", CVN_OP_EQ, values, &fault), "a comparison is refused");
    const rows::cond_t cond = plan.cond;
    fuzz::demand(query_plan(&plan, {{"c", typ}}, {}, false, cond, &err) == 0,
                 "a value that is read is refused");
    std::string body;
    fuzz::demand(query_request(&body, plan, true, 0, 1, &err) == 0, "a comparison is not sent");
    fuzz::demand(body.starts_with(R"({"column": ["c"])") && body.ends_with(R"(, "fragment": [0, 1]})"),
                 "a request of another form");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] % 16) {
        case 14: url(text); break;
        case 15: condition(text); break;
        default: value(text, fuzz::TYPES[data[0] % 16]);
    }
    return 0;
}
