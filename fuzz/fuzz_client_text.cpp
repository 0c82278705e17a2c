// Any text as what a user types: a URL, a condition, a value. What is accepted and written out again is read
// as the same.
//
//   byte 0      which of the three, and of a value the type
//   the rest    the text
#include <algorithm>

#include "fuzz/fuzz_client.h"

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
    const kelp_cond_t cond{.column = "c", .op = CVN_OP_EQ, .value = {std::string(text)}};
    bound_cond_t bound;
    kelp_error_t err{};
    if (const int code = cond_bind(&bound, cond, 0, typ, &err)) {
        (void)fuzz::error_text(code, err);
        return;
    }
    const std::vector<pushed_t> pushed = cond_push(bound, true);
    // A text may be cut short, and a bool becomes a comparison with 0.
    if ((typ & 0xffff) == CVN_TYP_CSTR || (typ & 0xffff) == CVN_TYP_BOOL || pushed.empty()) return;
    cvn_datum_t again;
    std::string bytes;
    fuzz::demand(pushed.size() == 1 && pushed[0].has_value, "a comparison is sent without its value");
    fuzz::demand(value_parse(&again, &bytes, pushed[0].value, typ, "c", &err) == 0,
                 "a value sent is not read");
    fuzz::demand(memcmp(&again, &bound.arg[0], sizeof(again)) == 0, "a value sent is another");
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
