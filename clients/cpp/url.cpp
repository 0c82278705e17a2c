// url: places in a catalogue as text, and the texts of errors.

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "clients/cpp/client_int.h"
#include "rows/show.h"

using namespace kelp;

// Copies text, one line of printable characters, cut to fit. A program shows it wherever it shows its errors,
// so a control becomes a blank, and a byte that is no UTF-8 a question mark.
static void copy_line(char* dst, size_t dstsz, std::string_view s) {
    size_t n = 0;
    while (!s.empty()) {
        const rows::show_char_t ch = rows::show_next(s);
        const size_t size = ch.kind == rows::SHOW_FIT ? ch.size : 1;
        if (n + size >= dstsz) break;
        if (ch.kind == rows::SHOW_FIT)
            memcpy(dst + n, s.data(), size);
        else
            dst[n] = ch.kind == rows::SHOW_CONTROL ? ' ' : '?';
        n += size;
        s.remove_prefix(ch.size);
    }
    dst[n] = '\0';
}

int kelp_fail(kelp_error_t* err, int code, const char* hint, const char* fmt, ...) {
    if (!err) return code;
    char text[sizeof(err->text)];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);  // a text that is too long is cut
    va_end(ap);
    err->code = code;
    err->http_status = 0;
    err->said[0] = '\0';
    copy_line(err->text, sizeof(err->text), text);
    copy_line(err->hint, sizeof(err->hint), hint ? hint : "");
    return code;
}

int kelp_nomem(kelp_error_t* err) { return kelp_fail(err, KELP_ENOMEM, nullptr, "out of memory"); }

void kelp_said(kelp_error_t* err, std::string_view said) {
    if (!err) return;
    while (!said.empty() && (said.back() == '\r' || said.back() == '\n' || said.back() == ' '))
        said.remove_suffix(1);
    copy_line(err->said, sizeof(err->said), said);
}

static int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// As the server decodes a path: '+' is a blank, a '%' without two digits after it stands for itself.
static std::string decode(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        if (s[i] == '+') {
            out += ' ';
        } else if (s[i] == '%' && i + 2 < s.size() && hex_digit(s[i + 1]) >= 0 && hex_digit(s[i + 2]) >= 0) {
            out += static_cast<char>(hex_digit(s[i + 1]) << 4 | hex_digit(s[i + 2]));
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

std::string kelp::percent_encode(std::string_view s) {
    static constexpr char DIGIT[] = "0123456789abcdef";
    std::string out;
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
            c == '.' || c == '_' || c == '~') {
            out += ch;
        } else {
            out += '%';
            out += DIGIT[c >> 4];
            out += DIGIT[c & 15];
        }
    }
    return out;
}

static constexpr char URL_HINT[] =
    "write kelp://host:port/database/schema/entity or http://host:port/v1/database/...";

static int url_parse(kelp_url_t* ret_url, std::string_view text, kelp_error_t* err) {
    const std::string shown = rows::show_without_password(text);
    const auto bad = [&](const char* why) {
        return kelp_fail(err, KELP_EARG, URL_HINT, "'%.200s' is no table URL: %s", shown.c_str(), why);
    };
    const size_t colon = text.find("://");
    if (colon == text.npos) return bad("it has no scheme");
    const std::string_view scheme = text.substr(0, colon);
    const bool kelp = scheme == "kelp";
    if (!kelp && scheme != "http" && scheme != "https")
        return bad("its scheme is none of kelp, http and https");
    std::string_view rest = text.substr(colon + 3);
    if (rest.find_first_of("?#") != rest.npos) return bad("it has a query or a fragment");
    if (std::any_of(rest.begin(), rest.end(), [](char c) { return static_cast<unsigned char>(c) <= ' '; }))
        return bad("it holds a blank (write %20) or a control character");
    const size_t slash = rest.find('/');
    const std::string_view authority = rest.substr(0, slash);
    std::string_view path = slash == rest.npos ? std::string_view{} : rest.substr(slash);
    const size_t at = authority.rfind('@');
    const std::string_view hostport = at == authority.npos ? authority : authority.substr(at + 1);
    const size_t bracket = hostport.rfind(']');
    const size_t port_colon = hostport.find(':', bracket == hostport.npos ? 0 : bracket);
    if (hostport.substr(0, port_colon).empty()) return bad("it has no host");
    if (port_colon == hostport.npos) {
        if (kelp) return bad("it has no port");
    } else {
        const std::string_view port = hostport.substr(port_colon + 1);
        int number = 0;
        for (const char c : port) {
            if (c < '0' || c > '9' || number > 65535) return bad("its port is no number from 1 to 65535");
            number = number * 10 + (c - '0');
        }
        if (number < 1 || number > 65535) return bad("its port is no number from 1 to 65535");
    }

    std::string decoded = decode(path);
    if (decoded.find('\0') != decoded.npos) return bad("it holds a NUL");
    if (decoded.empty()) decoded.push_back('/');
    std::vector<std::string> part;
    for (size_t from = 1; from <= decoded.size();) {
        const size_t to = std::min(decoded.find('/', from), decoded.size());
        part.push_back(decoded.substr(from, to - from));
        from = to + 1;
    }
    if (!part.empty() && part.back().empty()) part.pop_back();
    if (!kelp) {
        // The root of a server is its catalogue in short.
        if (!part.empty() && part[0] != "v1") return bad("its path does not begin with /v1");
        if (!part.empty()) part.erase(part.begin());
    }
    if (part.size() > 4) return bad("it names more than database, schema, entity and partition");
    for (const std::string& p : part) {
        if (p.empty()) return bad("one of its names is empty");
        if (p[0] == '.') return bad("one of its names begins with a dot");
    }
    kelp_url_t url;
    url.base = (kelp ? std::string("http") : std::string(scheme)) + "://" + std::string(authority);
    std::string* field[] = {&url.database, &url.schema, &url.entity, &url.partition};
    for (size_t i = 0; i < part.size(); i++) *field[i] = part[i];
    *ret_url = url;
    return 0;
}

int kelp_url_parse(kelp_url_t* ret_url, std::string_view text, kelp_error_t* err) {
    return kelp_guard(err, [&] {
        *ret_url = kelp_url_t{};
        return url_parse(ret_url, text, err);
    });
}

std::string kelp_url_format(const kelp_url_t& url, bool for_display) {
    std::string s = url.base;
    if (for_display) {
        const size_t from = s.find("://"), at = s.rfind('@');
        if (from != s.npos && at != s.npos && at > from) s.erase(from + 3, at + 1 - (from + 3));
    }
    s += "/v1";
    for (const std::string* part : {&url.database, &url.schema, &url.entity, &url.partition}) {
        if (part->empty()) break;
        s += "/" + percent_encode(*part);
    }
    return s;
}

int kelp_url_depth(const kelp_url_t& url) {
    if (url.database.empty()) return 0;
    if (url.schema.empty()) return 1;
    if (url.entity.empty()) return 2;
    return url.partition.empty() ? 3 : 4;
}

int kelp::want_depth(const kelp_url_t& url, int least, int most, const char* what, kelp_error_t* err) {
    const int depth = kelp_url_depth(url);
    if (depth >= least && depth <= most) return 0;
    return kelp_fail(err, KELP_EARG, URL_HINT, "%s does not name %s", kelp_url_format(url, true).c_str(),
                     what);
}
