// Variables by name: the lists, the tables sorted by hash, and look-up.
#pragma once

#include "syscfg/variables.h"

#include <memory>

// Frees the value, as far as the variable owns it; the variable then has none.
void drop_value(syscfg_var *var);

struct var_deleter {
    void operator()(syscfg_var *var) const;
};

using unique_var = std::unique_ptr<syscfg_var, var_deleter>;

// Adds to the variable list (in the place of the variable of the same name, which is freed) or alias list.
void add_var(syscfg *db, unique_var var);

// Build the look-up tables, once the variables are complete. Out of memory: logged, and there is no table.
void build_var_tbl(syscfg *db);
void build_alias_tbl(syscfg *db);

// The variable of that name or alternative name, or null.
syscfg_var *find_var(const syscfg *db, std::string_view name);

// The name of the alias declaration that lists name, or null.
const char *find_alias(const syscfg *db, std::string_view name);

uint32_t syscfg_hash(std::string_view name);
