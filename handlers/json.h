// A JSON text as jsmn's tokens, in time that grows with the text's length and with nothing else.
//
// By itself jsmn looks, at every closing bracket and after every member, back over all tokens for the object or
// array that is still open: a body of brackets costs the square of its length. Here it is given the text piece by
// piece, and between two pieces the tokens that it has done with are taken out of its sight. Tokens, counts and
// what is refused are its own, as of one pass over the whole text.
#ifndef KELPD_HANDLERS_JSON_H
#define KELPD_HANDLERS_JSON_H

#include <stdint.h>

#ifndef JSMN_H
#define JSMN_HEADER
#include <jsmn.h>
#undef JSMN_HEADER
#endif

// Bytes of the text that jsmn sees at once, if they are not inside one string or number.
constexpr int JSON_PIECE = 64;

struct json_t {
    const char* text;  // borrowed
    jsmntok_t* tok;    // owned (free); the children of a token follow it
    int ntok;
    int64_t nlook;  // tokens that jsmn could look back over in each piece, in all
};

// Tokenises `len` bytes of `text`, or those before its first NUL. `*ret` is cleared on entry and set on success.
// Returns null, "400 Bad Request - invalid content" or "500 Internal Server Error - out of memory".
[[nodiscard]] const char* json_tokenise(json_t* ret, const char* text, int len);

#endif
