// Options of a program, from its command line, its configuration files and the environment, in this order.
// The first source to give an option a value wins.
//
// A table of app_option lists them; app_init reads it and fills the records, which live as long as the
// process. The rest of the program reads values by name.
#pragma once

#include <cstdint>
#include <cstdio>

// Kinds of value; any other number means a string. With APP_OPT_LIST added, a flag is counted and other
// values are collected.
enum app_opt_type : int32_t { APP_OPT_FLAG = 0, APP_OPT_INT = 2, APP_OPT_CONFIG = 127, APP_OPT_LIST = 128 };

// The last entry of a table has no name and describes the positional arguments.
struct app_option {
    const char *name; // without dashes; also the name in configuration files
    char short_name;  // 0 if it has no short form
    const char *env;  // environment variable that can set it, or null
    int32_t type;
};

// One option that has a value.
struct app_optrec {
    char *name; // null for the positional arguments
    int32_t type;
    union {
        char *text;  // "" for a flag, null for a counted one
        char **list; // of APP_OPT_LIST; null-terminated
    };
    void *parsed; // an int; a count; the number of ints and the ints; or the list itself
    app_optrec *next;
};

// Flags of app_opt_get.
enum app_opt_flags { APP_OPT_ELEMENT = 1 };

// The value as text; for a list the array of texts (a char **). With APP_OPT_ELEMENT, the element of a list
// at index; any other option has its text at index 0. Null if there is none.
const char *app_opt_get(const char *name, int flags, int index);

// The parsed value (see app_optrec), or null.
const void *app_opt_value(const char *name);

// 1 if the option's text is "true" or begins with a number other than 0, else 0; logged. A flag that was
// given has the text "" and so yields 0: use app_opt_get for flags.
int app_opt_isset(const char *name);

// Stores a value. Returns 0, or -1 if it is missing, wrong for the type (a number must fit an int), or if out
// of memory.
int app_opt_set(const app_option *entry, const char *value);

// The three sources. On the command line, an unknown option ends the parsing and a bad value of a short
// option is dropped; a missing value, or a bad one of a long option, ends the program. A bad line in a file
// is reported and skipped.
void app_opt_parse(int argc, char **argv, const app_option *options);
void app_conf_load(const app_option *options, FILE *file);
void app_conf_load_all(const app_option *options, const char *appname);
void app_opt_env(const app_option *options);

// Forgets all values, so that a program can start over.
void app_opt_clear();
