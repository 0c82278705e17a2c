#define JSMN_STATIC
#include <jsmn.h>

#include "handlers/json.h"

#include <stdlib.h>

#include "handlers/handlers.h"

namespace {

constexpr int FIRST_NTOKEN = 200;

// jsmn's array, and where its tokens belong. All that jsmn asks of a token is which one is still open, which one
// values are counted for, and which one came last, so that only these stay; the others are in `out` alone.
struct sight_t {
    jsmn_parser parser;
    jsmntok_t* tok;  // what jsmn sees; owned
    int* place;      // for each of them that was there before this piece, its number in `out`; owned
    int max;         // room in both
    int nplaced;
    jsmntok_t* out;  // all tokens; owned
    int nout;
    int maxout;
    int64_t nlook;
};

}  // namespace

static const char* json_tokenise_ret(const char* err, sight_t* s) {
    free(s->tok);
    free(s->place);
    free(s->out);
    return err;
}

// Gives an array room for `max` entries; false without memory.
template <typename T>
static bool resize(T** array, int max) {
    T* bigger = static_cast<T*>(realloc(*array, static_cast<size_t>(max) * sizeof(T)));
    if (!bigger) return false;
    *array = bigger;
    return true;
}

static bool widen_sight(sight_t* s) {
    const int max = s->max ? s->max * 3 / 2 : FIRST_NTOKEN;
    if (!resize(&s->tok, max) || !resize(&s->place, max)) return false;
    s->max = max;
    return true;
}

static bool is_open(const jsmntok_t& t) { return t.start != -1 && t.end == -1; }

// Puts the tokens of a piece in their place, and those that jsmn has done with out of its sight. What lies below
// the topmost token that was open before and still is has not changed, but for how many values it has.
static bool end_piece(sight_t* s) {
    const int ntok = static_cast<int>(s->parser.toknext);
    const int nnew = ntok - s->nplaced;
    while (s->nout + nnew > s->maxout) {
        const int max = s->maxout ? s->maxout * 3 / 2 : FIRST_NTOKEN;
        if (!resize(&s->out, max)) return false;
        s->maxout = max;
    }
    for (int i = s->nplaced; i < ntok; i++) s->place[i] = s->nout++;
    int first = s->nplaced;
    while (first > 0 && !is_open(s->tok[first - 1])) first--;
    s->nlook += ntok - first + 1;
    int kept = first, super = s->parser.toksuper;
    for (int i = first; i < ntok; i++) {
        s->out[s->place[i]] = s->tok[i];
        if (!is_open(s->tok[i]) && i != s->parser.toksuper && i != ntok - 1) continue;
        if (i == s->parser.toksuper) super = kept;
        s->tok[kept] = s->tok[i];
        s->place[kept++] = s->place[i];
    }
    s->parser.toksuper = super;
    s->parser.toknext = static_cast<unsigned>(kept);
    s->nplaced = kept;
    return true;
}

// Where a piece from `begin` on may end: after a byte that no number or word holds. A string may be cut there, but
// jsmn comes back to its first byte then.
static int piece_end(const char* text, int len, int begin) {
    if (len - begin <= JSON_PIECE) return len;
    for (int i = begin + JSON_PIECE; i < len; i++) switch (text[i - 1]) {
            case ':':
            case ',':
            case ']':
            case '}':
            case ' ':
            case '\t':
            case '\r':
            case '\n': return i;
            default: break;
        }
    return len;
}

// Where the string at `begin`, which the last piece has cut, ends; or the text, if it does not.
static int string_end(const char* text, int len, int begin) {
    if (text[begin] != '"') return len;  // a NUL, where jsmn stays
    for (int i = begin + 1; i < len; i++) {
        if (text[i] == '"') return i + 1;
        if (text[i] == '\\') i++;
    }
    return len;
}

const char* json_tokenise(json_t* ret, const char* text, int len) {
    *ret = {};
    sight_t s = {};
    jsmn_init(&s.parser);
    if (!widen_sight(&s)) return json_tokenise_ret(STATUS_NOMEM, &s);
    int end = 0, begin = -1, result;
    do {
        const bool stays = static_cast<int>(s.parser.pos) == begin;
        begin = static_cast<int>(s.parser.pos);
        // The end moves on in any case. A string that seems to end sooner has a NUL in it, where the text ends.
        const int next = stays ? string_end(text, len, begin) : piece_end(text, len, end);
        end = next > end ? next : len;
        while ((result = jsmn_parse(&s.parser, text, static_cast<size_t>(end), s.tok,
                                    static_cast<unsigned>(s.max))) == JSMN_ERROR_NOMEM)
            // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): what failed to grow is still there, and freed
            if (!widen_sight(&s)) return json_tokenise_ret(STATUS_NOMEM, &s);
        if (result == JSMN_ERROR_INVAL) return json_tokenise_ret(STATUS_BAD_CONTENT, &s);
        if (!end_piece(&s)) return json_tokenise_ret(STATUS_NOMEM, &s);
    } while (end < len);
    if (result < 0) return json_tokenise_ret(STATUS_BAD_CONTENT, &s);
    for (int i = 0; i < s.nplaced; i++) s.out[s.place[i]] = s.tok[i];
    *ret = {.text = text, .tok = s.out, .ntok = s.nout, .nlook = s.nlook};
    s.out = nullptr;
    return json_tokenise_ret(nullptr, &s);
}
