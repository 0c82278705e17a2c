// The subcommands. Each registers its options and returns its exit status through `*ret`.
#ifndef KELPD_TOOLS_COMMANDS_H
#define KELPD_TOOLS_COMMANDS_H

#include <stdint.h>

#include <CLI/CLI.hpp>
#include <string>

#include "tools/tool.h"

void create_register(CLI::App* app, int* ret);
void info_register(CLI::App* app, int* ret);
void cat_register(CLI::App* app, int* ret);
void verify_register(CLI::App* app, int* ret);
void split_register(CLI::App* app, int* ret);

// Those that talk to a server: ls, put, rm, meta, count, query, get and sample. Absent without the client
// library.
void remote_register(CLI::App* app, int* ret);

// What --rows, --sample and --limit take: a whole number of at least `least` in 64 bits.
CLI::Validator whole_number(int64_t least);

// Verifies one file or split directory. Writes a line for each fault, or one that it is good, and adds its
// rows to `*ret_nrow`. Returns how many faults it has.
int64_t verify_file(const std::string& path, tool_out_t* out, int64_t* ret_nrow);

#endif
