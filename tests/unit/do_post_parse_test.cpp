// The grammar of a query, apart from what becomes of it.
#include "server_support.h"

namespace {
using namespace server_support;

// A parsed text: "ok" and what it yielded, or the status.
std::string parsed(const std::string& json) {
    colname_t* colname = reinterpret_cast<colname_t*>(1);  // not null, so that the clearing is seen
    cond_t* cond = reinterpret_cast<cond_t*>(1);
    command_t cmd;
    fragment_t frag = {7, 7};
    const char* err =
        parse_entity_request(&colname, &cond, &cmd, &frag, json.c_str(), static_cast<int>(json.size()));
    std::string s = err ? err : "ok";
    if (err) {
        EXPECT_EQ(nullptr, colname);
        EXPECT_EQ(nullptr, cond);
    } else {
        for (const colname_t* p = colname; p; p = p->next) s += " col=" + std::string(p->name);
        for (const cond_t* p = cond; p; p = p->next) {
            s += " cond=" + std::string(p->colname) + "," + p->op + "(";
            for (int i = 0; i < p->narg; i++) s += std::string(i ? "," : "") + p->arg[i];
            s += ")";
            EXPECT_EQ(p->narg == 0, p->arg == nullptr);
        }
        for (int i = 0; i < cmd.argc; i++) s += " cmd=" + std::string(cmd.argv[i]);
        if (frag.id || frag.nfrag) s += " frag=" + std::to_string(frag.id) + "/" + std::to_string(frag.nfrag);
    }
    colname_free(colname);
    cond_free(cond);
    command_free(&cmd);
    return s;
}
const std::string BAD = "400 Bad Request - invalid content";

TEST(PostGrammar, AnEmptyObjectIsValid) {
    EXPECT_EQ("ok", parsed("{}"));
    EXPECT_EQ("ok", parsed(" \r\n\t{ } "));
}
TEST(PostGrammar, TakesAllFourMembers) {
    EXPECT_EQ(
        "ok col=id col=qty cond=qty,>(10) cond=note,isnull() frag=0/4",
        parsed(
            R"({"column": ["id", "qty"], "condition": [["qty", ">", "10"], ["note", "isnull"]], "fragment": [0, 4]})"));
    EXPECT_EQ("ok cmd=sample cmd=5", parsed(R"({"command":["sample","5"]})"));
}
TEST(PostGrammar, TakesEmptyArrays) {
    EXPECT_EQ("ok", parsed(R"({"column":[],"condition":[],"command":[]})"));
    EXPECT_EQ("ok cond=a,in()", parsed(R"({"condition":[["a","in",[]]]})"));
}
TEST(PostGrammar, RefusesWhatIsNoObject) {
    for (const char* s : {"", "   ", "[]", "\"column\"", "5", "true", "[{}]"}) EXPECT_EQ(BAD, parsed(s)) << s;
}
TEST(PostGrammar, RefusesBrokenJsonAtEveryLength) {
    const std::string whole = R"({"column":["a","b"],"condition":[["a","in",["1","2"]]],"fragment":[0,4]})";
    EXPECT_EQ("ok col=a col=b cond=a,in(1,2) frag=0/4", parsed(whole));
    for (size_t n = 0; n < whole.size(); n++) EXPECT_EQ(BAD, parsed(whole.substr(0, n))) << n;
    for (const char* s :
         {"{]", "}", "{\"column\":[\"a\\x\"]}", "{\"column\":[\"\\u12g4\"]}", "{\"column\":[\xff]}"})
        EXPECT_EQ(BAD, parsed(s)) << s;
}
TEST(PostGrammar, RefusesUnknownKeysAndOtherCases) {
    EXPECT_EQ(BAD, parsed(R"({"colums": []})"));
    EXPECT_EQ(BAD, parsed(R"({"Column": []})"));
    EXPECT_EQ(BAD, parsed(R"({"": []})"));
    EXPECT_EQ(BAD, parsed(R"({"column ": []})"));
    EXPECT_EQ(BAD, parsed(R"({column: []})"));
}
TEST(PostGrammar, AKeyHasExactlyOneValue) {
    EXPECT_EQ(BAD, parsed(R"({"column"})"));
    EXPECT_EQ(BAD, parsed(R"({"column":})"));
    EXPECT_EQ(BAD, parsed(R"({"column" []})"));
    EXPECT_EQ(BAD, parsed(R"({"column": "a" "b"})"));
}
TEST(PostGrammar, ColumnsAreAnArrayOfStrings) {
    EXPECT_EQ(BAD, parsed(R"({"column": "a"})"));
    EXPECT_EQ(BAD, parsed(R"({"column": [1]})"));
    EXPECT_EQ(BAD, parsed(R"({"column": ["a", ["b"]]})"));
    EXPECT_EQ(BAD, parsed(R"({"column": {"a": "b"}})"));
}
TEST(PostGrammar, StringsAreCopiedRaw) {
    EXPECT_EQ("ok col=a\\\"b", parsed(R"({"column":["a\"b"]})"));
    EXPECT_EQ("ok col=\\u0041", parsed("{\"column\":[\"\\u0041\"]}"));
    EXPECT_EQ("ok col=", parsed(R"({"column":[""]})"));
    EXPECT_EQ("ok col=\xc3\xa4\n", parsed("{\"column\":[\"\xc3\xa4\n\"]}"));
}
TEST(PostGrammar, AConditionHasTwoOrThreeElements) {
    EXPECT_EQ(BAD, parsed(R"({"condition":[[]]})"));
    EXPECT_EQ(BAD, parsed(R"({"condition":[["a"]]})"));
    EXPECT_EQ(BAD, parsed(R"({"condition":[["a",">","1","2"]]})"));
    EXPECT_EQ(BAD, parsed(R"({"condition":["a",">","1"]})"));
    EXPECT_EQ(BAD, parsed(R"({"condition":{}})"));
}
TEST(PostGrammar, NameOperatorAndArgumentsAreStrings) {
    EXPECT_EQ(BAD, parsed(R"({"condition":[[1,">","1"]]})"));
    EXPECT_EQ(BAD, parsed(R"({"condition":[["a",1,"1"]]})"));
    EXPECT_EQ(BAD, parsed(R"({"condition":[["a","in",["1",2]]]})"));
    EXPECT_EQ(BAD, parsed(R"({"condition":[["a","in",[["1"]]]]})"));
    EXPECT_EQ(BAD, parsed(R"({"condition":[["a","in",[{}]]]})"));
}
TEST(PostGrammar, AnOddThirdElementIsReadAsWhatComesNext) {
    EXPECT_EQ(BAD, parsed(R"({"condition":[["a",">",10],["b","isnull"]]})"));
    EXPECT_EQ(BAD, parsed(R"({"condition":[["a",">",10]],"column":["a"]})"));
    EXPECT_EQ(BAD, parsed(R"({"condition":[["a",">",{}]],"column":["a"]})"));
}
TEST(PostGrammar, AnOddThirdElementAtTheVeryEndIsLeftUnread) {
    EXPECT_EQ("ok cond=a,>()", parsed(R"({"condition":[["a",">",10]]})"));
    EXPECT_EQ("ok col=a cond=b,isnull() cond=a,>()",
              parsed(R"({"column":["a"],"condition":[["b","isnull"],["a",">",{"x":["y"]}]]})"));
}
TEST(PostGrammar, WhatFollowsTheObjectIsLeftUnread) {
    EXPECT_EQ("ok col=a", parsed(R"({"column":["a"]} [1,2] junk)"));
    EXPECT_EQ("ok", parsed("{}\0[not json"s));
}
TEST(PostGrammar, ACommandHasAtMost49Elements) {
    std::string list, want = "ok";
    for (int i = 0; i < 49; i++) {
        list += (i ? ",\"c" : "\"c") + std::to_string(i) + "\"";
        want += " cmd=c" + std::to_string(i);
    }
    EXPECT_EQ(want, parsed("{\"command\":[" + list + "]}"));
    EXPECT_EQ(BAD, parsed("{\"command\":[" + list + ",\"x\"]}"));
    EXPECT_EQ(BAD, parsed(R"({"command":"sample"})"));
    EXPECT_EQ(BAD, parsed(R"({"command":["sample",5]})"));
}
TEST(PostGrammar, AFragmentIsTwoBareNumbers) {
    EXPECT_EQ(BAD, parsed(R"({"fragment":[]})"));
    EXPECT_EQ(BAD, parsed(R"({"fragment":[1]})"));
    EXPECT_EQ(BAD, parsed(R"({"fragment":[1,2,3]})"));
    EXPECT_EQ(BAD, parsed(R"({"fragment":["1","2"]})"));
    EXPECT_EQ(BAD, parsed(R"({"fragment":[1,[2]]})"));
    EXPECT_EQ(BAD, parsed(R"({"fragment":1})"));
    EXPECT_EQ("ok frag=0/4", parsed(R"({"fragment":[word,4]})"));
}
TEST(PostGrammar, FragmentNumbersAreBaseZeroAndCutTo32Bits) {
    EXPECT_EQ("ok frag=16/8", parsed(R"({"fragment":[0x10,010]})"));
    EXPECT_EQ("ok frag=-1/-2", parsed(R"({"fragment":[-1,-2]})"));
    EXPECT_EQ("ok frag=1/0", parsed(R"({"fragment":[4294967297,4294967296]})"));
    EXPECT_EQ("ok frag=-1/5", parsed(R"({"fragment":[9223372036854775807,5]})"));
}
TEST(PostGrammar, AFragmentNumberHasAtMost19CharactersAndIsInRange) {
    EXPECT_EQ("ok frag=1/2", parsed(R"({"fragment":[0000000000000000001,2]})"));
    EXPECT_EQ(BAD, parsed(R"({"fragment":[00000000000000000001,2]})"));
    EXPECT_EQ(BAD, parsed(R"({"fragment":[9999999999999999999,2]})"));
}
TEST(PostGrammar, ARepeatedKeyIsJudgedByWhatTheFirstLeft) {
    EXPECT_EQ(BAD, parsed(R"({"column":["a"],"column":["b"]})"));
    EXPECT_EQ("ok col=b", parsed(R"({"column":[],"column":["b"]})"));
    EXPECT_EQ(BAD, parsed(R"({"condition":[["a","isnull"]],"condition":[]})"));
    EXPECT_EQ("ok cond=a,isnull()", parsed(R"({"condition":[],"condition":[["a","isnull"]]})"));
    EXPECT_EQ(BAD, parsed(R"({"command":["x"],"command":["y"]})"));
    EXPECT_EQ("ok cmd=y", parsed(R"({"command":[],"command":["y"]})"));
    EXPECT_EQ(BAD, parsed(R"({"fragment":[0,1],"fragment":[0,1]})"));
    EXPECT_EQ("ok frag=2/3", parsed(R"({"fragment":[1,0],"fragment":[2,3]})"));
}
TEST(PostGrammar, GrowsTheTokensOverManyElements) {
    for (const int n : {198, 199, 200, 298, 299, 448, 449, 450, 5000}) {
        std::string list, want = "ok";
        for (int i = 0; i < n; i++) {
            list += (i ? ",\"c" : "\"c") + std::to_string(i) + "\"";
            want += " col=c" + std::to_string(i);
        }
        EXPECT_EQ(want, parsed("{\"column\":[" + list + "]}")) << n;
    }
}
TEST(PostGrammar, SurvivesDeepNesting) {
    EXPECT_EQ(BAD, parsed(std::string(32768, '[')));
    EXPECT_EQ(BAD, parsed("{\"column\":" + std::string(16000, '[') + std::string(16000, ']') + "}"));
}
}  // namespace
