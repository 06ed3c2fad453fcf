/* A speed workload for SQLite: a schema of customers, orders and order
 * lines; inserts in transactions; selects with joins, ordering and
 * grouping; updates and deletes. The argument scales it (default 1); the
 * last line printed is a checksum of every result read. */
#include <stdio.h>
#include <stdlib.h>

#include "sqlite3.h"

static sqlite3 *db;
static unsigned long long checksum;

static void fail(const char *what)
{
    fprintf(stderr, "workload: %s: %s\n", what, sqlite3_errmsg(db));
    exit(1);
}

static void exec(const char *sql)
{
    char *error = NULL;
    if (sqlite3_exec(db, sql, NULL, NULL, &error) != SQLITE_OK) {
        fprintf(stderr, "workload: %s\n", error);
        exit(1);
    }
}

static sqlite3_stmt *prepare(const char *sql)
{
    sqlite3_stmt *statement;
    if (sqlite3_prepare_v2(db, sql, -1, &statement, NULL) != SQLITE_OK)
        fail(sql);
    return statement;
}

/* Runs a query and folds every column of every row into the checksum. */
static void query(const char *sql)
{
    sqlite3_stmt *statement = prepare(sql);
    int rc;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW)
        for (int c = 0; c < sqlite3_column_count(statement); ++c)
            checksum = checksum * 31 + (unsigned long long)sqlite3_column_int64(statement, c) +
                       (unsigned long long)sqlite3_column_bytes(statement, c);
    if (rc != SQLITE_DONE)
        fail(sql);
    sqlite3_finalize(statement);
}

static const char *const cities[] = {"Lyon", "Porto", "Graz", "Turku", "Ghent", "Bergen", "Cork", "Brno"};
static const char *const products[] = {"bolt", "nut", "gear", "spring", "valve", "hinge", "clamp", "pulley"};

static void insert_rows(int scale)
{
    sqlite3_stmt *customer = prepare("INSERT INTO customers(id, name, city) VALUES (?, ?, ?)");
    sqlite3_stmt *order = prepare("INSERT INTO orders(id, customer, amount, day) VALUES (?, ?, ?, ?)");
    sqlite3_stmt *item = prepare("INSERT INTO items(order_id, product, qty, price) VALUES (?, ?, ?, ?)");
    unsigned seed = 12345;
    int customers = 2000 * scale, orders = 8000 * scale;
    for (int i = 1; i <= customers; ++i) {
        if (i % 500 == 1)
            exec("BEGIN");
        char name[32];
        snprintf(name, sizeof name, "customer-%d", i);
        sqlite3_bind_int(customer, 1, i);
        sqlite3_bind_text(customer, 2, name, -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(customer, 3, cities[i % 8], -1, SQLITE_STATIC);
        if (sqlite3_step(customer) != SQLITE_DONE)
            fail("insert customer");
        sqlite3_reset(customer);
        if (i % 500 == 0 || i == customers)
            exec("COMMIT");
    }
    for (int i = 1; i <= orders; ++i) {
        if (i % 500 == 1)
            exec("BEGIN");
        seed = seed * 1103515245u + 12345u;
        sqlite3_bind_int(order, 1, i);
        sqlite3_bind_int(order, 2, 1 + (int)(seed % (unsigned)customers));
        sqlite3_bind_double(order, 3, (seed >> 8) % 10000 / 100.0);
        sqlite3_bind_int(order, 4, (int)(seed >> 16) % 365);
        if (sqlite3_step(order) != SQLITE_DONE)
            fail("insert order");
        sqlite3_reset(order);
        for (int line = 0; line < 1 + (int)(seed >> 20) % 4; ++line) {
            sqlite3_bind_int(item, 1, i);
            sqlite3_bind_text(item, 2, products[(seed >> line) % 8], -1, SQLITE_STATIC);
            sqlite3_bind_int(item, 3, (int)(seed >> (line + 3)) % 9);
            sqlite3_bind_double(item, 4, 1 + (seed >> (line + 5)) % 500 / 10.0);
            if (sqlite3_step(item) != SQLITE_DONE)
                fail("insert item");
            sqlite3_reset(item);
        }
        if (i % 500 == 0 || i == orders)
            exec("COMMIT");
    }
    sqlite3_finalize(customer);
    sqlite3_finalize(order);
    sqlite3_finalize(item);
}

int main(int argc, char **argv)
{
    int scale = argc > 1 ? atoi(argv[1]) : 1;
    if (scale < 1 || sqlite3_open(":memory:", &db) != SQLITE_OK)
        return 2;
    exec("CREATE TABLE customers(id INTEGER PRIMARY KEY, name TEXT NOT NULL, city TEXT NOT NULL);"
         "CREATE TABLE orders(id INTEGER PRIMARY KEY, customer INTEGER NOT NULL REFERENCES customers(id),"
         "                    amount REAL NOT NULL, day INTEGER NOT NULL);"
         "CREATE TABLE items(order_id INTEGER NOT NULL REFERENCES orders(id), product TEXT NOT NULL,"
         "                   qty INTEGER NOT NULL, price REAL NOT NULL);"
         "CREATE INDEX orders_by_customer ON orders(customer);"
         "CREATE INDEX items_by_order ON items(order_id);");
    insert_rows(scale);
    for (int round = 0; round < 3; ++round) {
        query("SELECT c.city, count(DISTINCT o.id), sum(i.qty * i.price) AS total"
              " FROM customers c JOIN orders o ON o.customer = c.id JOIN items i ON i.order_id = o.id"
              " GROUP BY c.city ORDER BY total DESC");
        query("SELECT c.name, count(*), max(o.amount) FROM customers c JOIN orders o ON o.customer = c.id"
              " WHERE o.day BETWEEN 100 AND 200 GROUP BY c.id HAVING count(*) > 1 ORDER BY 3 DESC LIMIT 50");
        query("SELECT product, sum(qty), avg(price) FROM items GROUP BY product ORDER BY product");
        query("SELECT o.day, count(*) FROM orders o WHERE o.amount > (SELECT avg(amount) FROM orders)"
              " GROUP BY o.day ORDER BY o.day");
        query("SELECT name FROM customers WHERE name LIKE '%7%' ORDER BY city, name");
        exec("BEGIN");
        exec("UPDATE orders SET amount = amount * 1.05 WHERE day % 7 = 0");
        exec("UPDATE items SET qty = qty + 1 WHERE product IN ('gear', 'valve')");
        exec("DELETE FROM items WHERE qty = 0");
        exec("DELETE FROM orders WHERE id % 97 = 0 AND NOT EXISTS (SELECT 1 FROM items WHERE order_id = orders.id)");
        exec("COMMIT");
    }
    query("SELECT count(*), sum(qty) FROM items");
    sqlite3_close(db);
    printf("checksum %llu\n", checksum);
    return 0;
}
