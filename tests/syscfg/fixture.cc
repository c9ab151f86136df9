#include "tests/syscfg/fixture.h"

#include "app/app.h"
#include "app/text.h"
#include "syscfg/registry.h"
#include "tests/syscfg/records.h"

#include <md5.h>
#include <sstream>
#include <unistd.h>

std::string reported;

static void note_changes(cfgdb *, const char *const *names, int count)
{
    for (int i = 0; i < count; ++i)
        reported += (i ? " " : "") + std::string(names[i]);
    reported += names[count] ? "!" : ";";
}

std::string trimmed(std::string_view text)
{
    return std::string(trim_end(skip_space(text)));
}

std::vector<std::vector<std::string>> rows(std::string_view text)
{
    std::vector<std::vector<std::string>> result;
    while (!text.empty()) {
        std::string_view line = skip_space(cut_until(text, '\n'));
        if (line.empty())
            continue;
        result.emplace_back();
        for (bool more = true; more;) {
            more = line.find('|') != line.npos;
            std::string &column = result.back().emplace_back(trimmed(cut_until(line, '|')));
            for (size_t at; (at = column.find("\\n")) != column.npos;)
                column.replace(at, 2, "\n");
        }
    }
    return result;
}

void free_database(syscfg *db)
{
    app_remove_ctx(db);
    app_poll_once(); // lets the loop reclaim its slot
    if (db->server_fd >= 0)
        close(db->server_fd);
    for (const syscfg_var *var = db->vars; var; var = var->next)
        EXPECT_EQ(var->waiters, nullptr);
    free_records(db);
}

database declare(std::string_view definition)
{
    write_file("/etc/syscfg.def", definition);
    database db(create_syscfg(nullptr), free_database);
    db->changed = note_changes;
    char line[256];
    EXPECT_EQ(parse_definition(db.get(), "/etc/syscfg.def", line, sizeof line), 0);
    build_var_tbl(db.get());
    build_alias_tbl(db.get());
    return db;
}

database start(std::string_view definition)
{
    write_file("/etc/syscfg.def", definition);
    database db(create_syscfg(nullptr), free_database);
    if (db)
        db->changed = note_changes;
    if (db && db->ops->init(db.get()) < 0)
        db.reset();
    return db;
}

std::string show(const syscfg *db)
{
    std::ostringstream all;
    for (const syscfg_var *var = db->vars; var; var = var->next)
        all << var->name << "=" << var->text() << "/" << std::hex << var->flags << " ";
    return all.str();
}

int set(const syscfg *db, const std::string &name, const std::string &value)
{
    syscfg_var *var = find_var(db, name);
    return var ? var_types[var->type].set(db, var, value.c_str()) : -1000;
}

void write_flash(std::string_view device, const std::vector<flash_entry> &table, size_t size)
{
    std::string image(size, '\0');
    image.replace(0, 4, "REG\0", 4);
    for (size_t i = 0; i < table.size(); ++i) {
        const size_t at = 20 + 24 * i;
        image.replace(at, table[i].name.size(), table[i].name);
        memcpy(&image[at + 16], &table[i].capacity, 4);
        memcpy(&image[at + 20], &table[i].length, 4);
    }
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, reinterpret_cast<const uint8_t *>(&image[20]), 192);
    MD5Final(reinterpret_cast<uint8_t *>(&image[4]), &context);
    write_file(device, image);
}

syscfg_test::syscfg_test()
{
    reported.clear();
    for (const char *device : {flash5, flash6})
        write_flash(device, {{"hwinfo", 512, 0}, {"syscfg", 65536, 0}});
}
