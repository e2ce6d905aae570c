#include "bench/store_peers.h"

#include <lmdb.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <utmpx.h>

#include <stdexcept>

#include <ttyline/tty.h>

#include "common/keys.h"

constexpr mode_t PRIVATE_FILE = 0600;
constexpr mode_t PRIVATE_DIRECTORY = 0700;

static void need(bool good, const std::string &what)
{
    if (!good) {
        throw std::runtime_error(what);
    }
}

// The line library: a text file a line.

class tty_store : public store
{
  public:
    explicit tty_store(const std::string &directory)
    {
        need(setenv("TMPDIR", directory.c_str(), 1) == 0, "setenv");
    }

    bool set(unsigned int line, const char *key, const char *value) override
    {
        return tty_setenv(line, key, value) == 0;
    }

    bool get(unsigned int line, const char *key,
             char (&value)[VALUE_SIZE]) override
    {
        return tty_getenv(line, key, value, VALUE_SIZE) != nullptr;
    }
};

// Written at once: synchronous sets of all keys would take longer than what is
// measured.
static void fill_tty(const std::string &directory, const char *value)
{
    const std::string runtime = directory + "/mng";

    mkdir(runtime.c_str(), PRIVATE_DIRECTORY);
    mkdir((runtime + "/tty").c_str(), PRIVATE_DIRECTORY);
    for (unsigned int i = 0; i < LINES; i++) {
        const std::string path =
            runtime + "/tty/.tty_info_" + std::to_string(FIRST_LINE + i);
        FILE *file = fopen(path.c_str(), "w");
        need(file != nullptr, path);
        for (const char *key : tty_envs) {
            fprintf(file, "%s=%s\r\n", key, value);
        }
        need(fclose(file) == 0, path);
    }
}

static std::unique_ptr<store> open_tty(const std::string &directory)
{
    return std::make_unique<tty_store>(directory);
}

// utmpx: one file for all lines, one record a line. It has no keys: the value
// is the record's host, the nearest field. The C library has one file open a
// process.

class utmpx_store : public store
{
  public:
    explicit utmpx_store(const std::string &directory)
    {
        need(utmpxname((directory + "/utmpx").c_str()) == 0, "utmpxname");
    }

    ~utmpx_store() override
    {
        endutxent();
    }

    bool set(unsigned int line, const char *, const char *value) override
    {
        struct utmpx record = record_of(line);

        memcpy(record.ut_host, value, strlen(value) + 1);
        setutxent();
        return pututxline(&record) != nullptr;
    }

    bool get(unsigned int line, const char *,
             char (&value)[VALUE_SIZE]) override
    {
        const struct utmpx wanted = record_of(line);

        setutxent();
        const struct utmpx *found = getutxid(&wanted);
        if (found == nullptr) {
            return false;
        }
        memcpy(value, found->ut_host, VALUE_SIZE - 1);
        value[VALUE_SIZE - 1] = '\0';
        return true;
    }

  private:
    static struct utmpx record_of(unsigned int line)
    {
        const std::string number = std::to_string(line);
        struct utmpx record = {};

        record.ut_type = USER_PROCESS;
        memcpy(record.ut_id, number.data(), number.size());
        memcpy(record.ut_line, number.data(), number.size());
        return record;
    }
};

static std::unique_ptr<store> open_utmpx(const std::string &directory)
{
    return std::make_unique<utmpx_store>(directory);
}

static void fill_utmpx(const std::string &directory, const char *value)
{
    FILE *file = fopen((directory + "/utmpx").c_str(), "w");

    need(file != nullptr && fclose(file) == 0, "utmpx");
    const auto handle = open_utmpx(directory);
    for (unsigned int i = 0; i < LINES; i++) {
        need(handle->set(FIRST_LINE + i, nullptr, value), "pututxline");
    }
}

// SQLite: one table, statements prepared once.

constexpr int BUSY_TIMEOUT_MS = 20000;

class sqlite_store : public store
{
  public:
    explicit sqlite_store(const std::string &directory)
    {
        need(sqlite3_open((directory + "/db").c_str(), &db) == SQLITE_OK,
             "sqlite3_open");
        sqlite3_busy_timeout(db, BUSY_TIMEOUT_MS);
        run("PRAGMA journal_mode=WAL");
        run("PRAGMA synchronous=NORMAL");
        run("CREATE TABLE IF NOT EXISTS env (line INTEGER, key TEXT, "
            "value TEXT, PRIMARY KEY (line, key)) WITHOUT ROWID");
        getter = prepare("SELECT value FROM env WHERE line = ? AND key = ?");
        setter = prepare("INSERT INTO env VALUES (?, ?, ?) ON CONFLICT "
                         "(line, key) DO UPDATE SET value = excluded.value");
    }

    sqlite_store(const sqlite_store &) = delete;
    sqlite_store &operator=(const sqlite_store &) = delete;

    ~sqlite_store() override
    {
        sqlite3_finalize(getter);
        sqlite3_finalize(setter);
        sqlite3_close(db);
    }

    void run(const char *statement)
    {
        need(sqlite3_exec(db, statement, nullptr, nullptr, nullptr) ==
                 SQLITE_OK,
             statement);
    }

    bool set(unsigned int line, const char *key, const char *value) override
    {
        bind(setter, line, key);
        sqlite3_bind_text(setter, 3, value, -1, SQLITE_STATIC);
        const bool done = sqlite3_step(setter) == SQLITE_DONE;
        return sqlite3_reset(setter) == SQLITE_OK && done;
    }

