// A transaction of the tool's own on an open store: committed, or taken back when it is left.
#include "shkvctl/transaction.h"

#include <errno.h>

Failure txn_is_open(const std::string &uri)
{
    return {EXIT_ERROR, EEXIST, fmt::format("store '{}' has a transaction open already", uri),
            fmt::format(
                "look at it with: shkvctl txn status {0}; end it with: shkvctl txn commit {0}, or abort", uri)};
}

Failure no_txn_here(const std::string &uri)
{
    return {EXIT_ERROR, EBADF,
            fmt::format("store '{}' allows several writers, and so has no transactions", uri)};
}

void start_txn(const Store &store, uint32_t keys)
{
    if (store.in_txn())
        throw txn_is_open(store.uri());
    int err = shkv_txn_start(store.handle(), &keys);
    if (err == EBADF && (store.sn().conf_flg & CONF_MULTIWR))
        throw no_txn_here(store.uri());
    if (err != 0)
        throw store.failure("open a transaction", err);
}

Transaction::Transaction(const Store &store, uint32_t keys) : store_(store)
{
    start_txn(store, keys);
}

Transaction::~Transaction()
{
    if (open_)
        shkv_txn_abort(store_.handle());
}

void Transaction::commit()
{
    int err = shkv_txn_commit(store_.handle(), nullptr);
    open_ = false;
    if (err != 0)
        throw store_.failure("commit", err);
}
