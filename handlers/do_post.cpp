// Queries. The body is tokenised, then walked once: every step is given the index of its first token and says
// how many tokens it consumed. A token that no step consumes is read as the next member of the request, and
// refused as one; after the last member nothing is read.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string_view>

#include "common/number.h"
#include "common/verbose.h"
#include "handlers/handlers.h"
#include "handlers/json.h"
#include "store/util.h"

constexpr int POST_MAXBODY = 32768;
constexpr int MAX_NUMBER = 19;  // characters of a fragment's number

void colname_free(colname_t* lst) {
    while (lst) {
        colname_t* next = lst->next;
        free(lst->name);
        free(lst);
        lst = next;
    }
}

void cond_free(cond_t* lst) {
    while (lst) {
        cond_t* next = lst->next;
        free(lst->colname);
        free(lst->op);
        for (int i = 0; i < lst->narg; i++) free(lst->arg[i]);
        free(lst->arg);
        free(lst);
        lst = next;
    }
}

void command_free(command_t* cmd) {
    for (int i = 0; i < cmd->argc; i++) free(cmd->argv[i]);
    *cmd = {};
}

static bool is_token(const json_t* json, int i, jsmntype_t type) {
    return i < json->ntok && json->tok[i].type == type;
}

static std::string_view token_text(const json_t* json, int i) {
    const jsmntok_t* t = &json->tok[i];
    return {json->text + t->start, static_cast<size_t>(t->end - t->start)};
}

// A copy of a token's text, raw: escapes stay as they were sent.
static char* token_copy(const json_t* json, int i) {
    const std::string_view s = token_text(json, i);
    return strndup(s.data(), s.size());
}

static const char* parse_colname_array_err(const char* err, colname_t* lst) {
    colname_free(lst);
    return err;
}

static const char* parse_colname_array(colname_t** ret, const json_t* json, int first, int* ret_consumed) {
    *ret = nullptr;
    *ret_consumed = 0;
    colname_t* lst = nullptr;
    colname_t** tail = &lst;
    if (!is_token(json, first, JSMN_ARRAY)) return parse_colname_array_err(STATUS_BAD_CONTENT, lst);
    const int n = json->tok[first].size;
    for (int i = first + 1; i <= first + n; i++) {
        if (!is_token(json, i, JSMN_STRING)) return parse_colname_array_err(STATUS_BAD_CONTENT, lst);
        colname_t* node = static_cast<colname_t*>(calloc(1, sizeof(*node)));
        if (!node) return parse_colname_array_err(STATUS_NOMEM, lst);
        *tail = node;
        tail = &node->next;
        node->name = token_copy(json, i);
        if (!node->name) return parse_colname_array_err(STATUS_NOMEM, lst);
    }
    *ret = lst;
    *ret_consumed = 1 + n;
    return nullptr;
}

static const char* parse_cond_err(const char* err, cond_t* cond) {
    cond_free(cond);
    return err;
}

// Every failure inside a condition, want of memory included, has the status of bad content.
static const char* parse_cond(cond_t** ret, const json_t* json, int first, int* ret_consumed) {
    *ret = nullptr;
    *ret_consumed = 0;
    cond_t* cond = nullptr;
    if (!is_token(json, first, JSMN_ARRAY)) return parse_cond_err(STATUS_BAD_CONTENT, cond);
    const int n = json->tok[first].size;
    if (n < 2 || n > 3) return parse_cond_err(STATUS_BAD_CONTENT, cond);
    if (!is_token(json, first + 1, JSMN_STRING) || !is_token(json, first + 2, JSMN_STRING))
        return parse_cond_err(STATUS_BAD_CONTENT, cond);
    cond = static_cast<cond_t*>(calloc(1, sizeof(*cond)));
    if (!cond) return parse_cond_err(STATUS_BAD_CONTENT, cond);
    cond->colname = token_copy(json, first + 1);
    cond->op = token_copy(json, first + 2);
    if (!cond->colname || !cond->op) return parse_cond_err(STATUS_BAD_CONTENT, cond);

    int consumed = 3;
    int narg = 0;
    int arg = first + 3;  // the token of the first argument
    if (n == 3 && is_token(json, arg, JSMN_STRING)) {
        narg = 1;
        consumed = 4;
    } else if (n == 3 && is_token(json, arg, JSMN_ARRAY)) {
        narg = json->tok[arg].size;
        consumed = 4 + narg;
        arg++;
    }
    // Kept: a third element of another kind is not consumed; it is refused as what comes next, if anything is
    // read next.
    if (narg > 0) {
        cond->arg = static_cast<char**>(calloc(static_cast<size_t>(narg), sizeof(*cond->arg)));
        if (!cond->arg) return parse_cond_err(STATUS_BAD_CONTENT, cond);
        cond->narg = narg;
    }
    for (int i = 0; i < narg; i++) {
        if (!is_token(json, arg + i, JSMN_STRING)) return parse_cond_err(STATUS_BAD_CONTENT, cond);
        cond->arg[i] = token_copy(json, arg + i);
        if (!cond->arg[i]) return parse_cond_err(STATUS_BAD_CONTENT, cond);
    }
    *ret = cond;
    *ret_consumed = consumed;
    return nullptr;
}

