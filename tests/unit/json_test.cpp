// The tokeniser: what jsmn makes of a whole text in one pass, and how little it looks back for it.
#define JSMN_STATIC
#include <jsmn.h>

#include "handlers/json.h"

#include <array>
#include <random>

#include "server_support.h"

namespace {
using namespace server_support;

const char BAD[] = "400 Bad Request - invalid content";

using tokens_t = std::vector<std::array<int, 4>>;

tokens_t listed(const jsmntok_t* tok, int ntok) {
    tokens_t v;
    for (int i = 0; i < ntok; i++)
        v.push_back({static_cast<int>(tok[i].type), tok[i].start, tok[i].end, tok[i].size});
    return v;
}

// jsmn by itself, with room for every token from the start. False when it refuses the text.
bool whole(tokens_t* ret, const std::string& text) {
    std::vector<jsmntok_t> tok(text.size() + 1);
    jsmn_parser parser;
    jsmn_init(&parser);
    const int n =
        jsmn_parse(&parser, text.c_str(), text.size(), tok.data(), static_cast<unsigned>(tok.size()));
    if (n >= 0) *ret = listed(tok.data(), n);
    return n >= 0;
}

// Compares both and returns whether the text was accepted.
bool same(const std::string& text) {
    tokens_t want;
    const bool good = whole(&want, text);
    json_t json;
    memset(&json, 0x55, sizeof(json));  // so that the clearing is seen
    const char* err = json_tokenise(&json, text.c_str(), static_cast<int>(text.size()));
    EXPECT_STREQ(good ? nullptr : BAD, err) << text;
    EXPECT_EQ(want, listed(json.tok, json.ntok)) << text;
    if (err) {
        EXPECT_EQ(nullptr, json.tok);
    }
    free(json.tok);
    return good;
}

std::string repeated(const std::string& s, size_t n) {
    std::string all;
    for (size_t i = 0; i < n; i++) all += s;
    return all;
}

TEST(Json, EqualsOnePassOverTextsOfRandomBytes) {
    std::mt19937_64 rng(1);
    const std::string alphabet[] = {"{}[]:,\"a \\", "[]{}",       "[],",
                                    "{}:,a",        "[\"a\",]: ", "{[]}:,\"\\u0aF9\n\x01\xff"};
    for (const std::string& from : alphabet)
        for (int i = 0; i < 20000; i++) {
            std::string s;
            for (size_t n = rng() % 300; n > 0; n--) s += from[rng() % from.size()];
            if (rng() % 50 == 0 && !s.empty()) s[rng() % s.size()] = '\0';
            same(s);
        }
}

// A random value in jsmn's own, wide idea of JSON; hardly ever refused.
void add_value(std::string* s, std::mt19937_64& rng, int depth) {
    static const char* const COMMA[] = {",", ", ", " ", ",,", "\n,"};
    static const char* const COLON[] = {":", " : ", ":", "::", " "};
    const uint64_t kind = rng() % 8;
    if (depth > 0 && kind < 5) {
        const bool object = kind < 2;
        *s += object ? '{' : '[';
        for (uint64_t n = rng() % 7; n > 0; n--) {
            if (object || rng() % 20 == 0) {
                add_value(s, rng, rng() % 10 == 0 ? depth - 1 : 0);
                *s += COLON[rng() % 5];
            }
            add_value(s, rng, depth - 1);
            *s += COMMA[rng() % 5];
        }
        *s += object ? '}' : ']';
    } else if (kind % 2) {
        *s += "\"" + std::string(rng() % 20 == 0 ? rng() % 400 : rng() % 12, " ,]}:x"[rng() % 6]) + "\"";
    } else {
        *s += std::string(1 + (rng() % 30 == 0 ? rng() % 300 : rng() % 9), "x7\"-"[rng() % 4]);
        *s += ' ';
    }
}

TEST(Json, EqualsOnePassOverNestedTextsThatAreAccepted) {
    std::mt19937_64 rng(2);
    int naccepted = 0;
    for (int i = 0; i < 20000; i++) {
        std::string s;
        add_value(&s, rng, 1 + static_cast<int>(rng() % 9));
        if (rng() % 4 == 0 && !s.empty()) s.resize(rng() % s.size());
        naccepted += same(s) ? 1 : 0;
    }
    EXPECT_GT(naccepted, 5000);
}

// The dearest texts of a body's size. By itself jsmn looks at up to half their length squared of tokens.
TEST(Json, LooksBackAtTokensInProportionToTheLengthOfTheText) {
    const size_t max = 32768;
    const std::string texts[] = {
        repeated("[", max / 2) + repeated("]", max / 2),
        repeated("{", max / 2) + repeated("}", max / 2),
        "[" + repeated("[],", (max - 2) / 3) + "]",
        "{" + repeated("0:0,", (max - 2) / 4) + "}",
        "[" + repeated("0:[],", (max - 2) / 5) + "]",
        repeated("[0:", max / 4) + repeated("]", max / 4),
        repeated("[0,0:[0],", max / 11) + repeated("]", max / 11),
        "{\"condition\":[" + repeated("[\"\",\"\"],", 4000) + "]}",
        "[\"" + std::string(max - 4, ' ') + "\"]",
        "[" + std::string(max - 2, 'x') + "]",
    };
    for (const std::string& s : texts) {
        EXPECT_TRUE(same(s)) << s.substr(0, 20);
        json_t json;
        ASSERT_EQ(nullptr, json_tokenise(&json, s.c_str(), static_cast<int>(s.size())));
        // Each byte of a piece looks over those at most, and a piece has a bounded number of bytes that do.
        EXPECT_LE(json.nlook, static_cast<int64_t>(s.size()) * 3) << s.substr(0, 20);
        free(json.tok);
    }
}

TEST(Json, DeepNestingThatIsNotClosedIsRefused) {
    for (const std::string& s : {repeated("[", 32768), repeated("{\"a\":", 6000), repeated("[", 16384) + "}"})
        EXPECT_FALSE(same(s));
}

}  // namespace