    bool get(unsigned int line, const char *key,
             char (&value)[VALUE_SIZE]) override
    {
        bind(getter, line, key);
        const bool found = sqlite3_step(getter) == SQLITE_ROW;
        if (found) {
            (void)snprintf(
                value, VALUE_SIZE, "%s",
                reinterpret_cast<const char *>(sqlite3_column_text(getter, 0)));
        }
        return sqlite3_reset(getter) == SQLITE_OK && found;
    }

  private:
    sqlite3 *db = nullptr;
    sqlite3_stmt *getter = nullptr;
    sqlite3_stmt *setter = nullptr;

    sqlite3_stmt *prepare(const char *statement)
    {
        sqlite3_stmt *prepared = nullptr;

        need(sqlite3_prepare_v3(db, statement, -1, SQLITE_PREPARE_PERSISTENT,
                                &prepared, nullptr) == SQLITE_OK,
             statement);
        return prepared;
    }

    static void bind(sqlite3_stmt *statement, unsigned int line,
                     const char *key)
    {
        sqlite3_bind_int(statement, 1, static_cast<int>(line));
        sqlite3_bind_text(statement, 2, key, -1, SQLITE_STATIC);
    }
};

static std::unique_ptr<store> open_sqlite(const std::string &directory)
{
    return std::make_unique<sqlite_store>(directory);
}

static void fill_sqlite(const std::string &directory, const char *value)
{
    sqlite_store handle(directory);

    handle.run("BEGIN");
    for (unsigned int i = 0; i < LINES; i++) {
        for (const char *key : tty_envs) {
            need(handle.set(FIRST_LINE + i, key, value), "INSERT");
        }
    }
    handle.run("COMMIT");
}

// LMDB: one tree, "LINE KEY" its keys; a reader is renewed for each get.

constexpr size_t MAP_SIZE = 16UL << 20;

class lmdb_store : public store
{
  public:
    explicit lmdb_store(const std::string &directory)
    {
        need(mdb_env_create(&env) == 0 &&
                 mdb_env_set_mapsize(env, MAP_SIZE) == 0 &&
                 mdb_env_open(env, directory.c_str(), MDB_NOMETASYNC,
                              PRIVATE_FILE) == 0,
             "mdb_env_open");
        MDB_txn *opening = nullptr;
        need(mdb_txn_begin(env, nullptr, MDB_RDONLY, &opening) == 0 &&
                 mdb_dbi_open(opening, nullptr, 0, &tree) == 0 &&
                 mdb_txn_commit(opening) == 0,
             "mdb_dbi_open");
        need(mdb_txn_begin(env, nullptr, MDB_RDONLY, &reader) == 0,
             "mdb_txn_begin");
        mdb_txn_reset(reader);
    }

    lmdb_store(const lmdb_store &) = delete;
    lmdb_store &operator=(const lmdb_store &) = delete;

    ~lmdb_store() override
    {
        mdb_txn_abort(reader);
        mdb_env_close(env);
    }

    bool set(unsigned int line, const char *key, const char *value) override
    {
        MDB_txn *writer = begin();

        if (writer == nullptr) {
            return false;
        }
        if (!put(writer, line, key, value)) {
            mdb_txn_abort(writer);
            return false;
        }
        return mdb_txn_commit(writer) == 0;
    }

    bool get(unsigned int line, const char *key,
             char (&value)[VALUE_SIZE]) override
    {
        tree_key wanted(line, key);
        MDB_val found;

        if (mdb_txn_renew(reader) != 0) {
            return false;
        }
        const bool good = mdb_get(reader, tree, &wanted.val, &found) == 0 &&
                          found.mv_size == VALUE_SIZE;
        if (good) {
            memcpy(value, found.mv_data, VALUE_SIZE);
        }
        mdb_txn_reset(reader);
        return good;
    }

    void fill(const char *value)
    {
        MDB_txn *writer = begin();

        need(writer != nullptr, "mdb_txn_begin");
        for (unsigned int i = 0; i < LINES; i++) {
            for (const char *key : tty_envs) {
                need(put(writer, FIRST_LINE + i, key, value), "mdb_put");
            }
        }
        need(mdb_txn_commit(writer) == 0, "mdb_txn_commit");
    }

  private:
    struct tree_key {
        char text[64];
        MDB_val val;

        tree_key(unsigned int line, const char *key) : text(), val()
        {
            const int length = snprintf(text, sizeof text, "%u %s", line, key);
            val.mv_size = static_cast<size_t>(length);
            val.mv_data = text;
        }
    };

    MDB_env *env = nullptr;
    MDB_dbi tree = 0;
    MDB_txn *reader = nullptr;

    MDB_txn *begin()
    {
        MDB_txn *writer = nullptr;

        return mdb_txn_begin(env, nullptr, 0, &writer) == 0 ? writer : nullptr;
    }

    bool put(MDB_txn *writer, unsigned int line, const char *key,
             const char *value)
    {
        tree_key where(line, key);
        char text[VALUE_SIZE];
        MDB_val stored = {sizeof text, text};

        memcpy(text, value, sizeof text);
        return mdb_put(writer, tree, &where.val, &stored, 0) == 0;
    }
};

static std::unique_ptr<store> open_lmdb(const std::string &directory)
{
    return std::make_unique<lmdb_store>(directory);
}

static void fill_lmdb(const std::string &directory, const char *value)
{
    lmdb_store(directory).fill(value);
}

const peer peers[PEERS] = {
    {"libtty", fill_tty, open_tty},
    {"utmpx", fill_utmpx, open_utmpx},
    {"SQLite", fill_sqlite, open_sqlite},
    {"LMDB", fill_lmdb, open_lmdb},
};