static const char* parse_cond_array_err(const char* err, cond_t* lst) {
    cond_free(lst);
    return err;
}

static const char* parse_cond_array(cond_t** ret, const json_t* json, int first, int* ret_consumed) {
    *ret = nullptr;
    *ret_consumed = 0;
    cond_t* lst = nullptr;
    cond_t** tail = &lst;
    if (!is_token(json, first, JSMN_ARRAY)) return parse_cond_array_err(STATUS_BAD_CONTENT, lst);
    int at = first + 1;
    for (int i = 0; i < json->tok[first].size; i++) {
        int consumed = 0;
        if (const char* err = parse_cond(tail, json, at, &consumed)) return parse_cond_array_err(err, lst);
        tail = &(*tail)->next;
        at += consumed;
    }
    *ret = lst;
    *ret_consumed = at - first;
    return nullptr;
}

static const char* parse_command_array(command_t* cmd, const json_t* json, int first, int* ret_consumed) {
    *cmd = {};
    *ret_consumed = 0;
    if (!is_token(json, first, JSMN_ARRAY)) return STATUS_BAD_CONTENT;
    const int n = json->tok[first].size;
    if (n >= COMMAND_MAXARG) return STATUS_BAD_CONTENT;
    for (int i = 0; i < n; i++) {
        if (!is_token(json, first + 1 + i, JSMN_STRING)) return STATUS_BAD_CONTENT;
        cmd->argv[i] = token_copy(json, first + 1 + i);
        if (!cmd->argv[i]) return STATUS_NOMEM;
        cmd->argc = i + 1;
    }
    *ret_consumed = 1 + n;
    return nullptr;
}

static const char* parse_frag_array(fragment_t* frag, const json_t* json, int first, int* ret_consumed) {
    *frag = {};
    *ret_consumed = 0;
    if (!is_token(json, first, JSMN_ARRAY) || json->tok[first].size != 2) return STATUS_BAD_CONTENT;
    int32_t value[2];
    for (int i = 0; i < 2; i++) {
        if (!is_token(json, first + 1 + i, JSMN_PRIMITIVE)) return STATUS_BAD_CONTENT;
        const std::string_view s = token_text(json, first + 1 + i);
        char number[MAX_NUMBER + 1];
        if (s.size() > MAX_NUMBER) return STATUS_BAD_CONTENT;
        number[s.copy(number, MAX_NUMBER)] = '\0';
        errno = 0;
        const long n = strtol(number, nullptr, number_base(number));
        value[i] = static_cast<int32_t>(n);  // Kept: any base, cut to 32 bits
        if (errno) return STATUS_BAD_CONTENT;
    }
    *frag = {.id = value[0], .nfrag = value[1]};
    *ret_consumed = 3;
    return nullptr;
}

static const char* parse_entity_request_err(const char* err, json_t* json, colname_t* colname, cond_t* cond) {
    free(json->tok);
    colname_free(colname);
    cond_free(cond);
    return err;
}

const char* parse_entity_request(colname_t** ret_colname, cond_t** ret_cond, command_t* cmd, fragment_t* frag,
                                 const char* text, int len) {
    *ret_colname = nullptr;
    *ret_cond = nullptr;
    *cmd = {};
    *frag = {};
    colname_t* colname = nullptr;
    cond_t* cond = nullptr;
    json_t json;
    if (const char* err = json_tokenise(&json, text, len))
        return parse_entity_request_err(err, &json, colname, cond);
    if (!is_token(&json, 0, JSMN_OBJECT))
        return parse_entity_request_err(STATUS_BAD_CONTENT, &json, colname, cond);
    int at = 1;
    for (int i = 0; i < json.tok[0].size; i++) {
        if (!is_token(&json, at, JSMN_STRING) || json.tok[at].size != 1)
            return parse_entity_request_err(STATUS_BAD_CONTENT, &json, colname, cond);
        const std::string_view key = token_text(&json, at++);
        const char* err = STATUS_BAD_CONTENT;  // an unknown key, or one given again
        int consumed = 0;
        // Kept: only what an earlier member has yielded makes a second one a repetition.
        if (key == "column" && !colname)
            err = parse_colname_array(&colname, &json, at, &consumed);
        else if (key == "condition" && !cond)
            err = parse_cond_array(&cond, &json, at, &consumed);
        else if (key == "command" && cmd->argc == 0)
            err = parse_command_array(cmd, &json, at, &consumed);
        else if (key == "fragment" && frag->nfrag == 0)
            err = parse_frag_array(frag, &json, at, &consumed);
        if (err) return parse_entity_request_err(err, &json, colname, cond);
        at += consumed;
    }
    *ret_colname = colname;
    *ret_cond = cond;
    return parse_entity_request_err(nullptr, &json, nullptr, nullptr);
}

