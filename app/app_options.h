// Options of a program: from its command line, else from configuration files, else from the environment. The
// first of these that gives an option a value wins.
//
// A table of app_option says what there is; app_init takes it and fills the records, which live as long as
// the process. Values are then read by name anywhere in the program.
#pragma once

#include <cstdint>
#include <cstdio>

// The kinds of value; any other number is a string. APP_OPT_LIST may be added to each: a flag is then
// counted, other values are collected.
enum app_opt_type : int32_t { APP_OPT_FLAG = 0, APP_OPT_INT = 2, APP_OPT_CONFIG = 127, APP_OPT_LIST = 128 };

// The last entry of a table has no name and stands for the positional arguments.
struct app_option {
    const char *name; // without dashes; the name in configuration files, too
    char short_name;  // 0 without a short form
    const char *env;  // the environment variable that may give the value, or null
    int32_t type;
};

// One option that has a value.
struct app_optrec {
    char *name; // null for the positional arguments
    int32_t type;
    union {
        char *text;  // "" for a flag, null for a counted one
        char **list; // of APP_OPT_LIST; ends with null
    };
    void *parsed; // an int; a count; an int with the number of ints that follow; or the list itself
    app_optrec *next;
};

// flags of app_opt_get.
enum app_opt_flags { APP_OPT_ELEMENT = 1 };

// The value as text; the array of texts (a char **) when the option is a list. With APP_OPT_ELEMENT the
// element at index of a list, or at index 0 the text of another option. Null when there is none.
const char *app_opt_get(const char *name, int flags, int index);

// The parsed value (see app_optrec), or null.
const void *app_opt_value(const char *name);

// 1 when the option's text is "true" or begins with a number other than 0, else 0; logged. A flag has the
// text
// "" and is not set in this sense: ask app_opt_get for it.
int app_opt_isset(const char *name);

// Stores a value; 0, or -1 when it is missing, not what the type wants (a number has to fit an int), or
// memory is out.
int app_opt_set(const app_option *entry, const char *value);

// The three sources. A mistake on the command line ends the program; one in a file is told and passed over.
void app_opt_parse(int argc, char **argv, const app_option *options);
void app_conf_load(const app_option *options, FILE *file);
void app_conf_load_all(const app_option *options, const char *appname);
void app_opt_env(const app_option *options);

// Forgets all values, for a program that begins anew.
void app_opt_clear();
