// Frees everything that a configuration database holds in memory.
#pragma once
#include "app/memory.h"
#include "app/text.h"
#include "syscfg/definition.h"
#include "syscfg/lookup.h"
#include "syscfg/store.h"

inline void free_records(syscfg *db)
{
    for (syscfg_var *var : {db->vars, db->aliases}) {
        while (var)
            unique_var(std::exchange(var, var->next));
    }
    free(db->var_tbl);
    free(db->alias_tbl);
    free(db);
}
