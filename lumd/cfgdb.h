// The bridge between the service manager and the configuration database, which it owns.
#pragma once

struct lumd;
struct syscfg;

struct cfgdb {
    lumd *owner;
    ::syscfg *syscfg; // null until cfgdb_init has succeeded

    // Called with owner: count variables whose values have changed.
    void (*changed)(lumd *owner, const char *const *names, int count);
};

// A bridge for that manager, or null (logged) when memory is out.
cfgdb *create_cfgdb(lumd *manager);

// Creates and initialises the database. 0, or -1, logged.
[[nodiscard]] int cfgdb_init(cfgdb *bridge);

// The value that name ("NAME" or "syscfg:NAME", cut at 255 characters) stands for, the database's own until
// it changes; null when there is none. The environment ("env:NAME") gives no values.
const char *cfgdb_getSyscfg(cfgdb *bridge, const char *name);

// The database's listener: passes changes on to the owner.
void cfgdb_processSyscfgChange(cfgdb *bridge, const char *const *names, int count);

// Releases the database, and frees the bridge.
void cfgdb_release(cfgdb *bridge);
