// Any bytes as the body of a query: what is accepted is a whole record, whatever the tokens looked like.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "handlers/handlers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 32768) return 0;
    const std::string json(reinterpret_cast<const char*>(data), size);
    colname_t* colname = reinterpret_cast<colname_t*>(1);
    cond_t* cond = reinterpret_cast<cond_t*>(1);
    command_t cmd;
    fragment_t frag;
    const char* err =
        parse_entity_request(&colname, &cond, &cmd, &frag, json.c_str(), static_cast<int>(json.size()));
    if (err && (colname || cond)) abort();
    size_t total = 0;  // no text is longer than where it came from, and none is taken twice
    for (const colname_t* p = colname; p; p = p->next) total += strlen(p->name) + 2;
    for (const cond_t* p = cond; p; p = p->next) {
        total += strlen(p->colname) + strlen(p->op) + 4;
        if (p->narg < 0 || (p->narg == 0) != (p->arg == nullptr)) abort();
        for (int i = 0; i < p->narg; i++) total += strlen(p->arg[i]) + 2;
    }
    if (cmd.argc < 0 || cmd.argc >= COMMAND_MAXARG) abort();
    for (int i = 0; i < cmd.argc; i++) total += strlen(cmd.argv[i]) + 2;
    if (total > size) abort();
    colname_free(colname);
    cond_free(cond);
    command_free(&cmd);
    return 0;
}
