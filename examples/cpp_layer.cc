// cpp_layer.cc - the same store by the C++ layer: handles that close themselves, string_view keys,
// results that hold a value or say why not, a range, a transaction that ends with its scope.
//
// Prints:
//     apple costs 120
//     cherry: No such file or directory
//     dropped with its scope, apple costs 120
//     committed, apple costs 95
//     2 records, 13 bytes
//     stock of 3 and 0.5
#include <cstdio>
#include <shkv.hpp>

struct stock {
    int cnt;
    double share;
};

static void print(const shkv::store &db, const char *when)
{
    printf("%sapple costs %s\n", when, db.get("apple").value_or("nothing").c_str()); // a std::string
}

int main()
{
    auto made = shkv::store::create("example_cpp", 7);
    if (!made) {
        fprintf(stderr, "no store: %s\n", shkv::text(made.error()));
        return 1;
    }
    shkv::store db = std::move(*made);
    db.add("apple", "120");
    db.add("pear", "80");
    print(db, "");

    char room[32]; // into room of the caller's: no allocation, and the code of the C call
    if (auto price = db.get("cherry", room); !price)
        printf("cherry: %s\n", shkv::text(price.error()));

    if (auto txn = db.begin(1))
        db.add("apple", "90"); // no commit: the end of the scope drops it
    print(db, "dropped with its scope, ");
    if (auto txn = db.begin(1)) {
        db.add("apple", "95");
        txn->commit();
    }
    print(db, "committed, ");

    size_t cnt = 0, bytes = 0;
    for (const auto &[key, value] : db.records()) {
        cnt++;
        bytes += key.size() + value.size();
    }
    printf("%zu records, %zu bytes\n", cnt, bytes);

    db.add_as("stock", stock{3, 0.5}); // any type that is its bytes
    if (auto got = db.get_as<stock>("stock"))
        printf("stock of %d and %.1f\n", got->cnt, got->share);
    return db.destroy() == shkv::status::ok ? 0 : 1;
}
