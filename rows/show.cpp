// Text from outside as people may be shown it.
#include "rows/show.h"

#include <stdio.h>

#include <algorithm>

using namespace rows;

static bool is_control(uint32_t code) {
    return code < 0x20 || (code >= 0x7f && code <= 0x9f) || (code >= 0x202a && code <= 0x202e) ||
           (code >= 0x2066 && code <= 0x2069);
}

show_char_t rows::show_next(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    const show_char_t invalid = {SHOW_INVALID, 1, first};
    if (first < 0x80) return {is_control(first) ? SHOW_CONTROL : SHOW_FIT, 1, first};
    const size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < size) return invalid;
    uint32_t code = first & (0x7fu >> size);
    for (size_t i = 1; i < size; i++) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xc0) != 0x80) return invalid;
        code = code << 6 | (byte & 0x3fu);
    }
    // Longer than need be, half of a pair, or beyond the last character.
    constexpr uint32_t LEAST[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < LEAST[size] || (code >= 0xd800 && code <= 0xdfff) || code > 0x10ffff) return invalid;
    return {is_control(code) ? SHOW_CONTROL : SHOW_FIT, size, code};
}

std::string rows::show_escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const show_char_t ch = show_next(text);
        if (ch.kind == SHOW_FIT || ch.code == '\n' || ch.code == '\t') {
            out += text.substr(0, ch.size);
        } else {
            char buf[16];  // the longest is \uNNNN
            const bool byte = ch.kind == SHOW_INVALID || ch.code < 0x80;
            (void)snprintf(buf, sizeof(buf), byte ? "\\x%02x" : "\\u%04x", ch.code);
            out += buf;
        }
        text.remove_prefix(ch.size);
    }
    return out;
}

// How much of what follows a URL's "://" is a user name and password, with the '@' after them left out; npos
// when there is none. They end at the last '@' in front of the path. When a '/' of the password seems to
// begin the path, it is the last '@' of all.
static size_t secret_size(std::string_view rest) {
    const std::string_view authority = rest.substr(0, rest.find('/'));
    const size_t at = authority.rfind('@');
    if (at != authority.npos) return at;
    const size_t colon = authority.find(':');
    if (colon == authority.npos) return authority.npos;
    const size_t digits = std::min(authority.find_first_not_of("0123456789", colon + 1), authority.size());
    // A port, in a message perhaps with more of it after the URL.
    if (digits > colon + 1 &&
        (digits == authority.size() || authority.find_first_of(" :;,'\")", digits) == digits))
        return authority.npos;
    return rest.rfind('@');
}

static std::string without_secret(std::string_view text, size_t from) {
    const size_t size = secret_size(text.substr(from));
    if (size == std::string_view::npos) return std::string(text);
    return std::string(text.substr(0, from)) + "***" + std::string(text.substr(from + size));
}

std::string rows::show_without_password(std::string_view url) {
    const size_t colon = url.find("://");
    return without_secret(url,
                          colon != url.npos ? colon + 3 : std::min(url.find_first_not_of('/'), url.size()));
}

std::string rows::show_without_passwords(std::string_view message) {
    std::string out(message);
    for (size_t at = 0; (at = out.find("://", at)) != out.npos; at += 3) out = without_secret(out, at + 3);
    return out;
}
