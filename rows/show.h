// Text from outside as people may be shown it. A name, a value or a server's words may hold what a terminal
// obeys instead of showing it, or what makes a line read as another one; and a URL in a message may hold a
// password.
//
// Text is taken for UTF-8. What is unfit for a terminal:
//
//   U+0000 to U+001F, U+007F       controls; a line feed and a tabulator are fit, being a text's own lines
//   U+0080 to U+009F               more of them: U+009B begins what ESC [ begins
//   U+202A to U+202E,              orders to show what follows from right to left: they make a name read as
//   U+2066 to U+2069               another one
//   a byte that is no UTF-8        0x80 to 0x9f are the same controls on a terminal of 8 bits
#ifndef KELPD_ROWS_SHOW_H
#define KELPD_ROWS_SHOW_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

namespace rows {

enum show_kind_t : int {
    SHOW_FIT,
    SHOW_CONTROL,  // a character that is unfit, also a line feed and a tabulator
    SHOW_INVALID,  // one byte that is no UTF-8
};

// One character of a text.
struct show_char_t {
    show_kind_t kind;
    size_t size;    // bytes, 1 to 4
    uint32_t code;  // of the character, or the byte
};

// The first character of `text`, which must not be empty.
show_char_t show_next(std::string_view text);

// Returns `text` for a terminal: unfit bytes and ASCII controls as \xNN, other unfit characters as \uNNNN.
std::string show_escape(std::string_view text);

// Returns what should be a URL without what may be a user name and password: "***" is in their place.
std::string show_without_password(std::string_view url);

// The same for every URL that stands in a message. Rather too much is hidden than too little.
std::string show_without_passwords(std::string_view message);

}  // namespace rows

#endif
