// A transaction of the tool's own on an open store: committed, or taken back when it is left.
#pragma once

#include "shkvctl/common.h"

class Transaction
{
  public:
    Transaction(const Store &store, uint32_t keys); // throws when one cannot be opened
    ~Transaction();
    Transaction(const Transaction &) = delete;
    void commit();

  private:
    const Store &store_;
    bool open_ = true;
};

void start_txn(const Store &store, uint32_t keys); // one that stays open; throws when it cannot be

// A store with an open transaction takes no second one; says whose turn it is.
Failure txn_is_open(const std::string &uri);
Failure no_txn_here(const std::string &uri); // it allows several writers
