// Frees everything that a configuration database holds in memory.
#pragma once
#include "app/memory.h"
#include "app/text.h"
#include "syscfg/store.h"

inline void free_records(syscfg *db)
{
    for (syscfg_var *var : {db->vars, db->aliases}) {
        while (var) {
            drop_value(var);
            for (size_t i = 0; (var->type == VAR_ALIAS || var->type == VAR_CHOICE) && var->list[i]; ++i)
                free(var->list[i]);
            free(var->pattern);
            free(var->name);
            free(std::exchange(var, var->next));
        }
    }
    free(db->var_tbl);
    free(db->alias_tbl);
    free(db);
}
