// Declarations of variables: the definition file's grammar, the tables of names, and look-up by name.
#pragma once

#include "syscfg/variables.h"

// Reads one definition file with what it includes; bad lines are logged and passed over. -1 when path cannot
// be opened. A file that is open already further out is not included again; nesting, files and lines are
// bounded.
int parse_definition(syscfg *db, const char *path, char *line_buffer, size_t buffer_size);

// Takes a record into the variable list (in the place of one of the same name, which is freed) or alias list.
void add_var(syscfg *db, syscfg_var *var);

// Build the look-up tables, once the variables are complete. Out of memory: logged, and there is no table.
void build_var_tbl(syscfg *db);
void build_alias_tbl(syscfg *db);

// The variable of that name or alternative name, or null.
syscfg_var *find_var(const syscfg *db, std::string_view name);

// The name of the alias declaration that lists name, or null.
const char *find_alias(const syscfg *db, std::string_view name);

uint32_t syscfg_hash(std::string_view name);

// What may follow the keywords "choice" and "alias", and "string". 0 or -1, logged.
int parse_choice_spec(syscfg_var *var, std::string_view text);
int parse_string_spec(syscfg_var *var, std::string_view text);