static const char* read_body_err(const char* err, char* body) {
    free(body);
    return err;
}

// Reads the body into an allocation of its own, NUL-terminated; no body stands for "{}".
static const char* read_body(char** ret_body, int* ret_len, htrequest_t* req) {
    *ret_body = nullptr;
    *ret_len = 0;
    char* body = nullptr;
    if (req->contentlength > POST_MAXBODY) return read_body_err(STATUS_BAD_CONTENT, body);
    const bool given = req->contentlength > 0;
    const int len = given ? static_cast<int>(req->contentlength) : 2;
    body = given ? static_cast<char*>(malloc(static_cast<size_t>(len) + 1)) : strdup("{}");
    if (!body) return read_body_err(STATUS_NOMEM, body);
    if (given) {
        body[len] = '\0';
        if (req->bodysz > len) req->bodysz = len;
        memcpy(body, req->body, static_cast<size_t>(req->bodysz));
        for (int got = req->bodysz; got < len;) {
            const ssize_t n = read(req->fd, body + got, static_cast<size_t>(len - got));
            if (n <= 0) return read_body_err(STATUS_BAD, body);
            got += static_cast<int>(n);
        }
    }
    *ret_body = body;
    *ret_len = len;
    return nullptr;
}

static const char* post_entity_err(const char* err, char* body, colname_t* colname, cond_t* cond,
                                   command_t* cmd) {
    free(body);
    colname_free(colname);
    cond_free(cond);
    command_free(cmd);
    return err;
}

static const char* post_entity(htrequest_t* req, htreply_t* reply, char* path) {
    char* body = nullptr;
    int len = 0;
    colname_t* colname = nullptr;
    cond_t* cond = nullptr;
    command_t cmd = {};
    fragment_t frag = {};
    if (const char* err = read_body(&body, &len, req)) return post_entity_err(err, body, colname, cond, &cmd);
    if (verbose) fprintf(stderr, "  post body: %s\n", body);
    if (const char* err = parse_entity_request(&colname, &cond, &cmd, &frag, body, len))
        return post_entity_err(err, body, colname, cond, &cmd);
    if (cmd.argc == 0)
        return post_entity_err(do_scan(reply, path, colname, cond, &frag), body, colname, cond, &cmd);
    if (colname || cond) return post_entity_err(nullptr, body, colname, cond, &cmd);  // Kept: no reply at all
    const char* err = STATUS_BAD;
    if (strcmp(cmd.argv[0], "sample") == 0)
        err = do_sample(reply, path, cmd.argc, cmd.argv);
    else if (strcmp(cmd.argv[0], "meta") == 0)
        err = do_meta(reply, path, cmd.argc, cmd.argv);
    if (verbose) fprintf(stderr, "command: %s, status %s\n", cmd.argv[0], err ? err : "200");
    return post_entity_err(err, body, colname, cond, &cmd);
}

static const char* do_post_err(const char* err, char* path, tblpath_t* tblpath) {
    free(path);
    tblpath_free(tblpath);
    if (err && verbose) fprintf(stderr, "POST returns error %s\n", err);
    return err;
}

const char* do_post(htrequest_t* req, htreply_t* reply) {
    tblpath_t* tblpath = nullptr;
    char* path = nullptr;
    if (verbose) fprintf(stderr, "do_post %s\n", req->url);
    if (const char* err = tblpath_parse(&tblpath, req->url)) return do_post_err(err, path, tblpath);
    if (tblpath->partition) return do_post_err(STATUS_BAD_URL, path, tblpath);
    path = tblpath_join(tblpath);
    if (!path) return do_post_err(STATUS_NOMEM, path, tblpath);
    if (!tblpath->entity) return do_post_err(nullptr, path, tblpath);  // Kept: no reply at all
    return do_post_err(post_entity(req, reply, path), path, tblpath);
}
